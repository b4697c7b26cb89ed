# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""ADD and SUB by the addition unit.

Each operand, less its zero point, is multiplied by a weight and added in one addition:
`bitfold.ops.weighted_add`, in the layer's accumulator and with its shift. The weights are the
ratios of the operands' scales to the output's, as whole numbers of 8 bits in units of a power of
two, the finest that holds both; the requantisation takes that power back, with two roundings.
"""

from __future__ import annotations

import math
from collections.abc import Iterator

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._accumulator import datapath, element_type
from bitfold.network.operators._pairs import PairStep, pair_problems
from bitfold.network.operators._requantisation import FUSED, Requantiser
from bitfold.network.operators._unit_weights import unit_weights


class UnitAddition(PairStep):
    """ADD or SUB of tensors that broadcast to each other."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the unit from computing the operator."""
        before = [
            *pair_problems(node),
            *_checks.need_option(node, "fused_activation_function", *FUSED),
        ]
        yield from before
        if not before and not all(0 < abs(ratio) < math.inf for ratio in _ratios(node)):
            yield f"need scales whose ratios are numbers, got {_ratios(node)}"

    def set_up(self) -> None:
        """Make the weights."""
        self._weights, bits = unit_weights(np.array(_ratios(self.node)))
        self._requantise = Requantiser(
            self.node.outputs[0],
            np.float64(2.0**-bits),
            self.node.option("fused_activation_function"),
            self.arithmetic,
            "two_roundings",
        )

    def prepare(self, i: int, stored: tf.Tensor) -> tf.Tensor:
        """Subtract an operand's zero point."""
        whole = tf.cast(stored, tf.int32) - self.node.inputs[i].zero_point
        return tf.cast(whole, element_type(self.arithmetic))

    def combine(self, first: tf.Tensor, second: tf.Tensor) -> tf.Tensor:
        """Add, and bring the sums to the output's scale."""
        shape = tf.broadcast_dynamic_shape(tf.shape(first), tf.shape(second))
        rows = [tf.reshape(tf.broadcast_to(value, shape), [-1, 1]) for value in (first, second)]
        weights = tf.cast(self._weights[:, None], first.dtype)
        sums = ops.weighted_add(*rows, weights, **datapath(self.arithmetic))
        return tf.reshape(self._requantise(sums), shape)


def _ratios(node: Node) -> tuple[float, float]:
    """Return the operands' scales by the output's, the second's negative in SUB."""
    first, second = (tensor.scale / node.outputs[0].scale for tensor in node.inputs)
    return first, -second if node.kind == "SUB" else second
