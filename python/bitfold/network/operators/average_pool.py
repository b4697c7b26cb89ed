# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""AVERAGE_POOL_2D: the mean of each window's pixels, on stored integers.

A window counts the pixels within the image. Its sum is exact, and divided with halves away from
zero. No scale
matters but the output's, for the fused activation.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators._requantisation import activation_range
from bitfold.network.operators._step import Step
from bitfold.network.operators._windows import Windows, pool_problems


class AveragePool(Step):
    """AVERAGE_POOL_2D."""

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
        before = list(pool_problems(node))
        yield from before
        if before:
            return
        pixels = node.option("filter_height") * node.option("filter_width")
        if pixels * -np.iinfo(node.inputs[0].dtype).min >= 2**31:
            yield f"need windows whose sums fit 32 bits, got {pixels} pixels"

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Divide the windows' sums."""
        return [self._windows.pooled(inputs[0], "average", self._bounds)]
