# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Whole numbers in words that are wide enough to hold them: what claims are stated in."""

from __future__ import annotations

import z3
from claim import Statement


def exact(word: z3.BitVecRef, bits: int) -> z3.BitVecRef:
    """Return a signed word's number in a wider word."""
    return z3.SignExt(bits - word.size(), word)


def low(word: z3.BitVecRef, bits: int) -> z3.BitVecRef:
    """Return the low bits of a word."""
    return z3.Extract(bits - 1, 0, word)


def always(conclusion: z3.BoolRef) -> Statement:
    """Return what holds without an assumption."""
    return Statement(z3.BoolVal(True), conclusion)


def between(low_end: int, word: z3.BitVecRef, high_end: int) -> z3.BoolRef:
    """Return whether low_end <= word <= high_end, of words that hold both."""
    return z3.And(low_end <= word, word <= high_end)


def floor_shifted(x: z3.BitVecRef, count: z3.BitVecRef, result: z3.BitVecRef) -> z3.BoolRef:
    """Return whether result = floor(x / 2^count), in words that hold (result + 1) * 2^count."""
    return z3.And((result << count) <= x, x < ((result + 1) << count))


def is_half_to_even(x: z3.BitVecRef, shift: int, result: z3.BitVecRef) -> z3.BoolRef:
    """Return whether result is x / 2^shift rounded half to even. Requires shift >= 1."""
    rest, half = x - (result << shift), 1 << (shift - 1)
    is_tie = z3.Or(rest == half, rest == -half)
    return z3.And(between(-half, rest, half), z3.Implies(is_tie, result & 1 == 0))


def is_half_away(x: z3.BitVecRef, shift: int, result: z3.BitVecRef) -> z3.BoolRef:
    """Return whether result is x / 2^shift rounded half away from zero."""
    if shift == 0:
        return result == x
    rest, half = x - (result << shift), 1 << (shift - 1)
    upper = z3.If(x < 0, z3.BitVecVal(half, x.size()), z3.BitVecVal(half - 1, x.size()))
    lower = z3.If(x < 0, z3.BitVecVal(1 - half, x.size()), z3.BitVecVal(-half, x.size()))
    return z3.And(lower <= rest, rest <= upper)


def is_half_up(x: z3.BitVecRef, shift: int, result: z3.BitVecRef) -> z3.BoolRef:
    """Return whether result is x / 2^shift rounded half up. Requires shift >= 1."""
    rest, half = x - (result << shift), 1 << (shift - 1)
    return between(-half, rest, half - 1)
