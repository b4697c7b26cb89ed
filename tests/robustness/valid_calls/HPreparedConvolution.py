# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HPreparedConvolution."""

from __future__ import annotations

import math

from drawing import Call, Draw, Input


def _axis(draw: Draw, size: int) -> tuple[int, int, int, list[int]]:
    """Return taps, stride, dilation and zeros of windows that an axis holds."""
    taps, stride = draw.choice((1, 2, 3, 3, 5)), draw.choice((1, 1, 2, 3))
    dilation = draw.choice((1, 1, 2, 3))
    before, after = draw.choice((0, 1, draw.randint(0, 5))), draw.choice((0, 1))
    missing = (taps - 1) * dilation + 1 - size - before - after
    return taps, stride, dilation, [before, after + max(0, missing)]


def _prepared(draw: Draw) -> Call:
    stored, bits = draw.choice(("int8", "int16")), draw.choice((8, 16))
    batch, height, width, channels = draw.dims(4)
    if draw.chance(0.3):
        channels = draw.randint(1, 40)
    rows, columns = _axis(draw, height), _axis(draw, width)
    depthwise = draw.chance(0.3)
    outputs = draw.randint(1, channels if depthwise else 40)
    wide = draw.chance(0.3)
    half = not wide and draw.chance(0.25)
    shift = draw.choice((0, 0, draw.randint(0, 6 if half else 31)))
    lowest, highest = -(2 ** (bits - 1)), 2 ** (bits - 1) - 1
    minimum = draw.choice((lowest, draw.randint(lowest, highest)))
    count = draw.choice((1, outputs))
    exponents = (-31, 7 - shift)
    factors = tuple(
        math.ldexp(draw.uniform(0.5, 1), draw.randint(*exponents)) for _ in range(count)
    )
    filter_shape = (rows[0], columns[0], 1 if depthwise else channels, outputs)
    inputs = (
        draw.tensor(stored, (batch, height, width, channels)),
        draw.tensor("int8", filter_shape),
        draw.tensor("int64" if wide else "int32", (draw.choice((0, outputs)),)),
        Input("float64", (count,), factors),
    )
    roundings = ("short_multiplier", "one_rounding", "two_roundings")[: 2 if wide else 3]
    attributes = {
        "T": stored,
        "T_out": f"int{bits}",
        "T_bias": "int64" if wide else "int32",
        "strides": [rows[1], columns[1]],
        "dilations": [rows[2], columns[2]],
        "padding": draw.choice(("SAME", "VALID")),
        "zeros": rows[3] + columns[3],
        "is_depthwise": depthwise,
        "input_zero_point": draw.choice((0, draw.randint(-128, 127))),
        "accumulator_size": 64 if wide else draw.choice((8, 16, 20, 24, 32, draw.randint(0, 32))),
        "mult_shift": shift,
        "use_fp16_acc": half,
        "rounding": draw.choice(roundings),
        "zero_point": draw.randint(lowest, highest),
        "minimum": minimum,
        "maximum": draw.choice((highest, draw.randint(minimum, highest))),
        "has_constant_weights": draw.chance(0.5),
    }
    return Call("HPreparedConvolution", inputs, attributes)


CALLS = {"HPreparedConvolution": _prepared}
