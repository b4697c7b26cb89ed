# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Bounds of partial sums: M5, in the words that the tiles add in."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import always, between, exact

START, SUM, END, REACH, ADDEND = z3.BitVecs("start sum end reach addend", 32)
# What addends move a sum by, before it and after.
BEFORE, AFTER = z3.BitVecs("before after", 32)
X, WEIGHT = (z3.ZeroExt(24, z3.BitVec("x", 8)), z3.SignExt(24, z3.BitVec("weight", 8)))
_WIDE = 40
_MOST = 1 << 29  # kMostDotSum of src/cpu/partial_sums_dots.h


def _apart(a: z3.BitVecRef, b: z3.BitVecRef) -> z3.BitVecRef:
    difference = exact(a, _WIDE) - exact(b, _WIDE)
    return z3.If(difference < 0, -difference, difference)


def _within(most: int = _MOST, room: int = 0) -> Case:
    """Between s + e - r and s + e + r lies 2p, without a wrap: of s = p - a and e = p + b."""

    def state(rules):
        add, subtract = rules["WrapAdd"], rules["WrapSubtract"]
        start, end, twice = subtract(SUM, BEFORE), add(SUM, AFTER), add(SUM, SUM)
        left = REACH - z3.If(AFTER < 0, -AFTER, AFTER)
        assumption = z3.And(
            *(between(1 - most, word, most - 1) for word in (SUM, BEFORE, AFTER)),
            between(0, REACH, most - 1),
            BEFORE <= left,
            -BEFORE <= left,
        )
        both = add(start, end)
        least = subtract(both, REACH) + room
        return Statement(assumption, z3.And(least <= twice, twice <= add(both, REACH)))

    return Case("bounds", state)


def _halves(is_ceiling: bool = False) -> Case:
    """What twice a sum lies between, halved and floored, the sum lies between."""

    def state(rules):
        half, twice = exact(rules["ShiftRight"](REACH, 1), _WIDE), exact(REACH, _WIDE)
        bound = exact(SUM, _WIDE)
        above = z3.Implies(twice <= 2 * bound, half + int(is_ceiling) <= bound)
        return Statement(
            z3.BoolVal(True), z3.And(above, z3.Implies(2 * bound <= twice, bound <= half))
        )

    return Case("halves", state)


def _reaches(is_sum: bool = True) -> Case:
    """One addend more moves a sum by its magnitude at most."""

    def state(rules):
        moved = rules["WrapAdd"](SUM, ADDEND)
        small = [between(1 - _MOST, word, _MOST - 1) for word in (START, SUM, ADDEND)]
        zero = z3.BitVecVal(0, 32)
        most = _apart(SUM, START) + (_apart(ADDEND, zero) if is_sum else exact(ADDEND, _WIDE))
        return Statement(z3.And(*small), _apart(moved, START) <= most)

    return Case("one addend", state, is_linear=True)


def _magnitudes(excess: int = 255) -> Case:
    """A byte's largest magnitude: 128 taken for 127, and 255 added to what is reached."""

    def state(rules):
        multiply = rules["WrapMultiply"]
        taken = z3.If(WEIGHT == -128, z3.BitVecVal(127, 32), z3.If(WEIGHT < 0, -WEIGHT, WEIGHT))
        product = multiply(X, WEIGHT)
        lacking = z3.If(WEIGHT == -128, z3.BitVecVal(excess, 32), z3.BitVecVal(0, 32))
        bound = multiply(X, taken) + lacking
        return always(z3.And(-bound <= product, product <= bound))

    return Case("bytes", state)


def _reached(rules) -> Statement:
    """Where all that lowers a sum comes first, the lower bound is twice the sum."""
    both = rules["WrapAdd"](START, END)
    least = rules["WrapSubtract"](both, REACH)
    small = [between(1 - _MOST, word, _MOST - 1) for word in (START, SUM, END)]
    reach = (START - SUM) + (END - SUM)
    falls = z3.And(SUM <= START, SUM <= END, REACH == reach)
    return Statement(z3.And(*small, falls), least == 2 * SUM)


CLAIMS = (
    Claim(
        "M5",
        "a partial sum lies within half of what start, end and reach leave, and nothing wraps",
        "all sums and reaches below 2^29, as the tiles require",
        [_halves(), _within(), Case("the least is reached", _reached, is_linear=True)],
        [_within(room=1), _within(most=1 << 30), _halves(is_ceiling=True)],
        in_tests=2,
    ),
    Claim(
        "M5",
        "each addend moves a sum by its magnitude at most, of which a byte's are dot products",
        "all sums and addends below 2^29; all bytes",
        [_magnitudes(), _reaches()],
        [_reaches(is_sum=False), _magnitudes(254)],
        in_tests=1,
    ),
)
