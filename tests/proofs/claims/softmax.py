# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Softmax's output: X6 as defined, and in integers."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import between, exact, is_half_to_even

EXPONENTIAL, RECIPROCAL = z3.BitVecs("exponential reciprocal", 32)
SHORT, BYTE = z3.BitVec("exponential", 16), z3.BitVec("reciprocal", 8)


def _softmax(is_defined: bool) -> Case:
    """Half to even by 6 bits, then by 10; the product below 2^24 is also one of floats."""

    def state(rules):
        rule = rules["Scale"]
        product = exact(EXPONENTIAL, 64) * exact(RECIPROCAL, 64)
        assumption = z3.And(
            between(0, EXPONENTIAL, 65535),
            between(0, RECIPROCAL, 65535),
            product < (1 << 24),
        )
        if is_defined:
            return Statement(assumption, rule.is_defined(EXPONENTIAL, RECIPROCAL))
        first = z3.BitVec("first", 64)
        result = exact(rule(EXPONENTIAL, RECIPROCAL), 64)
        rounded = z3.And(between(0, first, 1 << 24), is_half_to_even(product, 6, first))
        return Statement(z3.And(assumption, rounded), is_half_to_even(first, 10, result))

    return Case("defined" if is_defined else "rounds", state)


def _softmax_rounds_once(rules) -> Statement:
    product = exact(EXPONENTIAL, 64) * exact(RECIPROCAL, 64)
    result = exact(rules["Scale"](EXPONENTIAL, RECIPROCAL), 64)
    return Statement(
        z3.And(between(0, EXPONENTIAL, 255), between(0, RECIPROCAL, 65535)),
        is_half_to_even(product, 16, result),
    )


def _definition_rounds_once(rules) -> Statement:
    product = z3.ZeroExt(48, SHORT) * z3.ZeroExt(56, BYTE)
    result = exact(rules["SoftmaxOutput"](SHORT, BYTE), 64)
    return Statement(z3.BoolVal(True), is_half_to_even(product, 16, result))


def _integer_form(rules) -> Statement:
    """The definition in single precision, of numbers that it holds, and the loop's integers."""
    defined, loop = rules["SoftmaxOutput"], rules["Scale"]
    words = z3.ZeroExt(16, SHORT), z3.ZeroExt(24, BYTE)
    same = defined(SHORT, BYTE) == loop(*words)
    return Statement(z3.BoolVal(True), z3.And(same, defined.is_defined(SHORT, BYTE)))


CLAIMS = (
    Claim(
        "X6",
        "the loops round half to even by 6 and then by 10 bits, in numbers that floats hold",
        "all exponentials and reciprocals of 16 bits, products below 2^24",
        [_softmax(False), _softmax(True)],
        [Case("one rounding by 16", _softmax_rounds_once)],
    ),
    Claim(
        "X6, vector form",
        "the loop's integers are the definition's floats, all of them whole numbers held exactly",
        "all exponentials of 16 bits, reciprocals of 8",
        [Case("", _integer_form)],
        [Case("the definition rounds once by 16", _definition_rounds_once)],
    ),
)
