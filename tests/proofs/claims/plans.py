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
_INT32 = (-(2**31), 2**31 - 1)


def _magnitude(least: z3.BitVecRef, greatest: z3.BitVecRef) -> z3.BitVecRef:
    return z3.If(-least < greatest, greatest, -least)


def _are_facts(least: int, greatest: int) -> z3.BoolRef:
    """Bounds of numbers, 0 taken in."""
    pairs = zip(_BOUNDS[::2], _BOUNDS[1::2], strict=True)
    return z3.And(
        *(z3.And(between(least, low, 0), between(0, high, greatest)) for low, high in pairs),
        between(1, PRODUCTS, 2**31 - 1),
        between(0, SUM, 2**62),
        W <= 32,
    )


INPUT, WEIGHTS, ELEMENTWISE = (_magnitude(*_BOUNDS[i : i + 2]) for i in (0, 2, 4))


def _plan_of(rules, machine: str) -> list[z3.BitVecRef]:
    return rules[f"PlanInt32/{machine}"].all(*_ARGUMENTS)


def _theorem_1(machine: str, halvings: int = 0, more: z3.BoolRef = W <= 32) -> Case:
    """Sums are kept modulo 2^32 only where no addend is above 2M, or none can be."""

    def state(rules):
        path, _, bits, _ = _plan_of(rules, machine)
        period = (z3.BitVecVal(1, 64) << exact(W, 64)) >> halvings
        small = z3.And(INPUT * WEIGHTS <= period, ELEMENTWISE <= period)
        conclusion = z3.And(W >= 1, bits == W, z3.Or(W >= 31, small))
        return Statement(
            z3.And(_are_facts(*_INT32), more), z3.Implies(path != STEPWISE, conclusion)
        )

    return Case(machine, state)


def _storage(machine: str, most: int = 255) -> Case:
    """Numbers fit what they are stored as; stored bytes have no sign."""

    def state(rules):
        path, offset, _, _ = _plan_of(rules, machine)
        low, high, least, greatest = _BOUNDS[:4]
        offset = exact(offset, 64)
        is_bytes = z3.And(0 <= low + offset, high + offset <= most, least >= -128, greatest <= 127)
        is_shorts = z3.And(low >= -(2**15), high < 2**15, least >= -(2**15), greatest < 2**15)
        of_bytes = z3.Or(path == BYTES, path == REMAINDERS)
        return Statement(
            _are_facts(*_INT32),
            z3.And(z3.Implies(of_bytes, is_bytes), z3.Implies(path == SHORTS, is_shorts)),
        )

    return Case(machine, state)


def _scaling(machine: str, most: int = 5, more: z3.BoolRef = W <= 32) -> Case:
    """A shift is made where the path makes one, and by remainders where a table has it."""

    def state(rules):
        path, _, _, shift = _plan_of(rules, machine)
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
        "all facts of int32",
        [_storage(machine) for machine in _MACHINES],
        [_storage("bytes", most=254)],
    ),
    Claim(
        "Plans",
        "shifts are made by the paths that make them",
        "all facts of int32",
        [_scaling(machine) for machine in _MACHINES],
        [_scaling("remainders", most=4, more=z3.And(S == 5, WEIGHTS == 1))],
    ),
)
