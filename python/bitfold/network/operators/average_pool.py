# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""AVERAGE_POOL_2D: the mean of each window's pixels, on stored integers.

A window counts the pixels within the image. Its sum is exact, and divided with halves away from
zero. No
scale matters but the output's, for the fused activation.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators._fixed_point import quotient_away
from bitfold.network.operators._requantisation import activation_range
from bitfold.network.operators._step import Step
from bitfold.network.operators._windows import Windows, pool_problems, window_sums


class AveragePool(Step):
    """AVERAGE_POOL_2D."""

    stacks = True

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Count the pixels of each window."""
        super().__init__(node, arithmetic)
        self._windows = Windows.of_pool(node)
        rows, columns = (axis.inside() for axis in (self._windows.rows, self._windows.columns))
        self._counts = np.outer(rows, columns).astype(np.int32)[..., None]
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
        sums = window_sums(tf.cast(inputs[0], tf.int32), self._windows)
        means = tf.clip_by_value(quotient_away(sums, self._counts), *self._bounds)
        return [tf.cast(means, inputs[0].dtype)]
