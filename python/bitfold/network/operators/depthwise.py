# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""DEPTHWISE_CONV_2D: windows of each channel for itself; a multiplier repeats the channels.

sum = bias + the sum over taps of (data - zero point) * weight, outside of the image 0; one
multiplier for each output channel, two roundings in int8, a short multiplier in int16.
"""

from __future__ import annotations

import dataclasses
from collections.abc import Iterator

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._prepared import Placement
from bitfold.network.operators._products import Products
from bitfold.network.operators._windowed import WindowedStep
from bitfold.network.operators._windows import window_problems


class DepthwiseConvolution(WindowedStep):
    """DEPTHWISE_CONV_2D. The stored filter is [1, height, width, outputs]."""

    outputs_axis = 3

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (2, 3)))
        before = before or list(cls.layer_problems(node, rank=4, data_rank=4))
        yield from before
        if before:
            return
        one, height, width, outputs = node.inputs[1].shape
        channels = node.inputs[0].shape[3]
        if one != 1 or min(height, width, channels, outputs) < 1 or outputs % channels:
            yield f"need a filter [1, height, width, multiple of {channels}], got {node.inputs[1]}"
        yield from window_problems(node, height, width)

    def weights(self) -> np.ndarray:
        """Return [height, width, 1, outputs], the layout of the accelerator."""
        return self.filter.transpose(1, 2, 0, 3)

    @property
    def placement(self) -> Placement | None:
        """Where the windows lie in the stored image."""
        return dataclasses.replace(super().placement, depthwise=True)

    @property
    def products(self) -> Products:
        """What the sums are sums of."""
        return dataclasses.replace(super().products, has_half_weights=True)

    def groups(self, weights: np.ndarray) -> list[slice]:
        """Return one group: a channel's taps alone must fit 32 bits."""
        super().groups(weights)
        return [slice(None)]

    def arrange(self, data: tf.Tensor, zero: int) -> tf.Tensor:
        """Repeat each channel as often as it has filters."""
        repeats = self.filter.shape[3] // self.node.inputs[0].shape[3]
        return tf.repeat(data, repeats, axis=3) if repeats > 1 else data

    def product(self, data: tf.Tensor, weights: np.ndarray, **datapath) -> tf.Tensor:
        """Sum the products."""
        windows = self.windows
        data, padding = windows.placed(data)
        return ops.depthwise_conv2d(
            data,
            weights,
            strides=windows.strides,
            dilations=windows.dilations,
            padding=padding,
            **datapath,
        )
