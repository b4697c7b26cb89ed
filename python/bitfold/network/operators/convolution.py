# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""CONV_2D: windows of all channels, also in groups of channels.

sum = bias + the sum over taps and channels of (data - zero point) * weight, outside of the image 0;
one multiplier for each output channel, two roundings in int8, a short multiplier in int16.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._partial_sums import Part
from bitfold.network.operators._windowed import WindowedStep
from bitfold.network.operators._windows import window_problems


class Convolution(WindowedStep):
    """CONV_2D. The stored filter is [outputs, height, width, inputs of a group]."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (2, 3)))
        before = before or list(cls.layer_problems(node, rank=4, data_rank=4))
        yield from before
        if before:
            return
        outputs, height, width, inputs = node.inputs[1].shape
        channels = node.inputs[0].shape[3]
        groups = channels // inputs if inputs else 0
        if min(node.inputs[1].shape) < 1 or not groups or channels % inputs or outputs % groups:
            yield f"need a filter for groups of the {channels} channels, got {node.inputs[1]}"
        yield from window_problems(node, height, width)

    def weights(self) -> np.ndarray:
        """Return [height, width, inputs of a group, outputs]."""
        return self.filter.transpose(1, 2, 3, 0)

    @property
    def part_count(self) -> int:
        """In how many groups the image's channels come."""
        return self.node.inputs[0].shape[3] // self.node.inputs[1].shape[3]

    def parts(self, inputs: Sequence[tf.Tensor | None]) -> list[Part]:
        """Return the convolutions of the groups."""
        count = self.part_count
        bias = [None] * count if self.bias is None else np.split(self.bias.reshape(-1), count)
        pairs = zip(
            tf.split(inputs[0], count, 3), np.split(self.weights(), count, 3), bias, strict=True
        )
        return [Part(data, self._zero_point, weights, part) for data, weights, part in pairs]

    def of_group(self, data: tf.Tensor, group: slice) -> tf.Tensor:
        """Return the channels of a slice of each of the image's groups."""
        if self.part_count == 1:
            return data[..., group]
        *images, channels = data.shape
        by_part = tf.reshape(data, [-1, *images[1:], self.part_count, channels // self.part_count])
        chosen = by_part[..., group]
        return tf.reshape(chosen, [-1, *images[1:], self.part_count * chosen.shape[-1]])

    def product(self, data: tf.Tensor, weights: np.ndarray, **datapath) -> tf.Tensor:
        """Sum the products."""
        windows = self.windows
        data, padding = windows.placed(data)
        keywords = dict(strides=windows.strides, padding=padding, **datapath)
        if max(windows.dilations) > 1:
            keywords["dilations"] = windows.dilations
        convolve = ops.dilated_conv2d if "dilations" in keywords else ops.conv2d
        parts = self.part_count
        if parts == 1:
            return convolve(data, weights, **keywords)
        pairs = zip(tf.split(data, parts, 3), np.split(weights, parts, 3), strict=True)
        return tf.concat([convolve(part, filter, **keywords) for part, filter in pairs], 3)
