# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Layer normalisation's elements: L6, L7, and the loops that compute them."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import between

ELEMENT, BIAS = z3.BitVecs("element bias", 32)
MEAN, FACTOR = z3.BitVecs("mean factor", 64)
SHIFT, EXPONENT = z3.BitVecs("shift exp", 8)
MAN = z3.BitVec("man", 16)
HAS_EBIAS = z3.BitVec("has_ebias", 1)
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


CLAIMS = (
    Claim(
        "L6, L7, vector form",
        "the loops give the definition's bits",
        "shift 63; all elements, means, factors and stages that the loops take",
        [_loop_scales(bits, 63) for bits in (16, 8)],
        [_loop_scales(8, 0, is_off=True)],
        in_tests=0,
    ),
    Claim(
        "L6, L7",
        "definition and loops are defined",
        "all that the loops take, all shifts",
        [_defined(8), _defined(16)],
        [_defined(8, z3.BoolVal(True))],
        in_tests=0,
    ),
    Claim(
        "L7",
        "the output has 8 or 15 bits",
        "all that the loops take, all shifts",
        [_in_range(8, 255), _in_range(16, 32767)],
        [_in_range(8, 254)],
        in_tests=0,
    ),
)
