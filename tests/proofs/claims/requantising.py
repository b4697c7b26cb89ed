# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""From sums to stored integers: Q2, Q3, K3."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import always, between, exact, is_half_away, is_half_up, low

X, MANTISSA, EXPONENT = z3.BitVecs("x mantissa exponent", 32)
X64 = z3.BitVec("x", 64)
ZERO_POINT, LEAST, GREATEST = z3.BitVecs("zero_point minimum maximum", 32)
SUM, COUNT = z3.BitVecs("sum count", 32)
# A mantissa is 0 or lies here.
_IS_MANTISSA = z3.Or(MANTISSA == 0, between(1 << 30, MANTISSA, (1 << 31) - 1))


def _doubled_product(is_rounded) -> Case:
    def state(rules):
        product = exact(X, 64) * exact(MANTISSA, 64)
        result = exact(rules["DoubledProductHigh"](X, MANTISSA), 66)
        return Statement(MANTISSA >= 0, is_rounded(exact(product, 66), 31, result))

    return Case("", state)


def _defined(name: str, assumption: z3.BoolRef, *arguments) -> Case:
    return Case(
        f"{name} defined",
        lambda rules: Statement(assumption, rules[name].is_defined(*arguments)),
    )


def _divides(power: int, is_rounded=is_half_away) -> Case:
    def state(rules):
        result = exact(rules["DivideByPowerOfTwo"](X, power), 66)
        return always(is_rounded(exact(X, 66), power, result))

    return Case(f"e = {-power}", state)


def _two_roundings(exponent: int) -> Case:
    """The sum is shifted in 32 bits first, for e above 0; then the two roundings."""

    def state(rules):
        shifted = X << exponent if exponent > 0 else X
        rounded = rules["DoubledProductHigh"](shifted, MANTISSA)
        divided = rules["DivideByPowerOfTwo"](rounded, max(-exponent, 0))
        return Statement(
            _IS_MANTISSA, rules["RescaleInTwoRoundings"](X, MANTISSA, exponent) == divided
        )

    return Case(f"e = {exponent}", state)


def _step_two_roundings(exponent: int, is_away: bool = True) -> Case:
    """The loops' form is the definition's bits."""

    def state(rules):
        defined = rules["RescaleInTwoRoundings"](X, MANTISSA, exponent)
        if not is_away:
            rounded = rules["DoubledProductHigh"](X, MANTISSA)
            defined = (rounded + (1 << (-exponent - 1))) >> -exponent
        return Statement(_IS_MANTISSA, rules["TwoRoundingsStep"](X, MANTISSA, exponent) == defined)

    return Case(f"e = {exponent}", state)


def _step_short_multiplier(exponent: int, offset: int = 0) -> Case:
    def state(rules):
        given = (X64, MANTISSA, exponent)
        defined = rules["RescaleByShortMultiplier"](*given) + offset
        return Statement(_IS_MANTISSA, rules["ShortMultiplierStep"](*given) == defined)

    return Case(f"e = {exponent}", state)


def _clamps(has_zero_point: bool = True) -> Case:
    """Q5: the zero point is added modulo 2^32, the result clamped."""

    def state(rules):
        shifted = X + ZERO_POINT if has_zero_point else X
        clamped = z3.If(shifted < LEAST, LEAST, z3.If(shifted > GREATEST, GREATEST, shifted))
        step = rules["ShiftAndClampStep"](X, ZERO_POINT, LEAST, GREATEST)
        return Statement(LEAST <= GREATEST, step == clamped)

    return Case("", state)


def _division_form(exponent: int, most: int = 1 << 30) -> Case:
    """The loop that only divides, of sums within 2^30, before it adds and clamps as Q5's step."""

    def state(rules):
        given = (SUM, MANTISSA, exponent, 0, -(1 << 31), (1 << 31) - 1)
        assumption = z3.And(_IS_MANTISSA, between(-most, SUM, most - 1))
        rescaled = rules["RescaleInTwoRoundings"](SUM, MANTISSA, exponent)
        return Statement(assumption, rules["DivideAndStore"](*given) == rescaled)

    return Case(f"e = {exponent}", state)


def _stores(rules) -> Statement:
    """The loop of any exponent is the two steps in turn."""
    bounds = (ZERO_POINT, LEAST, GREATEST)
    rescaled = rules["TwoRoundingsStep"](SUM, MANTISSA, EXPONENT)
    stored = rules["RescaleAndStore"](SUM, MANTISSA, EXPONENT, *bounds)
    return always(stored == rules["ShiftAndClampStep"](rescaled, *bounds))


def _short_mantissa(most: int) -> Case:
    def state(rules):
        rounded = z3.UDiv(exact(MANTISSA, 33) + (1 << 15), z3.BitVecVal(1 << 16, 33))
        limited = z3.If(rounded > most, z3.BitVecVal(most, 33), rounded)
        return Statement(MANTISSA >= 0, rules["ShortMantissa"](MANTISSA) == low(limited, 32))

    return Case(f"at most {most}", state)


