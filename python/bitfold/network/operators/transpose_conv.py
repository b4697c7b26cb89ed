# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""TRANSPOSE_CONV: every pixel spreads its products with the filter over the output.

The same sums come from a convolution at stride 1: the pixels of the input lie a stride apart, with
zeros between and around, and the filter is turned by half a turn. sum = bias + the sum over taps
and channels of (data - zero point) * weight; one multiplier for each output channel, two roundings
in int8, a short multiplier in int16.
"""

from __future__ import annotations

import math
from collections.abc import Iterator

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import need_elements, need_numbers, numbers
from bitfold.network.operators._prepared import Placement
from bitfold.network.operators._products import Products, met_by_spread
from bitfold.network.operators._weighted import WeightedStep
from bitfold.network.operators._windows import MODEST, Axis

# The output and the spread data may have so many times the pixels of the data.
_MOST_SPREAD = 256


class TransposeConvolution(WeightedStep):
    """TRANSPOSE_CONV. Inputs are the output's shape, the filter, the data and the bias.

    The stored filter is [outputs, height, width, inputs].
    """

    places = (2, 1, 3)

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (3, 4)))
        before = before or [
            *cls.layer_problems(node, rank=4, data_rank=4),
            *need_numbers("the output's shape", node.inputs[0], 4, ("int32",)),
            *need_elements(node.inputs[1]),
            *need_elements(node.inputs[2]),
            *_checks.need_option(node, "padding", "SAME", "VALID"),
            *_checks.need_positive(node, "stride_h", "stride_w"),
        ]
        yield from before
        if before:
            return
        images, rows, columns, channels = node.inputs[2].shape
        outputs, _, _, inputs = node.inputs[1].shape
        shape = numbers(node.inputs[0])
        if inputs != channels:
            yield f"need a filter for {channels} channels, got {node.inputs[1]}"
        if (shape[0], shape[3]) != (images, outputs) or min(shape) < 1:
            yield f"need an output [{images}, rows, columns, {outputs}], got {shape}"
            return
        if any(axis.outputs < 1 for axis in axes_of(node)):
            yield f"need an output of at least the filter's size, got {shape}"
        pixels = math.prod(axis.size + axis.window for axis in axes_of(node))
        spread = rows * columns * node.option("stride_h") * node.option("stride_w")
        if max(pixels, spread) > max(MODEST, _MOST_SPREAD * rows * columns):
            yield f"need an output of the order of {rows} x {columns} pixels, got {shape}"

    @property
    def multiply_adds(self) -> int:
        """Products for one image, without those with the zeros between pixels."""
        images, rows, columns, _ = self.node.inputs[2].shape
        return images * rows * columns * self.filter.size

    @property
    def products(self) -> Products:
        """What the sums are sums of: the zeros between pixels are none."""
        rows, columns = map(met_by_spread, axes_of(self.node), self.data.shape[1:3])
        return Products.of_stored(self.weights(), is_wide=self.is_wide, rows=rows, columns=columns)

    def weights(self) -> np.ndarray:
        """Return [height, width, inputs, outputs], turned by half a turn."""
        return np.ascontiguousarray(self.filter[:, ::-1, ::-1].transpose(1, 2, 3, 0))

    def arrange(self, data: tf.Tensor, zero: int) -> tf.Tensor:
        """Spread the data out, as far as the windows of the filter reach."""
        for dimension, axis in enumerate(axes_of(self.node), start=1):
            data = spread_out(data, dimension, axis, zero)
        return data

    @property
    def placement(self) -> Placement:
        """At each pixel of what is spread out, and of its margins."""
        return Placement()

    def product(self, data: tf.Tensor, weights: np.ndarray, **datapath) -> tf.Tensor:
        """Sum the products."""
        return ops.conv2d(data, weights, padding="VALID", **datapath)


def axes_of(node: Node) -> tuple[Axis, Axis]:
    """Return where windows would lie in the output if it were convolved to the data."""
    sizes, windows = numbers(node.inputs[0])[1:3], node.inputs[1].shape[1:3]
    is_same = node.option("padding") == "SAME"
    rows, columns = (
        Axis(size, window, node.option(stride), 1, is_same)
        for size, window, stride in zip(sizes, windows, ("stride_h", "stride_w"), strict=True)
    )
    return rows, columns


def spread_out(data: tf.Tensor, dimension: int, axis: Axis, zero: int) -> tf.Tensor:
    """Set pixels a stride apart along a dimension, `zero` between and around them.

    The result reaches as far as windows of the output do.
    """
    zero = tf.cast(zero, data.dtype)
    before, after = [slice(None)] * dimension, list(data.shape[dimension + 1 :])
    pixels = tf.expand_dims(data, dimension + 1)
    gaps = [[0, 0]] * (dimension + 1) + [[0, axis.stride - 1]] + [[0, 0]] * len(after)
    length = data.shape[dimension] * axis.stride
    spread = tf.reshape(
        tf.pad(pixels, gaps, constant_values=zero), [-1, *data.shape[1:dimension], length, *after]
    )
    first = axis.window - 1 - axis.padding[0]
    kept = min(length, axis.size + axis.window - 1 - first)
    last = axis.size + axis.window - 1 - first - kept
    margins = [[0, 0]] * dimension + [[first, last]] + [[0, 0]] * len(after)
    return tf.pad(spread[(*before, slice(kept))], margins, constant_values=zero)
