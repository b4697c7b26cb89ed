# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SQUARED_DIFFERENCE, in int8.

Both operands are brought to a common scale with 7 spare bits. The square of their difference is
multiplied by (twice the larger scale)^2 / (2^14 * the output's scale) in two roundings.
"""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np
import tensorflow as tf

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators._pairs import PairStep, pair_problems
from bitfold.network.operators._requantisation import Requantiser
from bitfold.network.operators._scaling import (
    CommonScale,
    need_fraction,
    scale_problems,
    twice_larger_scale,
)

_SPARE = 7


class SquaredDifference(PairStep):
    """SQUARED_DIFFERENCE."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(pair_problems(node, ("int8",)))
        before = before or list(scale_problems(node.inputs))
        yield from before
        if not before:
            yield from need_fraction("the multiplier of the square", _multiplier(node))

    def set_up(self) -> None:
        """Make the scaling of the operands and of the square."""
        self._scaled = CommonScale(self.node.inputs, _SPARE)
        self._requantise = Requantiser(
            self.node.outputs[0],
            np.array([_multiplier(self.node)]),
            "NONE",
            Arithmetic(),
            "two_roundings",
        )

    def prepare(self, i: int, stored: tf.Tensor) -> tf.Tensor:
        """Bring an operand to the common scale."""
        return self._scaled(i, stored)

    def combine(self, first: tf.Tensor, second: tf.Tensor) -> tf.Tensor:
        """Square the difference and requantise."""
        return self._requantise(tf.square(first - second))


def _multiplier(node: Node) -> float:
    """Return what the square is multiplied by."""
    unit = twice_larger_scale(node.inputs)
    return unit * unit / (2.0 ** (2 * _SPARE) * node.outputs[0].scale)
