# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""MUL: the product of two operands, each less its zero point, requantised in two roundings.

The multiplier is first scale * second scale / output scale, in single precision.
"""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np
import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._pairs import PairStep, pair_problems, stored_result
from bitfold.network.operators._requantisation import FUSED, activation_range
from bitfold.network.operators._scaling import need_multiplier


class Product(PairStep):
    """MUL."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = [
            *pair_problems(node),
            *_checks.need_option(node, "fused_activation_function", *FUSED),
        ]
        yield from before
        if not before:
            yield from need_multiplier("the multiplier", _multiplier(node))

    def set_up(self) -> None:
        """Make the bounds."""
        fused = self.node.option("fused_activation_function")
        self._bounds = activation_range(self.node.outputs[0], fused)

    def prepare(self, i: int, stored: tf.Tensor) -> tf.Tensor:
        """Leave an operand as it is."""
        return stored

    def combine(self, first: tf.Tensor, second: tf.Tensor) -> tf.Tensor:
        """Multiply and requantise."""
        return stored_result(self.node, "multiply", first, second, self._bounds)


def _multiplier(node: Node) -> float:
    first, second = (np.float32(tensor.scale) for tensor in node.inputs)
    with np.errstate(all="ignore"):
        return float(first * second / np.float32(node.outputs[0].scale))
