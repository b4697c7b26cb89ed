# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Dot products: pairs of shorts, and bytes against bytes."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import exact, low

A, B, C, D = z3.BitVecs("a b c d", 16)


def _pair(rules, bits: int) -> z3.BitVecRef:
    """Return a * b + c * d by the steps of a lane of 32 bits."""
    add, multiply = rules["WrapAdd"], rules["WrapMultiply"]
    wide = [exact(x, 32) for x in (A, B, C, D)]
    return exact(add(multiply(wide[0], wide[1]), multiply(wide[2], wide[3])), bits)


def _exact_pair() -> z3.BitVecRef:
    a, b, c, d = (exact(x, 40) for x in (A, B, C, D))
    return a * b + c * d


def _overflows_at_one_corner(rules) -> Statement:
    is_least = [x == z3.BitVecVal(-(2**15), 16) for x in (A, B, C, D)]
    return Statement(z3.Not(z3.And(*is_least)), _pair(rules, 40) == _exact_pair())


def _never_overflows(rules) -> Statement:
    return Statement(z3.BoolVal(True), _pair(rules, 40) == _exact_pair())


def _is_modular(rules) -> Statement:
    return Statement(z3.BoolVal(True), low(_pair(rules, 40), 32) == low(_exact_pair(), 32))


CLAIMS = (
    Claim(
        "Pairs of shorts",
        "the sum of two products fits 32 bits but where all four are -2^15, and is modular there",
        "all a, b, c, d of 16 bits",
        [Case("exact", _overflows_at_one_corner), Case("modular", _is_modular)],
        [Case("fits always", _never_overflows)],
    ),
)
