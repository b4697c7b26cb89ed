# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The plan of a call: whatever is chosen, the hypotheses of its theorem hold."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import between, exact

W, S = z3.BitVecs("w s", 32)
_BOUNDS = z3.BitVecs(
    "input_min input_max weights_min weights_max elementwise_min elementwise_max", 64
)
SUM, PRODUCTS = z3.BitVecs("weight_sum products", 64)
_ARGUMENTS = (W, S, *_BOUNDS, SUM, PRODUCTS)
_MACHINES = ("lanes", "shorts", "bytes", "remainders")
# The paths, by their numbers.
STEPWISE, MODULAR, ROUNDED, SHORTS, BYTES, REMAINDERS = range(6)
ANY, WHOLE, UNCHANGED = range(3)
_INT32 = (-(2**31), 2**31 - 1)
_FLOAT = (-(2**24), 2**24)


def _magnitude(least: z3.BitVecRef, greatest: z3.BitVecRef) -> z3.BitVecRef:
    return z3.If(-least < greatest, greatest, -least)


def _are_facts(least: int, greatest: int, most_width: int = 32) -> z3.BoolRef:
    """Bounds of numbers, 0 taken in."""
    pairs = zip(_BOUNDS[::2], _BOUNDS[1::2], strict=True)
    return z3.And(
        *(z3.And(between(least, low, 0), between(0, high, greatest)) for low, high in pairs),
        between(1, PRODUCTS, 2**31 - 1),
        between(0, SUM, 2**62),
        W <= most_width,
    )


INPUT, WEIGHTS, ELEMENTWISE = (_magnitude(*_BOUNDS[i : i + 2]) for i in (0, 2, 4))


_ARE_WHOLE_FLOATS = _are_facts(*_FLOAT, most_width=2**31 - 1)


def _plan_of(rules, machine: str, of: str = "PlanInt32") -> list[z3.BitVecRef]:
    return rules[f"{of}/{machine}"].all(*_ARGUMENTS)


def _theorem_1(machine: str, halvings: int = 0, more: z3.BoolRef = W <= 32) -> Case:
    """Sums are kept modulo 2^32 only where no addend is above 2M, or none can be."""

    def state(rules):
        path, _, bits, _, _ = _plan_of(rules, machine)
        period = (z3.BitVecVal(1, 64) << exact(W, 64)) >> halvings
        small = z3.And(INPUT * WEIGHTS <= period, ELEMENTWISE <= period)
        conclusion = z3.And(W >= 1, bits == W, z3.Or(W >= 31, small))
        return Statement(
            z3.And(_are_facts(*_INT32), more), z3.Implies(path != STEPWISE, conclusion)
        )

    return Case(machine, state)


def _storage(machine: str, of: str = "PlanInt32", most: int = 255) -> Case:
    """Numbers fit what they are stored as; stored bytes have no sign."""

    def state(rules):
        path, offset, _, _, _ = _plan_of(rules, machine, of)
        low, high, least, greatest = _BOUNDS[:4]
        offset = exact(offset, 64)
        is_bytes = z3.And(0 <= low + offset, high + offset <= most, least >= -128, greatest <= 127)
        is_shorts = z3.And(low >= -(2**15), high < 2**15, least >= -(2**15), greatest < 2**15)
        of_bytes = z3.Or(path == BYTES, path == REMAINDERS)
        are_facts = _are_facts(*_INT32) if of == "PlanInt32" else _ARE_WHOLE_FLOATS
        return Statement(
            are_facts,
            z3.And(z3.Implies(of_bytes, is_bytes), z3.Implies(path == SHORTS, is_shorts)),
        )

    return Case(machine if of == "PlanInt32" else f"floats, {machine}", state)


def _scaling(machine: str, most: int = 5, more: z3.BoolRef = W <= 32) -> Case:
    """A shift is made where the path makes one, and by remainders where a table has it."""

    def state(rules):
        path, _, _, shift, _ = _plan_of(rules, machine)
        conclusion = z3.And(
            z3.Implies(z3.Or(path == SHORTS, path == BYTES), S == 0),
            z3.Implies(path == REMAINDERS, z3.And(shift == S, between(1, S, most))),
            # By rounding of floats: products and quotients that these hold.
            z3.Implies(
                z3.Or(path == ROUNDED, path == REMAINDERS),
                z3.And(INPUT * WEIGHTS <= 2**24, (INPUT * WEIGHTS) >> exact(S, 64) < 2**22),
            ),
        )
        return Statement(z3.And(_are_facts(*_INT32), more), conclusion)

    return Case(machine, state)


