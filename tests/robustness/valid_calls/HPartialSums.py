# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HPartialSums."""

from __future__ import annotations

from drawing import Call, Draw


def _axis(draw: Draw, size: int) -> tuple[int, int, int, list[int]]:
    """Return taps, stride, dilation and zeros of windows that an axis holds."""
    taps, stride = draw.choice((1, 2, 3, 3, 5)), draw.choice((1, 1, 2, 3))
    dilation = draw.choice((1, 1, 2, 3))
    before, after = draw.choice((0, 1, draw.randint(0, 5))), draw.choice((0, 1))
    missing = (taps - 1) * dilation + 1 - size - before - after
    return taps, stride, dilation, [before, after + max(0, missing)]


def _partial_sums(draw: Draw) -> Call:
    stored, weights = draw.choice(("int8", "int16")), draw.choice(("int8", "int8", "int16"))
    bias = draw.choice(("int32", "int32", "int64"))
    batch, height, width, channels = draw.dims(4)
    if draw.chance(0.3):
        channels = draw.randint(1, 40)
    rows, columns = _axis(draw, height), _axis(draw, width)
    depthwise = draw.chance(0.3)
    outputs = draw.randint(1, channels if depthwise else 40)
    filter_shape = (rows[0], columns[0], 1 if depthwise else channels, outputs)
    if draw.chance(0.2):
        filter_shape = (batch, *filter_shape)
    known = draw.choice(((0,), (4, outputs)))
    inputs = (
        draw.tensor(stored, (batch, height, width, channels)),
        draw.tensor(weights, filter_shape),
        draw.tensor("int32", (draw.choice((0, outputs)),))
        if bias == "int32"
        else draw.tensor("int64", (0,)),
        draw.tensor("int64", known),
    )
    attributes = {
        "T": stored,
        "T_filter": weights,
        "T_bias": bias,
        "strides": [rows[1], columns[1]],
        "dilations": [rows[2], columns[2]],
        "padding": draw.choice(("SAME", "VALID")),
        "zeros": rows[3] + columns[3],
        "is_depthwise": depthwise,
        "input_zero_point": draw.choice((0, draw.randint(-128, 127))),
        "filter_zero_point": draw.choice((0, 0, draw.randint(-128, 127))),
        "mult_shift": draw.choice((0, 0, draw.randint(0, 30))),
        "accumulator_sizes": [draw.randint(1, 32) for _ in range(draw.randint(0, 3))],
    }
    return Call("HPartialSums", inputs, attributes)


CALLS = {"HPartialSums": _partial_sums}
