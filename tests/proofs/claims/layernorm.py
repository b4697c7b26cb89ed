# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Layer normalisation's and softmax's integers: L3 to L7, X6, and the loops that compute them."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import between, exact, is_half_to_even

ELEMENT, BIAS, SUM, EPSILON = z3.BitVecs("element bias sum epsilon", 32)
MEAN, FACTOR, ROUNDED, SQUARES = z3.BitVecs("mean factor rounded_sum squares", 64)
SHIFT, EXPONENT = z3.BitVecs("shift exp", 8)
MAN = z3.BitVec("man", 16)
HAS_EBIAS = z3.BitVec("has_ebias", 1)
EXPONENTIAL, RECIPROCAL = z3.BitVecs("exponential reciprocal", 32)
_ELEMENT = (ELEMENT, MEAN, FACTOR, SHIFT, MAN, EXPONENT, BIAS, HAS_EBIAS)
# What the loops take for granted: elements of |x| < 2^30 less a zero point, and a stage's shift
# below 64 (HasPlainShifts).
_STAGE = z3.ZeroExt(8, EXPONENT) + z3.If(HAS_EBIAS == 1, z3.BitVecVal(11, 16), 6)
_PLAIN = z3.And(
    between(-(1 << 30) - 65535, ELEMENT, 1 << 30),
    between(-(1 << 15), MEAN, (1 << 15) - 1),
    between(0, FACTOR, 65535),
    z3.ULT(z3.Extract(7, 0, _STAGE), 64),
    SHIFT != -128,
)


def _loop_scales(bits: int, shift: int, is_off: bool = False) -> Case:
    def state(rules):
        given = [word if word is not SHIFT else z3.BitVecVal(shift, 8) for word in _ELEMENT]
        loop = rules[f"ScaleElements/{bits}"](*given)
        defined = rules[f"NormalizeElement/{bits}"](*given)
        return Statement(_PLAIN, loop == defined + int(is_off))

    return Case(f"{bits} bits, shift {shift}", state)


def _in_range(bits: int, greatest: int) -> Case:
    def state(rules):
        result = rules[f"NormalizeElement/{bits}"](*_ELEMENT)
        return Statement(_PLAIN, z3.ULE(result, greatest))

    return Case(f"{bits} bits", state)


def _defined(bits: int, assumption=_PLAIN) -> Case:
    def state(rules):
        defined = [
            rules[f"{n}/{bits}"].is_defined(*_ELEMENT)
            for n in ("NormalizeElement", "ScaleElements")
        ]
        return Statement(assumption, z3.And(*defined))

    return Case(f"{bits} bits", state)


def _rounded_sum(rules) -> Statement:
    result = rules["RoundedSum"](SUM, SHIFT)
    return Statement(z3.ULE(SHIFT, 64), between(-(1 << 19), result, (1 << 19) - 1))


def _narrow_sum(rules) -> Statement:
    return Statement(z3.ULE(SHIFT, 64), rules["RoundedSum"](SUM, SHIFT) < (1 << 19) - 1)


def _variance(least: int) -> Case:
    """Nothing overflows for what RoundedSum and the checked sum of squares give."""

    def state(rules):
        rule, given = rules["LayerNormVariance"], (ROUNDED, SQUARES, SHIFT, EPSILON)
        assumption = z3.And(
            between(least, ROUNDED, (1 << 19) - 1), z3.ULT(SQUARES, 1 << 56), z3.ULE(SHIFT, 64)
        )
        return Statement(assumption, z3.And(rule.is_defined(*given), z3.ULT(rule(*given), 1 << 58)))

    return Case("", state)


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


_SHIFTS = (63, 8, 0, -1, -16)

CLAIMS = (
    Claim(
        "L3",
        "the rounded sum has 20 bits",
        "all sums of 32 bits; shifts to 64",
        [Case("", _rounded_sum)],
        [Case("and never the greatest of them", _narrow_sum)],
    ),
    Claim(
        "L4",
        "the variance is defined and has 58 bits",
        "all rounded sums of 20 bits, squares below 2^56, epsilons; shifts to 64",
        [_variance(-(1 << 19))],
        [_variance(-(1 << 62))],
    ),
    Claim(
        "L6, L7, vector form",
        "the loops give the definition's bits",
        f"shifts {', '.join(map(str, _SHIFTS))}; all elements, means, factors and stages "
        "that the loops take",
        [_loop_scales(bits, shift) for shift in _SHIFTS for bits in (16, 8)],
        [_loop_scales(8, 0, is_off=True)],
        in_tests=1,
    ),
    Claim(
        "L6, L7",
        "definition and loops are defined",
        "all that the loops take, all shifts",
        [_defined(8), _defined(16)],
        [_defined(8, z3.BoolVal(True))],
    ),
    Claim(
        "L7",
        "the output has 8 or 15 bits",
        "all that the loops take, all shifts",
        [_in_range(8, 255), _in_range(16, 32767)],
        [_in_range(8, 254)],
    ),
    Claim(
        "X6",
        "the loops round half to even by 6 and then by 10 bits, in numbers that floats hold",
        "all exponentials and reciprocals of 16 bits, products below 2^24",
        [_softmax(False), _softmax(True)],
        [Case("one rounding by 16", _softmax_rounds_once)],
    ),
)