def _exact_half(machine: str, most: int = 4096, more: z3.BoolRef = W <= 2**31 - 1) -> Case:
    """In half precision sums change nowhere, or addends are what the steps take them for."""

    def state(rules):
        path, _, bits, _, half = _plan_of(rules, f"half/{machine}", "PlanFloat")
        total = exact(ELEMENTWISE, 128) + exact(INPUT, 128) * exact(SUM, 128)
        conclusion = z3.And(
            z3.Implies(path != STEPWISE, z3.And(W >= 1, bits == 32, total <= most)),
            z3.Implies(half == WHOLE, INPUT * WEIGHTS <= 32763),
            z3.Implies(half == UNCHANGED, INPUT * WEIGHTS <= most),
        )
        return Statement(z3.And(_ARE_WHOLE_FLOATS, more), conclusion)

    return Case(machine, state)


def _rounded_floats(machine: str, divides: bool, more_bits: int = 0) -> Case:
    """Products and quotients that the addition which rounds takes."""

    def state(rules):
        path, _, _, shift, _ = _plan_of(rules, machine, "PlanFloat")
        product = INPUT * WEIGHTS
        divisor = z3.If(S < 0, -exact(S, 64), exact(S, 64))
        powers = [divisor == 1 << k for k in range(32)]
        small = [
            z3.And(is_power, z3.LShR(product, k) < 2 ** (22 - more_bits))
            for k, is_power in enumerate(powers)
        ]
        by_interval = product < 2**19 if divides else z3.BoolVal(False)
        conclusion = z3.And(
            product <= 2**24,
            z3.Implies(z3.Or(path == ROUNDED, path == REMAINDERS), z3.Or(*small, by_interval)),
            z3.Implies(z3.Or(path == SHORTS, path == BYTES, path == MODULAR), S == 0),
            z3.Implies(
                path == REMAINDERS,
                z3.And(
                    between(1, shift, 5), exact(S, 64) == z3.BitVecVal(1, 64) << exact(shift, 64)
                ),
            ),
        )
        return Statement(_ARE_WHOLE_FLOATS, z3.Implies(path != STEPWISE, conclusion))

    return Case(machine, state)


def _fractions(rules) -> Statement:
    path, _, _, _, _ = _plan_of(rules, "fractions", "PlanFloat")
    return Statement(_ARE_WHOLE_FLOATS, path == STEPWISE)


def _whole_numbers(rules) -> Statement:
    path, _, _, _, _ = _plan_of(rules, "bytes", "PlanFloat")
    return Statement(_ARE_WHOLE_FLOATS, path == STEPWISE)


_FLOATS = "all facts of whole floats, all widths and shifts, four kinds of machines"

CLAIMS = (
    Claim(
        "Theorem 1",
        "whatever plan is chosen for integers, sums modulo 2^32 are right",
        "all facts of int32, all widths and shifts, four kinds of machines",
        [_theorem_1(machine) for machine in _MACHINES],
        [_theorem_1("shorts", halvings=1, more=z3.And(W == 8, WEIGHTS == 1))],
    ),
    Claim(
        "Plans",
        "numbers fit the bytes or shorts that they are stored as",
        "all facts of int32 and of whole floats",
        [_storage(machine, of) for of in ("PlanInt32", "PlanFloat") for machine in _MACHINES],
        [_storage("bytes", most=254)],
    ),
    Claim(
        "Plans",
        "shifts are made by the paths that make them",
        "all facts of int32",
        [_scaling(machine) for machine in _MACHINES],
        [_scaling("remainders", most=4, more=z3.And(S == 5, WEIGHTS == 1))],
    ),
    Claim(
        "H2",
        "whatever plan is chosen in half precision, sums are plain ones or addends small enough",
        _FLOATS,
        [_exact_half(machine) for machine in _MACHINES],
        [_exact_half("bytes", most=4095, more=z3.And(WEIGHTS == 1, S == 0))],
        in_tests=0,
    ),
    Claim(
        "Plans",
        "products of floats are rounded where that is right, and fractions go step by step",
        _FLOATS + "; divisions and reciprocals",
        [
            *(_rounded_floats(machine, divides=True) for machine in _MACHINES),
            _rounded_floats("reciprocals", divides=False),
            Case("fractions", _fractions),
        ],
        [Case("whole numbers, too", _whole_numbers)],
        in_tests=1,
    ),
)
