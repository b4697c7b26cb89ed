# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""MAX_POOL_2D: the largest of each window's pixels, on stored integers.

No scale matters but the output's, for the fused activation.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import tensorflow as tf

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators._requantisation import activation_range
from bitfold.network.operators._step import Step
from bitfold.network.operators._windows import Windows, pool_problems


class MaxPool(Step):
    """MAX_POOL_2D."""

    stacks = True

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Make the bounds."""
        super().__init__(node, arithmetic)
        self._windows = Windows.of_pool(node)
        self._bounds = activation_range(
            node.outputs[0], node.option("fused_activation_function", "NONE")
        )

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        yield from pool_problems(node)

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Take the windows' maxima."""
        return [self._windows.pooled(inputs[0], "max", self._bounds)]
