# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the sums of a layer need on their way, beside the prepared layer that only forms them."""

from __future__ import annotations

import functools

import tensorflow as tf

import bitfold
from prepared_cases import Layer
from timing import Case, in_graph, integers, vector_target

LAYERS = (
    Layer("56x56x64 to 64, 3x3", 56, 64, 64, 3),
    Layer("28x28x32 to 192, 1x1", 28, 32, 192, 1),
    Layer("14x14x96, 3x3", 14, 96, 0, 3),
)
WIDTHS = {"": (), ", 20 bits": (20,)}


def cases() -> list[Case]:
    """Return each layer, without a width and with one."""
    return [_case(layer, name, widths) for layer in LAYERS for name, widths in WIDTHS.items()]


def _case(layer: Layer, name: str, widths: tuple[int, ...]) -> Case:
    channels = layer.channels if layer.outputs else 1
    outputs = layer.outputs or layer.channels
    x = integers((1, layer.side, layer.side, layer.channels), -128, 127, tf.int8)
    w = integers((layer.taps, layer.taps, channels, outputs), -127, 127, tf.int8)
    placed = {"padding": "SAME", "depthwise": not layer.outputs, "input_zero_point": -128}
    known = bitfold.ops.partial_sums(x, w, **placed).extremes
    bias = tf.zeros([outputs], tf.int32)
    multipliers = tf.fill([outputs], tf.constant(1e-3, tf.float64))

    def ours(x, w, known):
        return bitfold.ops.partial_sums(
            x, w, **placed, accumulator_sizes=widths, known_extremes=known
        ).extremes

    prepared = functools.partial(bitfold.ops.prepared_conv2d, **placed, constant_weights=True)
    return Case(
        f"HPartialSums/{layer.name}{name}",
        layer.name,
        layer.side**2 * layer.taps**2 * layer.channels * (layer.outputs or 1),
        in_graph(ours, x, w, known),
        in_graph(prepared, x, w, bias, multipliers),
        vector_target(),
    )
