# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""PRELU, in int8: elements below zero are multiplied by a constant of their channel or place.

With x and alpha less their zero points: x at input scale / output scale, below zero x * alpha at
input scale * alpha's scale / output scale, each in two roundings.
"""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np
import tensorflow as tf

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators._pairs import PairStep, broadcast_shape, pair_problems
from bitfold.network.operators._requantisation import Requantiser


class Prelu(PairStep):
    """PRELU. The second operand is alpha."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(pair_problems(node, ("int8",)))
        yield from before
        if not before and broadcast_shape(node) != node.inputs[0].shape:
            yield f"need alpha to broadcast to {node.inputs[0]}, got {node.inputs[1]}"

    def set_up(self) -> None:
        """Make the requantisation of both branches."""
        data, alpha = self.node.inputs
        output = self.node.outputs[0]
        with np.errstate(all="ignore"):
            positive = np.float32(data.scale) / np.float32(output.scale)
            negative = np.float32(data.scale) * np.float32(alpha.scale) / np.float32(output.scale)
        self._branches = [
            Requantiser(output, np.array([float(m)]), "NONE", Arithmetic(), "two_roundings")
            for m in (positive, negative)
        ]

    def prepare(self, i: int, stored: tf.Tensor) -> tf.Tensor:
        """Subtract the zero point."""
        return tf.cast(stored, tf.int32) - self.node.inputs[i].zero_point

    def combine(self, first: tf.Tensor, second: tf.Tensor) -> tf.Tensor:
        """Multiply where the data is below zero, and requantise."""
        positive, negative = self._branches
        return tf.where(first >= 0, positive(first), negative(first * second))
