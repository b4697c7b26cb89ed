# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What layer normalisation finds of a vector: sums, mean, variance and root, L2 to L5."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import between, exact

ELEMENT, SUM, EPSILON = z3.BitVecs("element sum epsilon", 32)
ROUNDED, SQUARES = z3.BitVecs("rounded_sum squares", 64)
SHIFT = z3.BitVec("shift", 8)
FIRST, SECOND = z3.BitVecs("first second", 32)
ZERO_POINT, MULTIPLIER = z3.BitVecs("zero_point multiplier", 16)
VARIANCE = z3.BitVec("variance", 64)
LEADING, EXPONENT_SUB = z3.BitVecs("leading exponent", 8)
ENTRY, WORD = z3.BitVecs("entry word", 32)


def _rounded_sum(rules) -> Statement:
    """L1 of the sum, clipped, which 32 bits between change nowhere."""
    result = rules["RoundedSum"](SUM, SHIFT)
    rounded = rules["right_shift_bankers_rounding/3"](exact(SUM, 64), SHIFT)
    clipped = rules["signed_clip/signed 20"](rounded)
    return Statement(
        z3.ULE(SHIFT, 64), z3.And(result == clipped, between(-(1 << 19), result, (1 << 19) - 1))
    )


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


def _gathers(is_wrong: bool = False) -> Case:
    """L2 of two elements: what is added is whole, and wraps nowhere but modulo 2^64."""

    def state(rules):
        first, second, total, squares, fits = rules["Gather"].all(FIRST, SECOND, ZERO_POINT)
        small = between(-(1 << 30) + 1, FIRST, (1 << 30) - 1)
        both = z3.And(small, between(-(1 << 30) + 1, SECOND, (1 << 30) - 1))
        zero_point = z3.ZeroExt(16, ZERO_POINT)
        a, b = exact(first, 64), exact(second, 64)
        conclusion = z3.And(
            first == FIRST - zero_point,
            second == SECOND - zero_point + int(is_wrong),
            total == a + b,
            squares == a * a + b * b,
        )
        is_held = rules["Gather"].is_defined(FIRST, SECOND, ZERO_POINT)
        return Statement(is_held, z3.And((fits == 1) == both, z3.Implies(fits == 1, conclusion)))

    return Case("elements", state)


def _any_order(rules) -> Statement:
    """A sum of 64 bits, narrowed, is the sum modulo 2^32, whatever was added before."""
    low, add = rules["LowWord"], rules["WrapAdd"]
    total, element = z3.BitVec("total", 64), z3.BitVec("element", 64)
    wide = rules["WrapAdd64"](total, element)
    return Statement(z3.BoolVal(True), low(wide) == add(low(total), low(element)))


def _factor_after_the_sum(rules) -> Statement:
    """Modulo 2^64 the factor may be taken after the sum."""
    add, multiply = rules["WrapAdd64"], rules["WrapMultiply64"]
    total, square, factor = z3.BitVecs("total square factor", 64)
    after = multiply(add(total, square), factor)
    return Statement(
        z3.BoolVal(True), after == add(multiply(total, factor), multiply(square, factor))
    )


def _squares_fit(rules) -> Statement:
    """False: one large element and a factor of 16 bits leave 64 bits."""
    element = exact(ELEMENT, 64)
    square = rules["WrapMultiply64"](element, element)
    found = rules["WrapMultiply64"](square, z3.ZeroExt(48, MULTIPLIER))
    whole = exact(element, 128) * exact(element, 128) * z3.ZeroExt(112, MULTIPLIER)
    return Statement(
        z3.And(ELEMENT >= 1 << 29, z3.UGE(MULTIPLIER, 1 << 15)), z3.ZeroExt(64, found) == whole
    )


def _mean(least: int) -> Case:
    """16 bits, and nothing overflows before."""

    def state(rules):
        rule = rules["LayerNormMean"]
        given = (ROUNDED, MULTIPLIER, SHIFT)
        assumption = z3.And(between(-(1 << 19), ROUNDED, (1 << 19) - 1), z3.ULE(SHIFT, 64))
        in_range = between(least, rule(*given), (1 << 15) - 1)
        return Statement(assumption, z3.And(rule.is_defined(*given), in_range))

    return Case("", state)


_IS_VARIANCE = z3.And(VARIANCE != 0, z3.ULT(VARIANCE, 1 << 58))


