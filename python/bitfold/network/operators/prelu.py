# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""PRELU: elements below zero are multiplied by a constant of their channel or place.

Alpha is stored in 8 bits, beside data of 16 as well. With x and alpha less their zero points: x at
input scale / output scale, below zero x * alpha at input scale * alpha's scale / output scale, each
in two roundings.
"""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np
import tensorflow as tf

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._pairs import PairStep, broadcast_shape
from bitfold.network.operators._requantisation import Requantiser
from bitfold.network.operators._scaling import need_multiplier


class Prelu(PairStep):
    """PRELU. The second operand is alpha."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (2,)))
        if not before:
            data, alpha = node.inputs
            before = [
                *_checks.need_stored("the data", data),
                *_checks.need_stored("alpha", alpha, ("int8",)),
                *_checks.need_stored("the output", node.outputs[0]),
                *_checks.need_same_type(node, data, node.outputs[0]),
            ]
        yield from before
        if before:
            return
        for multiplier in _multipliers(node):
            yield from need_multiplier("both multipliers", multiplier)
        try:
            is_fitting = broadcast_shape(node) == data.shape
        except ValueError:
            is_fitting = False
        if not is_fitting:
            yield f"need alpha to broadcast to {data}, got {alpha}"

    def set_up(self) -> None:
        """Make the requantisation of both branches."""
        self._branches = [
            Requantiser(
                self.node.outputs[0], np.array([multiplier]), "NONE", Arithmetic(), "two_roundings"
            )
            for multiplier in _multipliers(self.node)
        ]

    def prepare(self, i: int, stored: tf.Tensor) -> tf.Tensor:
        """Subtract the zero point."""
        return tf.cast(stored, tf.int32) - self.node.inputs[i].zero_point

    def combine(self, first: tf.Tensor, second: tf.Tensor) -> tf.Tensor:
        """Multiply where the data is below zero, and requantise."""
        positive, negative = self._branches
        return tf.where(first >= 0, positive(first), negative(first * second))


def _multipliers(node: Node) -> tuple[float, float]:
    """Return those of data from zero up, and below zero, in single precision."""
    data, alpha, output = (np.float32(t.scale) for t in (*node.inputs, *node.outputs))
    with np.errstate(all="ignore"):
        return float(data / output), float(data * alpha / output)
