# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Accumulators of integers: A1, A3 and theorem 1, R3, C1."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import always, between, exact, low

ACC, ADDEND = z3.BitVecs("acc addend", 32)
ADDEND64, PASSES = z3.BitVecs("addend passes", 64)
WEIGHT = z3.BitVec("weight", 32)
_WIDE = 40
WIDTHS = range(1, 33)


def _in_range(word: z3.BitVecRef, width: int) -> z3.BoolRef:
    """Return whether a wider word lies in the range of an accumulator; a width of 0 has one."""
    if width == 0:
        return word == 0
    return between(-(1 << (width - 1)), word, (1 << (width - 1)) - 1)


def _limits(width: int, is_symmetric: bool = False) -> Case:
    """The constants of a width; in 64 bits, of which they keep 32."""
    least, greatest = (-(1 << width >> 1), (1 << width >> 1) - 1) if width else (0, 0)
    greatest += is_symmetric

    def state(rules):
        limits = rules[f"AccumulatorLimits/{width}"]
        given = z3.Concat(*limits.all())
        wanted = z3.Concat(*(z3.BitVecVal(x, 32) for x in (least, greatest, 1 << width)))
        return always(given == wanted)

    return Case(f"w = {width}", state)


def _wraps_once(width: int, is_modular: bool = False) -> Case:
    """A3 as it is written: one wrap by the period, of the sum modulo 2^32."""

    def state(rules):
        total = exact(ACC + ADDEND, _WIDE)
        period = 1 << width
        greatest = period // 2 - 1 if width else 0
        least = -(period // 2)
        wrapped = z3.If(
            total > greatest, total - period, z3.If(total < least, total + period, total)
        )
        if is_modular:
            wrapped = exact(low(total, width), _WIDE)
        return always(rules[f"Accumulate/{width}"](ACC, ADDEND) == low(wrapped, 32))

    return Case(f"w = {width}", state)


def _congruent(width: int, most: int) -> Case:
    """Theorem 1: from the range into the range, congruent, for addends of at most `most`."""

    def state(rules):
        acc, addend = exact(ACC, _WIDE), exact(ADDEND, _WIDE)
        result = exact(rules[f"Accumulate/{width}"](ACC, ADDEND), _WIDE)
        difference = acc + addend - result
        is_congruent = low(difference, width) == 0 if width else z3.BoolVal(True)
        return Statement(
            z3.And(_in_range(acc, width), between(-most, addend, most)),
            z3.And(_in_range(result, width), is_congruent),
        )

    return Case(f"w = {width}, |p| <= {most}", state)


def _reduced_once(width: int, periods: int = 1) -> Case:
    """What theorem 1 is used for: of a sum modulo 2^32 the low bits are the accumulator."""

    def state(rules):
        acc, addend = exact(ACC, _WIDE), exact(ADDEND, _WIDE)
        period = 1 << width
        reduced = z3.SignExt(32 - width, low(ACC + ADDEND, width))
        return Statement(
            z3.And(_in_range(acc, width), between(-periods * period, addend, periods * period)),
            rules[f"Accumulate/{width}"](ACC, ADDEND) == reduced,
        )

    return Case(f"w = {width}", state)


def _one_pass(width: int, is_proven: bool = True) -> Case:
    """R3: one proven pass is A3."""

    def state(rules):
        acc, addend = exact(ACC, 64), exact(ADDEND, 64)
        made = rules[f"MakeProvenPasses/{width}"](acc, addend, 1)
        return Statement(
            rules[f"IsProvenPass/{width}"](ACC, addend) == int(is_proven),
            made == rules[f"Accumulate/{width}"](ACC, ADDEND),
        )

    return Case(f"w = {width}", state)


def _many_passes(width: int, most_addend: int, most_passes: int = 1 << 31) -> Case:
    """R3: the value of the range that is congruent to acc + passes * (the addend's remainder)."""

    def state(rules):
        acc = exact(ACC, 64)
        arguments = (acc, ADDEND64, PASSES)
        rule = rules[f"MakeProvenPasses/{width}"]
        rest = z3.SRem(ADDEND64, z3.BitVecVal(1 << width, 64))
        made = exact(rule(*arguments), 64)
        difference = acc + PASSES * rest - made
        is_congruent = low(difference, width) == 0 if width else z3.BoolVal(True)
        is_rest = low(rest, width) == low(ADDEND64, width) if width else rest == 0
        assumption = z3.And(
            _in_range(acc, width),
            between(-most_addend, ADDEND64, most_addend),
            between(1, PASSES, most_passes),
        )
        conclusion = z3.And(_in_range(made, width), is_congruent, is_rest)
        return Statement(assumption, conclusion)

    return Case(f"w = {width}", state)


def _passes_fit(width: int, most_passes: int = 1 << 31) -> Case:
    """The product of passes and remainder fits 64 bits, and so does all else."""

    def state(rules):
        period = 1 << width
        rest = z3.BitVec("rest", 34)
        # What the remainder is to the rule: a number below the period.
        product = z3.SignExt(64, PASSES) * z3.SignExt(94, rest)
        assumption = z3.And(between(1, PASSES, most_passes), between(1 - period, rest, period - 1))
        return Statement(assumption, between(-(2**63), product, 2**63 - 1))

    return Case(f"w = {width}, {most_passes} passes", state)


def _sign(width: int, bits: int) -> Case:
    """C1: numbers of so many bits are read with a sign."""

    def state(rules):
        needs = rules[f"NeedsCorrection/{width}"](WEIGHT) == 1
        read = z3.If(needs, rules[f"Correct/{width}"](WEIGHT), WEIGHT)
        signed = z3.SignExt(32 - bits, low(WEIGHT, bits))
        return Statement(between(0, WEIGHT, (1 << bits) - 1), read == signed)

    return Case(f"w = {width}", state)


def _corrects(width: int, is_limit: bool = False) -> Case:
    """C1: what is above the limit is reduced by the period, once."""

    def state(rules):
        limit = (1 << (width // 2 - 1)) - 1 if width >= 2 else 0
        needs = rules[f"NeedsCorrection/{width}"](WEIGHT)
        corrected = rules[f"Correct/{width}"](WEIGHT)
        return always(
            z3.And(
                (needs == 1) == (WEIGHT >= limit if is_limit else WEIGHT > limit),
                corrected == low(exact(WEIGHT, _WIDE) - (2 * limit + 2), 32),
            )
        )

    return Case(f"w = {width}", state)


_LARGEST = {width: min(1 << width, 1 << 31) for width in WIDTHS}

CLAIMS = (
    Claim(
        "A1",
        "the range is [-2^(w-1), 2^(w-1) - 1], its period 2^w; of no bits it is 0",
        "w = 0 to 32",
        [_limits(width) for width in range(33)],
        [_limits(width, is_symmetric=True) for width in (1, 16)],
    ),
    Claim(
        "A3",
        "one wrap by the period where the sum modulo 2^32 is outside",
        "w = 0 to 32; all acc, p",
        [_wraps_once(width) for width in range(33)],
        [_wraps_once(width, is_modular=True) for width in (8, 30)],
    ),
    Claim(
        "Theorem 1",
        "from the range and p of at most 2M in magnitude, into the range and congruent modulo 2M",
        "w = 0 to 32; all acc, p",
        [_congruent(0, 1), *(_congruent(width, _LARGEST[width]) for width in WIDTHS)],
        [_congruent(width, 3 << (width - 1)) for width in (1, 8, 16, 30)],
    ),
    Claim(
        "Theorem 1",
        "a step is that modulo 2^32, of which w bits are kept with their sign",
        "w = 1 to 32; all acc, p",
        [_reduced_once(width) for width in WIDTHS],
        [_reduced_once(width, 2) for width in (8, 16)],
    ),
    Claim(
        "R3",
        "one proven pass is a step of the accumulator",
        "w = 0 to 32; all acc, p",
        [_one_pass(width) for width in range(33)],
        [_one_pass(width, is_proven=False) for width in (8, 16)],
    ),
    Claim(
        "R3",
        "many proven passes give the one value of the range that is congruent to all of them",
        "w = 0 to 32; all acc, two addends, 1 to 2^31 passes",
        [_many_passes(width, 2 << width) for width in range(33)],
        [
            Case(
                "one wrap is enough for two passes",
                lambda rules: Statement(
                    z3.And(_in_range(exact(ACC, _WIDE), 8), between(-256, ADDEND, 256)),
                    rules["MakeProvenPasses/8"](exact(ACC, 64), exact(ADDEND, 64), 2)
                    == rules["Accumulate/8"](ACC, 2 * ADDEND),
                ),
            )
        ],
    ),
    Claim(
        "R3",
        "the product of passes and remainder fits 64 bits",
        "w = 32, so all below; 1 to 2^31 passes",
        [_passes_fit(32)],
        [_passes_fit(32, (1 << 31) + 1)],
    ),
    Claim(
        "C1",
        "weights above the limit are reduced by the period, once",
        "w = 0 to 32; all weights",
        [_corrects(width) for width in range(33)],
        [_corrects(8, is_limit=True)],
    ),
    Claim(
        "C1",
        "unsigned numbers of w/2 bits are read with a sign",
        "w = 2 to 32; all weights of w/2 bits",
        [_sign(width, width // 2) for width in range(2, 33)],
        [_sign(width, width // 2 + 1) for width in (8, 16)],
    ),
)
