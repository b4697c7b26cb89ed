# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""FULLY_CONNECTED: every input with every output, a convolution of one pixel.

sum = bias + the sum over inputs of (data - zero point) * weight; its product with the multiplier in
double precision is rounded once, halves away from zero, in both forms.
"""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._prepared import Placement
from bitfold.network.operators._products import Products
from bitfold.network.operators._weighted import WeightedStep


class FullyConnected(WeightedStep):
    """FULLY_CONNECTED. The stored filter is [outputs, inputs]."""

    roundings = ("one_rounding", "one_rounding")

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (2, 3)))
        before = before or [
            *cls.layer_problems(node, rank=2, data_rank=None),
            *_checks.need_option(node, "weights_format", "DEFAULT", None),
        ]
        yield from before
        if before:
            return
        outputs, inputs = node.inputs[1].shape
        elements = int(np.prod(node.inputs[0].shape))
        if inputs < 1 or outputs < 1 or elements % inputs:
            yield f"need a filter for {node.inputs[0]}, got {node.inputs[1]}"
        elif node.option("keep_num_dims") and node.inputs[0].shape[-1:] != (inputs,):
            yield f"need {inputs} inputs in the last dimension, got {node.inputs[0]}"

    @property
    def _rows(self) -> int:
        """How many vectors an image is."""
        return int(np.prod(self.node.inputs[0].shape)) // self.filter.shape[1]

    @property
    def multiply_adds(self) -> int:
        """Products for one image."""
        return self._rows * self.filter.size

    @property
    def placement(self) -> Placement:
        """A window of one pixel."""
        return Placement()

    @property
    def products(self) -> Products:
        """What the sums are sums of."""
        return Products.of_stored(self.weights(), is_wide=self.is_wide)

    def weights(self) -> np.ndarray:
        """Return [1, 1, inputs, outputs]."""
        return self.filter.T[None, None]

    def arrange(self, data: tf.Tensor, zero: int) -> tf.Tensor:
        """Return vectors as images of one pixel."""
        return tf.reshape(data, [-1, 1, 1, self.filter.shape[1]])

    def arrange_sums(self, sums: tf.Tensor) -> tf.Tensor:
        """Return [vectors, outputs], or the data's dimensions with the last one replaced."""
        front = self.node.inputs[0].shape[1:-1] if self.node.option("keep_num_dims") else ()
        return tf.reshape(sums, [-1, *front, self.filter.shape[0]])

    def product(self, data: tf.Tensor, weights: np.ndarray, **datapath) -> tf.Tensor:
        """Sum the products."""
        return ops.conv2d(data, weights, padding="VALID", **datapath)
