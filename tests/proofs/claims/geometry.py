# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Windows: G1 to G3, where a device's lie (D5), and the centres among the taps."""

from __future__ import annotations

import z3
from claim import Case, Claim, Statement

from claims.numbers import always, between, exact

INPUT, TAPS, STRIDE, DILATION = _AXIS = z3.BitVecs("input taps stride dilation", 32)
OUTPUT, TAP = z3.BitVecs("output tap", 32)
_LARGEST = 1 << 28  # of a size that prepared layers accept
_STRIDES = (*range(1, 9), 16, 32, _LARGEST)
_HALVED = (1, 2, 4, 8, _LARGEST)  # of which halves of what is left are found in seconds
_DILATIONS = (1, 2, 3, 4, 6, 8)
_WIDE = 64


def _wide(*words: z3.BitVecRef) -> list[z3.BitVecRef]:
    return [exact(word, _WIDE) for word in words]


def _is_layer(dilation: int) -> z3.BoolRef:
    """Sizes of a layer: positive, and with the filter's extent of 30 bits."""
    return z3.And(between(1, INPUT, _LARGEST), between(1, TAPS, _LARGEST // dilation))


def _extent(dilation: int) -> z3.BitVecRef:
    return (exact(TAPS, _WIDE) - 1) * dilation + 1


def _extends(is_off_by_one: bool = False) -> Case:
    """G1 in whole numbers, where the distance of the outer taps fits."""

    def state(rules):
        result = exact(rules["EffectiveFilterSize"](TAPS, DILATION), 66)
        product = exact(TAPS - 1, 66) * exact(DILATION - 1, 66)
        extent = product + exact(TAPS, 66) + is_off_by_one
        fits = z3.And(TAPS >= 1, DILATION >= 1, extent <= 2**31 - 1)
        return Statement(fits, result == extent)

    return Case("off by one" if is_off_by_one else "", state)


def _counts(padding: str, stride: int, dilation: int, is_ceiling: bool = True) -> Case:
    """G2: the windows that fit, or one for each stride that begins in the input."""

    def state(rules):
        outputs, _, _ = _wide(*rules[f"Window/{padding}"].all(INPUT, TAPS, stride, dilation))
        last = (outputs - 1) * stride
        (size,) = _wide(INPUT)
        if padding == "valid":
            extent = _extent(dilation)
            fits = z3.And(_is_layer(dilation), extent <= size)
            return Statement(fits, z3.And(last + extent <= size, last + stride + extent > size))
        within = last < size if is_ceiling else last + stride <= size
        return Statement(_is_layer(dilation), z3.And(within, last + stride >= size))

    return Case(f"{padding}, stride {stride}, dilation {dilation}", state, is_linear=True)


def _lies(padding: str, stride: int, dilation: int, is_centred: bool = False) -> Case:
    """G3 in whole numbers: VALID windows begin at 0; SAME ones as the rule says."""

    def state(rules):
        outputs, first, half = _wide(*rules[f"Window/{padding}"].all(INPUT, TAPS, stride, dilation))
        (size,), extent = _wide(INPUT), _extent(dilation)
        if padding == "valid":
            return Statement(_is_layer(dilation), z3.And(first == 0, half == extent >> 1))
        pad = (outputs - 1) * stride - size + extent
        # Both are 0 or above where they are halved.
        centred = (extent >> 1) - (pad >> 1)
        is_zero = z3.Or(z3.And(pad & 1 == 0, extent & 1 == 1), pad < 0)
        start = centred if is_centred else z3.If(is_zero, z3.BitVecVal(0, _WIDE), centred)
        return Statement(_is_layer(dilation), first == start - (extent >> 1))

    return Case(f"{padding}, stride {stride}, dilation {dilation}", state)


def _reaches(stride: int, dilation: int) -> Case:
    """Every tap of every VALID window lies in the input, at the coordinate of whole numbers."""

    def state(rules):
        outputs = rules["Window/valid"](INPUT, TAPS, stride, dilation)
        found = rules["Coordinate/valid"](INPUT, TAPS, stride, dilation, OUTPUT, TAP)
        output, tap, size = _wide(OUTPUT, TAP, INPUT)
        assumption = z3.And(
            _is_layer(dilation),
            _extent(dilation) <= size,
            z3.And(0 <= OUTPUT, OUTPUT < outputs),
            z3.And(0 <= TAP, TAP < TAPS),
        )
        coordinate = exact(found, _WIDE)
        return Statement(
            assumption,
            z3.And(coordinate == output * stride + tap * dilation, coordinate < size),
        )

    return Case(f"stride {stride}, dilation {dilation}", state, is_linear=True)


def _agree(padding: str, stride: int, dilation: int) -> Case:
    """Where a device places windows as the host does, and unfolds as many."""

    def state(rules):
        given = (INPUT, TAPS, stride, dilation)
        outputs, first, _ = rules[f"Window/{padding}"].all(*given)
        device_outputs, pad, positions = rules[f"DeviceWindow/{padding}"].all(*given)
        fits = _extent(dilation) <= exact(INPUT, _WIDE) if padding == "valid" else True
        return Statement(
            z3.And(_is_layer(dilation), fits),
            z3.And(first == -pad, outputs == device_outputs, outputs == positions),
        )

    return Case(f"{padding}, stride {stride}, dilation {dilation}", state, is_linear=True)


def _centre(padding: str, dilation: int, is_last: bool = False) -> Case:
    """The first centre is one, no tap before it is, and without one no tap is."""

    def state(rules):
        given = (INPUT, TAPS, 1, dilation)
        rule = rules[f"CentreTaps/{padding}"]
        first, count, is_centre = rule.all(*given, TAP)
        at_first = rule.all(*given, first)[2]
        before = z3.And(
            0 <= TAP, TAP < TAPS, z3.Or(first < 0, TAP > first if is_last else TAP < first)
        )
        return Statement(
            z3.And(0 <= TAPS, between(1, INPUT, _LARGEST)),
            z3.And(
                z3.Implies(before, is_centre == 0),
                (first >= 0) == (count >= 1),
                z3.Implies(first >= 0, z3.And(at_first == 1, first < TAPS)),
            ),
        )

    return Case(f"{padding}, dilation {dilation}", state)


def _defined(padding: str) -> Case:
    def state(rules):
        names = ("Window", "DeviceWindow")
        defined = [rules[f"{name}/{padding}"].is_defined(*_AXIS) for name in names]
        return Statement(STRIDE != 0, z3.And(*defined))

    return Case(padding, state)


def _defined_always(rules) -> Statement:
    return always(rules["Window/valid"].is_defined(*_AXIS))


def _all(make, paddings=("valid", "same"), strides=_STRIDES) -> list[Case]:
    return [
        make(padding, stride, dilation)
        for padding in paddings
        for stride in strides
        for dilation in (1, 2, 3)
    ]


_FOR = "strides 1 to 8, 16, 32, 2^28; dilations 1 to 3; all sizes to 2^28"

CLAIMS = (
    Claim(
        "G1 to G3, D5",
        "are defined",
        "all sizes, strides but 0 and dilations of 32 bits",
        [_defined("valid"), _defined("same")],
        [Case("a stride of 0", _defined_always)],
    ),
    Claim(
        "G1",
        "is the extent in whole numbers wherever 32 bits hold it",
        "all filters and dilations of 31 bits",
        [_extends()],
        [_extends(True)],
    ),
    Claim(
        "G2",
        "VALID: the windows that fit; SAME: one for each stride that begins in the input",
        _FOR,
        _all(_counts),
        [_counts("same", 2, 1, is_ceiling=False)],
    ),
    Claim(
        "G3",
        "nothing wraps: windows lie where whole numbers say",
        "strides 1, 2, 4, 8, 2^28, of VALID windows as G2; dilations 1 to 3; all sizes to 2^28",
        [*_all(_lies, ("valid",)), *_all(_lies, ("same",), _HALVED)],
        [_lies("same", 3, 1, is_centred=True)],
        in_tests=1,
    ),
    Claim(
        "G2, G3",
        "all taps of VALID windows that fit lie in the input",
        _FOR,
        [_reaches(stride, dilation) for stride in _STRIDES for dilation in (1, 2, 3)],
        [
            Case(
                "SAME windows, too",
                lambda rules: Statement(
                    z3.And(_is_layer(1), TAPS == 3),
                    rules["Coordinate/same"](INPUT, TAPS, 1, 1, 0, 0) >= 0,
                ),
            )
        ],
    ),
    Claim(
        "D5",
        "a device's windows are the host's: VALID ones that fit, SAME ones at steps of 1",
        "all sizes to 2^28, even filters, too",
        [*_all(_agree, ("valid",)), _agree("same", 1, 1)],
        [_agree("same", 2, 1), _agree("same", 1, 2)],
        in_tests=1,
    ),
    Claim(
        "Centres",
        "the first centre among the taps is found without walking them",
        f"dilations {', '.join(map(str, _DILATIONS))}; all filters of 31 bits",
        [_centre(padding, d) for padding in ("valid", "same") for d in _DILATIONS],
        [_centre("valid", 8, is_last=True)],
    ),
)