def _leads(is_wrong: bool = False) -> Case:
    """2^k is the largest power of two in a variance."""

    def state(rules):
        leading = z3.ZeroExt(56, rules["LeadingOne"](VARIANCE))
        one = z3.BitVecVal(1, 64) << leading
        below = VARIANCE < one if is_wrong else z3.ULT(z3.LShR(VARIANCE, leading), 2)
        return Statement(_IS_VARIANCE, z3.And(z3.ULT(leading, 58), z3.ULE(one, VARIANCE), below))

    return Case("leading one", state)


def _word(least: int) -> Case:
    """The bits from the leading one down, so many that rows 64 to 255 are read."""

    def state(rules):
        leading = z3.ZeroExt(56, LEADING)
        is_leading = z3.And(z3.ULT(LEADING, 58), z3.LShR(VARIANCE, leading) == 1)
        word = rules["InverseSquareRootWord"](VARIANCE, LEADING)
        bits = z3.LShR(z3.ZeroExt(16, VARIANCE) << 15, z3.ZeroExt(16, leading))
        halved = z3.If(z3.Extract(0, 0, LEADING) == 0, z3.LShR(bits, 1), bits)
        rows = between(least, word >> 8, 255)
        return Statement(is_leading, z3.And(z3.ZeroExt(48, word) == halved, rows))

    return Case("word", state)


def _factor(rules) -> Statement:
    """The entry's low 16 bits less the slope's multiple, modulo 2^16."""
    slope = z3.Extract(23, 16, ENTRY)
    low = z3.Extract(7, 0, WORD)
    wanted = z3.Extract(15, 0, ENTRY) - z3.ZeroExt(8, slope) * z3.ZeroExt(8, low)
    rule = rules["InverseSquareRootFactor"]
    factor = rule(ENTRY, WORD)
    return Statement(
        between(0, WORD, 65535),
        z3.And(rule.is_defined(ENTRY, WORD), factor == z3.ZeroExt(48, wanted)),
    )


def _shift(rules) -> Statement:
    rule = rules["InverseSquareRootShift"]
    half = z3.LShR(z3.ZeroExt(24, LEADING) + 2, 1)
    wanted = z3.Extract(7, 0, z3.ZeroExt(24, EXPONENT_SUB) - half)
    return Statement(z3.BoolVal(True), rule(EXPONENT_SUB, LEADING) == wanted)


CLAIMS = (
    Claim(
        "L2",
        "the loop's sums, in any order and with the factor after the sum, are the definition's",
        "all whole floats below 2^30 in magnitude; all zero points and factors",
        [
            _gathers(),
            Case("sum modulo 2^32", _any_order),
            Case("squares modulo 2^64", _factor_after_the_sum),
        ],
        [Case("squares times the factor fit 64 bits", _squares_fit), _gathers(is_wrong=True)],
    ),
    Claim(
        "L3",
        "the rounded sum is L1 of the sum, clipped to 20 bits",
        "all sums of 32 bits; shifts to 64",
        [Case("", _rounded_sum)],
        [Case("and never the greatest of them", _narrow_sum)],
    ),
    Claim(
        "L3",
        "the mean is defined and has 16 bits",
        "all rounded sums of 20 bits, multipliers; shifts to 64",
        [_mean(-(1 << 15))],
        [_mean(1 - (1 << 15))],
    ),
    Claim(
        "L4",
        "the variance is defined and has 58 bits",
        "all rounded sums of 20 bits, squares below 2^56, epsilons; shifts to 64",
        [_variance(-(1 << 19))],
        [_variance(-(1 << 62))],
    ),
    Claim(
        "L5",
        "the leading one is found; the 16 bits from it down, halved where its index is even, "
        "reads rows 64 to 255",
        "all variances of 58 bits but 0",
        [_leads(), _word(64)],
        [_leads(is_wrong=True), _word(65)],
    ),
    Claim(
        "L5",
        "the factor is the entry less its slope's multiple modulo 2^16, the shift a signed byte",
        "all entries, words, exponents and indices",
        [Case("factor", _factor), Case("shift", _shift)],
        [
            Case(
                "the factor is never above the entry",
                lambda rules: Statement(
                    between(0, WORD, 65535),
                    rules["InverseSquareRootFactor"](ENTRY, WORD) <= exact(ENTRY, 64),
                ),
            )
        ],
    ),
)