def _short_multiplier(exponent: int, is_rounded=is_half_up, mantissas=_IS_MANTISSA) -> Case:
    """One rounding, halves up, of sums whose product fits: 48 bits; then the low 32 bits."""

    def state(rules):
        short = rules["ShortMantissa"](MANTISSA)
        product = X64 * exact(short, 64)
        result = rules["RescaleByShortMultiplier"](X64, MANTISSA, exponent)
        quotient = z3.BitVec("quotient", 130)
        return Statement(
            z3.And(
                mantissas,
                between(-(1 << 47), X64, (1 << 47) - 1),
                is_rounded(exact(product, 130), 15 - exponent, quotient),
                between(-(1 << 63), quotient, (1 << 63) - 1),
            ),
            result == low(quotient, 32),
        )

    return Case(f"e = {exponent}", state)


def _quotient_away(count: int, is_away: bool = True) -> Case:
    def state(rules):
        result = exact(rules["QuotientAway"](SUM, count), 70)
        total = exact(SUM, 70)
        twice = 2 * (z3.If(total < 0, -total, total) - z3.If(total < 0, -result, result) * count)
        # The magnitude's rest lies in [-count / 2, count / 2), halves away.
        within = z3.And(twice >= -count, twice < count if is_away else twice <= 0)
        return always(within)

    return Case(f"{count} elements", state)


_COUNTS = (1, 2, 3, 4, 8, 9, 16, 64)

CLAIMS = (
    Claim(
        "Q2",
        "the high half of the doubled product, halves up, needs no saturation",
        "all x, all mantissas",
        [_doubled_product(is_half_up), _defined("DoubledProductHigh", MANTISSA >= 0, X, MANTISSA)],
        [_doubled_product(is_half_away)],
    ),
    Claim(
        "Q2",
        "the division rounds halves away from zero",
        "e = 0 to -31; all x",
        [
            *(_divides(power) for power in range(32)),
            _defined("DivideByPowerOfTwo", between(0, EXPONENT, 31), X, EXPONENT),
        ],
        [_divides(power, is_half_up) for power in (1, 31)],
    ),
    Claim(
        "Q2",
        "is a shift in 32 bits, the product and the division in turn, and defined",
        "e = -31 to 31; all x, m",
        [
            *(_two_roundings(exponent) for exponent in range(-31, 32)),
            _defined(
                "RescaleInTwoRoundings",
                z3.And(_IS_MANTISSA, between(-31, EXPONENT, 31)),
                X,
                MANTISSA,
                EXPONENT,
            ),
        ],
        [
            _defined(
                "RescaleInTwoRoundings",
                z3.And(_IS_MANTISSA, between(-64, EXPONENT, 31)),
                X,
                MANTISSA,
                EXPONENT,
            )
        ],
    ),
    Claim(
        "Q2, vector form",
        "the step without branches gives the same bits, and is defined",
        "e = -31 to 31; all x, m",
        [
            *(_step_two_roundings(exponent) for exponent in range(-31, 32)),
            _defined(
                "TwoRoundingsStep",
                z3.And(_IS_MANTISSA, between(-31, EXPONENT, 31)),
                X,
                MANTISSA,
                EXPONENT,
            ),
        ],
        [_step_two_roundings(-1, is_away=False)],
    ),
    Claim(
        "Q2, vector form",
        "the division with its half added before the shift gives the same bits",
        "e = -30 to -1; all m, sums within 2^30; without zero point and bounds",
        [_division_form(exponent) for exponent in range(-30, 0)],
        [_division_form(-30, most=1 << 31)],
    ),
    Claim(
        "Q3, vector form",
        "the step of unsigned shifts gives the same bits",
        "e = -31 to 7; all m, all sums of 64 bits",
        [_step_short_multiplier(exponent) for exponent in range(-31, 8)],
        [_step_short_multiplier(7, offset=1)],
    ),
    Claim(
        "Q5",
        "adds the zero point modulo 2^32, then clamps",
        "all x, zero points and bounds in order",
        [_clamps(), Case("RescaleAndStore", _stores)],
        [_clamps(has_zero_point=False)],
    ),
    Claim(
        "Q3",
        "the short mantissa is floor((m + 2^15) / 2^16), at most 32767",
        "all m",
        [_short_mantissa(32767)],
        [_short_mantissa(32768)],
    ),
    Claim(
        "Q3",
        "is the product over 2^(15 - e), halves up, in 32 bits",
        "e = -31 to 7; all m, sums of 48 bits",
        [_short_multiplier(exponent) for exponent in range(-31, 8)],
        [_short_multiplier(e, is_half_away, MANTISSA == 1 << 30) for e in (-31, 0)],
    ),
    Claim(
        "Q3",
        "is defined for every sum of 64 bits",
        "e = -31 to 7; all x, m",
        [
            _defined(
                "RescaleByShortMultiplier",
                z3.And(_IS_MANTISSA, between(-31, EXPONENT, 7)),
                X64,
                MANTISSA,
                EXPONENT,
            )
        ],
        [
            _defined(
                "RescaleByShortMultiplier",
                z3.And(_IS_MANTISSA, between(-31, EXPONENT, 15)),
                X64,
                MANTISSA,
                EXPONENT,
            )
        ],
    ),
    Claim(
        "K3",
        "averages round halves away from zero, and are defined",
        f"all sums; {', '.join(map(str, _COUNTS))} elements; defined for all numbers of elements",
        [
            *(_quotient_away(count) for count in _COUNTS),
            _defined("QuotientAway", COUNT >= 1, SUM, COUNT),
        ],
        [_quotient_away(4, is_away=False)],
    ),
)
