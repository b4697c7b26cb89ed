# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Scaled products: S1, and the identity by which dot products are shifted."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import always, between, exact, is_half_to_even, is_half_up, low

X, COUNT = z3.BitVecs("x shift", 32)
X64 = z3.BitVec("x", 64)
REMAINDER_SHIFTS = range(1, 31)


def _rounds(shift: int, is_rounded=is_half_to_even) -> Case:
    def state(rules):
        return always(
            is_rounded(exact(X, 66), shift, exact(rules["ShiftRoundHalfToEven"](X, shift), 66))
        )

    return Case(f"s = {shift}", state)


def _rounds64(shift: int, is_rounded=is_half_to_even) -> Case:
    def state(rules):
        return always(
            is_rounded(
                exact(X64, 98), shift, exact(rules["ShiftRoundHalfToEven64"](X64, shift), 98)
            )
        )

    return Case(f"s = {shift}", state)


def _of_31(rules) -> Statement:
    """Never up but for a positive x whose bits below a half are not all 0: there is no half."""
    result = rules["ShiftRoundHalfToEven"](X, 31)
    up = z3.And(X & 0x40000000 != 0, X > 0)
    return always(result == z3.If(X < 0, z3.BitVecVal(-1, 32), z3.If(up, z3.BitVecVal(1, 32), 0)))


def _counts(rules) -> Statement:
    rule = rules["ShiftRoundHalfToEven"]
    return always(rule(X, COUNT) == rule(X, COUNT % 32))


def _bounded(rules) -> Statement:
    """No larger in magnitude, but for 0 and 1 at most 1: theorem 1's bound stays."""
    result, x = exact(rules["ShiftRoundHalfToEven"](X, COUNT), 34), exact(X, 34)
    magnitude = z3.If(x < 0, -x, x)
    most = z3.If(magnitude == 0, z3.BitVecVal(1, 34), magnitude)
    return always(z3.And(result <= most, result >= -most))


def _defined(rules) -> Statement:
    return always(rules["ShiftRoundHalfToEven"].is_defined(X, COUNT))


def _remainder(rules, x: z3.BitVecRef, shift: int) -> z3.BitVecRef:
    return exact(x, 66) - (exact(rules["ShiftRoundHalfToEven"](x, shift), 66) << shift)


def _remainder_of_low_bits(shift: int, bits: int) -> Case:
    """What is left of x depends on its low s + 1 bits alone, and is at most a half."""

    def state(rules):
        rest = _remainder(rules, X, shift)
        of_low = _remainder(rules, z3.ZeroExt(32 - bits, low(X, bits)), shift)
        return always(z3.And(rest == of_low, between(-(1 << (shift - 1)), rest, 1 << (shift - 1))))

    return Case(f"s = {shift}, {bits} bits", state)


def _remainders_are_odd(shift: int) -> Case:
    """Halves to even are symmetric: so are the remainders, of products that have a negative."""

    def state(rules):
        rest = _remainder(rules, X, shift)
        return Statement(X != -(1 << 31), _remainder(rules, -X, shift) == -rest)

    return Case(f"s = {shift}, negative", state)


def _sums_of_quotients(shift: int, has_remainder: bool = True) -> Case:
    """One product more: 2^s times the sum of quotients is the exact sum less the remainders."""
    total, rests = z3.BitVecs("total rests", 66)

    def state(rules):
        quotient = exact(rules["ShiftRoundHalfToEven"](X, shift), 66)
        rest = _remainder(rules, X, shift)
        quotients = z3.BitVec("quotients", 66)
        before = quotients << shift == total - rests
        more = total + exact(X, 66) - rests - (rest if has_remainder else 0)
        return Statement(before, (quotients + quotient) << shift == more)

    return Case(f"s = {shift}, sums", state)


CLAIMS = (
    Claim(
        "S1",
        "is x / 2^s with halves to even",
        "s = 1 to 30; all x",
        [_rounds(shift) for shift in range(1, 31)],
        [_rounds(shift, is_half_up) for shift in (1, 15, 30)],
    ),
    Claim(
        "S1",
        "at 31 a negative x never rounds up",
        "s = 31; all x",
        [Case("", _of_31)],
        [_rounds(31)],
    ),
    Claim(
        "S1",
        "counts are taken modulo 32",
        "all s, negative ones too; all x",
        [Case("", _counts)],
        [
            Case(
                "negative counts shift to the left",
                lambda rules: always(rules["ShiftRoundHalfToEven"](X, -1) == X << 1),
            )
        ],
    ),
    Claim(
        "S1",
        "makes no product larger in magnitude, but for 0 and 1 at most 1, and is defined",
        "all s, all x",
        [Case("bound", _bounded), Case("defined", _defined)],
        [
            Case(
                "nor larger than |x|",
                lambda rules: Statement(
                    X == 0, rules["ShiftRoundHalfToEven"](X, COUNT) == z3.BitVecVal(1, 32)
                ),
            )
        ],
    ),
    Claim(
        "S1, 64 bits",
        "is x / 2^s with halves to even, and defined",
        "s = 1 to 31; all x",
        [
            *(_rounds64(shift) for shift in range(1, 32)),
            *(
                Case(
                    f"s = {shift}, defined",
                    lambda rules, shift=shift: always(
                        rules["ShiftRoundHalfToEven64"].is_defined(X64, shift)
                    ),
                )
                for shift in range(32)
            ),
        ],
        [_rounds64(5, is_half_up)],
    ),
    Claim(
        "Remainders",
        "x = 2^s S1(x) + a remainder of at most a half, which the low s + 1 bits tell",
        "s = 1 to 30; all x",
        [_remainder_of_low_bits(shift, shift + 1) for shift in REMAINDER_SHIFTS],
        [_remainder_of_low_bits(shift, shift) for shift in (1, 5, 30)],
    ),
    Claim(
        "Remainders",
        "2^s times a sum of quotients is the exact sum less the remainders, which are odd in x",
        "s = 1 to 30; all x, all sums before",
        [
            *(_sums_of_quotients(shift) for shift in REMAINDER_SHIFTS),
            *(_remainders_are_odd(shift) for shift in REMAINDER_SHIFTS),
        ],
        [_sums_of_quotients(5, has_remainder=False)],
    ),
)
