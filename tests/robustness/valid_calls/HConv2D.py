# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of the convolutions."""

from __future__ import annotations

from collections.abc import Callable

from drawing import Call, Draw, addition_attributes, shift


def _convolution(op: str) -> Callable[[Draw], Call]:
    def build(draw: Draw) -> Call:
        attributes = addition_attributes(draw)
        t = attributes["T"]
        depthwise = draw.chance(0.9 if op == "HDepthWise" else 0.1)
        batch, height, width, channels = draw.dims(4)
        if draw.chance(0.05):
            batch = draw.randint(15, 45)  # more images than threads
        taps = (draw.choice((1, 2, 3, 3, 5)), draw.choice((1, 2, 3, 3, 5)))
        strides = (draw.choice((1, 1, 2, 3)), draw.choice((1, 1, 2, 3)))
        dilations = (draw.choice((1, 1, 2, 3)), draw.choice((1, 1, 2, 3)))
        outputs = channels if depthwise else draw.randint(1, 9)
        filter_shape = (*taps, 1 if depthwise else channels, outputs)
        if draw.chance(0.1):
            filter_shape = (batch, *filter_shape)
        attributes |= {
            "strides": [1, *strides, 1],
            "dilations": [1, *dilations, 1],
            "padding": draw.choice(("SAME", "VALID")),
            "use_cudnn_on_gpu": True,
            "is_depthwise": depthwise,
        }
        elementwise = (0,)
        if attributes["padding"] == "SAME" and draw.chance(0.3):
            rows, columns = (-(-n // s) for n, s in zip((height, width), strides, strict=True))
            elementwise = (batch, rows, columns, outputs)
        shapes = ((batch, height, width, channels), filter_shape, elementwise)
        return Call(op, (*(draw.tensor(t, s) for s in shapes), shift(draw)), attributes)

    return build


CALLS = {
    "HDepthWise": _convolution("HDepthWise"),
    "HConv2d": _convolution("HConv2d"),
    "HConv2dDilation": _convolution("HConv2dDilation"),
}
