# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Words of 32 and 64 bits: I1 to I3, I5, I7."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import always, exact, floor_shifted, low

A, B = z3.BitVecs("a b", 32)
A64, B64 = z3.BitVecs("a b", 64)
X, COUNT = z3.BitVecs("x count", 32)
X64, COUNT64 = z3.BitVecs("x count", 64)


def _modular(name: str, operation, bits: int) -> Case:
    """What a word keeps of an exact result."""
    a, b = (A, B) if bits == 32 else (A64, B64)
    wide = 2 * bits if name.startswith("WrapMultiply") else bits + 1

    def state(rules):
        result = operation(exact(a, wide), exact(b, wide))
        return always(rules[name](a, b) == low(result, bits))

    return Case(name, state)


def _saturates(rules) -> Statement:
    total = exact(A, 33) + exact(B, 33)
    clipped = z3.If(total > 2**31 - 1, z3.BitVecVal(2**31 - 1, 33), total)
    return always(rules["WrapAdd"](A, B) == low(clipped, 32))


def _shift_left(bits: int) -> Case:
    x, count = (X, COUNT) if bits == 32 else (X64, COUNT64)
    name = "ShiftLeft" if bits == 32 else "ShiftLeft64"

    def state(rules):
        taken = exact(count % bits, 2 * bits)  # the remainder that is not negative
        return always(rules[name](x, count) == low(exact(x, 2 * bits) << taken, bits))

    return Case(name, state)


def _shift_right(bits: int, modulus: int) -> Case:
    x, count = (X, COUNT) if bits == 32 else (X64, COUNT64)
    name = "ShiftRight" if bits == 32 else "ShiftRight64"

    def state(rules):
        taken = exact(count % modulus, 2 * bits)
        result = exact(rules[name](x, count), 2 * bits)
        return always(floor_shifted(exact(x, 2 * bits), taken, result))

    return Case(name, state)


def _quotients(rules) -> Statement:
    """The solver's signed quotient truncates by its definition; that by -1 may not fit."""
    quotient = z3.If(B == -1, low(-exact(A, 33), 32), A / B)
    rule = rules["WrapDivide"]
    return Statement(B != 0, z3.And(rule(A, B) == quotient, rule.is_defined(A, B)))


def _floors(rules) -> Statement:
    quotient = exact(rules["WrapDivide"](A, 3), 66)
    rest = exact(A, 66) - quotient * 3
    return always(z3.And(rest >= 0, rest < 3))


def _unsigned(bits: int, is_left: bool, modulus: int) -> Case:
    """Shifts of words without a sign."""
    x = z3.BitVec("x", bits)
    name = f"Shift{'Left' if is_left else 'Right'}Unsigned{'64' if bits == 64 else ''}"

    def state(rules):
        taken = z3.ZeroExt(2 * bits - 32, COUNT % modulus)
        whole = z3.ZeroExt(bits, x)
        shifted = whole << taken if is_left else z3.LShR(whole, taken)
        rule = rules[name]
        return always(z3.And(rule(x, COUNT) == low(shifted, bits), rule.is_defined(x, COUNT)))

    return Case(name, state)


def _magnitude(rules) -> Statement:
    """Of -2^63 it is -2^63."""
    magnitude = z3.If(X64 < 0, -exact(X64, 65), exact(X64, 65))
    return always(rules["WrapAbsolute64"](X64) == low(magnitude, 64))


_SUMS = (
    ("WrapAdd", lambda a, b: a + b),
    ("WrapSubtract", lambda a, b: a - b),
    ("WrapMultiply", lambda a, b: a * b),
)

CLAIMS = (
    Claim(
        "I1",
        "sums, differences and products keep the low 32 bits of the exact ones",
        "all a, b",
        [_modular(name, operation, 32) for name, operation in _SUMS],
        [Case("sums saturate", _saturates)],
    ),
    Claim(
        "I2",
        "shift counts are taken modulo 32, right shifts are floors",
        "all x, all counts",
        [_shift_left(32), _shift_right(32, 32)],
        [_shift_right(32, 64)],
    ),
    Claim(
        "I3",
        "quotients truncate toward zero, and -2^31 / -1 wraps",
        "all a, all b but 0",
        [Case("WrapDivide", _quotients)],
        [Case("quotients are floors", _floors)],
    ),
    Claim(
        "I5",
        "sums, differences and products keep the low 64 bits; shift counts modulo 64",
        "all a, b; all x, all counts",
        [
            *(_modular(f"{name}64", operation, 64) for name, operation in _SUMS),
            _shift_left(64),
            _shift_right(64, 64),
        ],
        [_shift_right(64, 32)],
    ),
    Claim(
        "I2, I5",
        "shifts without a sign take their counts modulo the word's width; magnitudes wrap",
        "all x, all counts",
        [
            *(_unsigned(bits, is_left, bits) for bits in (32, 64) for is_left in (False, True)),
            Case("WrapAbsolute64", _magnitude),
        ],
        [
            _unsigned(32, False, 64),
            Case(
                "magnitudes are never negative",
                lambda rules: always(rules["WrapAbsolute64"](X64) >= 0),
            ),
        ],
    ),
    Claim(
        "I7",
        "narrowing keeps the low bits",
        "all x",
        [Case("LowWord", lambda rules: always(rules["LowWord"](X64) == low(X64, 32)))],
        [
            Case(
                "narrowing saturates",
                lambda rules: Statement(
                    X64 > 2**31 - 1, rules["LowWord"](X64) == z3.BitVecVal(2**31 - 1, 32)
                ),
            )
        ],
    ),
)
