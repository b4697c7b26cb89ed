# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The numeric units' integer steps: P2 and P3 of the activation, L1 of layer normalisation."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import always, between, exact, is_half_to_even, is_half_up, low

VALUE = z3.BitVec("value", 64)
SHIFT = z3.BitVec("shift", 8)
X, OFFSET, SLOPE, SLOPE_E, EBIAS, CLIP = z3.BitVecs("x offset slope_m slope_e ebias clip_bits", 32)
_FORMS = ("activate/magnitude", "activate/product", "activate/8 to 16/magnitude",
          "activate/8 to 16/product")  # fmt: skip


def _bankers_round(is_rounded=is_half_to_even) -> Case:
    def state(rules):
        return always(is_rounded(exact(VALUE, 80), 6, exact(rules["bankers_round"](VALUE), 80)))

    return Case("6 bits", state)


def _activates(name: str, most: int, assumption: z3.BoolRef = CLIP >= 0) -> Case:
    """The clip, the offset: within what they allow, for a clip that is not negative."""

    def state(rules):
        result = exact(rules[name](X, OFFSET, SLOPE, SLOPE_E, EBIAS, CLIP), 66)
        clip, offset = exact(CLIP, 66), exact(OFFSET, 66)
        return Statement(
            assumption, z3.And(offset - clip - most <= result, result <= offset + clip)
        )

    return Case(name, state)


def _is_defined(name: str) -> Case:
    def state(rules):
        return always(rules[name].is_defined(X, OFFSET, SLOPE, SLOPE_E, EBIAS, CLIP))

    return Case(f"{name} defined", state)


def _loop_activates(name: str, least_clip: int = 0) -> Case:
    """The loops' form, of the low 32 bits; clips below 0 take the definition."""

    def state(rules):
        given = (X, OFFSET, SLOPE, SLOPE_E, EBIAS, CLIP)
        loop = rules[name.replace("activate", "FinishBlock")]
        return Statement(CLIP >= least_clip, loop(*given) == low(rules[name](*given), 32))

    return Case(name, state)


def _rounds(bits: int, shift: int, is_rounded=is_half_to_even) -> Case:
    """L1: floored to a multiple of 2^s / 2^r, then halves to even by r bits."""

    def state(rules):
        result = exact(rules[f"right_shift_bankers_rounding/{bits}"](VALUE, shift), 130)
        kept = (exact(VALUE, 130) << bits) >> shift
        fits = between(-(1 << (63 - bits)), VALUE, (1 << (63 - bits)) - 1)
        return Statement(fits, is_rounded(kept, bits, result))

    return Case(f"r = {bits}, s = {shift}", state)


def _rounds_exactly(bits: int, shift: int) -> Case:
    """L1 with as many fraction bits as the shift: nothing is dropped before the rounding."""

    def state(rules):
        result = exact(rules[f"right_shift_bankers_rounding/{bits}"](VALUE, shift), 130)
        fits = between(-(1 << (63 - bits)), VALUE, (1 << (63 - bits)) - 1)
        return Statement(fits, is_half_to_even(exact(VALUE, 130), shift, result))

    return Case(f"r = s = {bits}" if bits == shift else f"r = {bits}, s = {shift}", state)


def _clips(bits: int, is_signed: bool, is_open: bool = False) -> Case:
    name = f"signed_clip/{'signed' if is_signed else 'unsigned'} {bits}"
    least, greatest = (
        (-(1 << (bits - 1)), (1 << (bits - 1)) - 1) if is_signed else (0, (1 << bits) - 1)
    )
    greatest += is_open

    def state(rules):
        return always(
            rules[name](VALUE)
            == z3.If(VALUE < least, z3.BitVecVal(least, 64),
                     z3.If(VALUE > greatest, z3.BitVecVal(greatest, 64), VALUE))
        )  # fmt: skip

    return Case(f"{bits} bits, {'signed' if is_signed else 'unsigned'}", state)


_SHIFTS = {3: range(64), 6: range(64), 10: (10,)}

CLAIMS = (
    Claim(
        "P3",
        "rounds 64 bits half to even by 6",
        "all values",
        [_bankers_round()],
        [_bankers_round(is_half_up)],
    ),
    Claim(
        "P2, P3",
        "the result lies in [offset - clip - 1, offset + clip]",
        "all x, slopes, exponents and offsets; clip >= 0",
        [_activates(name, 1) for name in _FORMS],
        [_activates(_FORMS[0], 0, z3.And(CLIP == 127, SLOPE == 1, EBIAS == 0, SLOPE_E == 6))],
    ),
    Claim(
        "P2, P3",
        "is defined",
        "all x, slopes, exponents, offsets and clips",
        [_is_defined(name) for name in _FORMS],
        [
            Case(
                "the product is never negative",
                lambda rules: Statement(
                    z3.And(CLIP >= 0, OFFSET == 0),
                    rules[_FORMS[0]](X, OFFSET, SLOPE, SLOPE_E, EBIAS, CLIP) >= 0,
                ),
            )
        ],
    ),
    Claim(
        "P2, P3, vector form",
        "the loops give the definition's bits",
        "all x, slopes, exponents and offsets; clip >= 0",
        [_loop_activates(name) for name in _FORMS],
        [_loop_activates(_FORMS[0], least_clip=-8)],
        in_tests=0,
    ),
    Claim(
        "L1",
        "floors to r bits behind the point, then rounds half to even",
        "r = 3, 6, 10; s below 64; all values of 64 - r bits",
        [_rounds(bits, shift) for bits, shifts in _SHIFTS.items() for shift in shifts],
        [_rounds(bits, bits, is_half_up) for bits in _SHIFTS],
    ),
    Claim(
        "L1",
        "is x / 2^s with halves to even where r = s",
        "r = s = 3, 6, 10; all values of 64 - r bits",
        [_rounds_exactly(bits, bits) for bits in _SHIFTS],
        [_rounds_exactly(3, 5)],
    ),
    Claim(
        "L3, L6, L7",
        "clips to the nearest end",
        "8, 15 and 19 bits unsigned, 16, 20 and 31 signed; all values",
        [
            *(_clips(bits, False) for bits in (8, 15, 19)),
            *(_clips(bits, True) for bits in (16, 20, 31)),
        ],
        [_clips(15, False, is_open=True), _clips(16, True, is_open=True)],
    ),
)
