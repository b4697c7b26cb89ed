# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SOFTMAX by the softmax unit.

The unit's table is that of `bitfold.tables.softmax` for the input's scale, times beta; it takes the
stored integers as they are, for only distances below the maximum count. Its result, in steps of
about 1/255, is requantised to the model's output with two roundings.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold import ops, tables
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._requantisation import stored_range
from bitfold.network.operators._step import Step

# Beyond, no exponential of 8 bits is left.
_LONGEST = 65793


class UnitSoftmax(Step):
    """SOFTMAX along the last dimension."""

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Make the unit's table."""
        super().__init__(node, arithmetic)
        data, self._output = node.inputs[0], node.outputs[0]
        self._size = data.shape[-1]
        self._table = tables.softmax(data.scale * self._beta(node), vector_size=self._size)

    @property
    def stacks(self) -> bool:
        """Vectors along another dimension than the images' are each for itself."""
        return len(self.node.inputs[0].shape) > 1

    @staticmethod
    def _beta(node: Node) -> float:
        return float(np.float32(node.option("beta", 1.0)))

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the unit from computing the operator."""
        before = list(_checks.need_counts(node, (1,)))
        before = before or [
            # The unit takes what lies 256 steps below the maximum for nothing.
            *_checks.need_stored("the data", node.inputs[0], ("int8",)),
            *_checks.need_stored("the output", node.outputs[0]),
        ]
        yield from before
        if before:
            return
        shape = node.inputs[0].shape
        if not shape or not 1 <= shape[-1] <= _LONGEST:
            yield f"need vectors of 1 to {_LONGEST} elements, got {node.inputs[0]}"
        if not cls._beta(node) > 0 or not np.isfinite(cls._beta(node)):
            yield f"need beta > 0, got {cls._beta(node)}"

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Compute the unit's result and bring it to the output's scale."""
        vectors = tf.reshape(tf.cast(inputs[0], tf.float32), [-1, self._size])
        steps = ops.softmax(vectors, **self._table.keywords)
        minimum, maximum = stored_range(self._output.dtype)
        result = ops.requantise(
            tf.cast(steps, tf.int32),
            self._table.output_scale / self._output.scale,
            zero_point=self._output.zero_point,
            minimum=minimum,
            maximum=maximum,
            dtype=tf.as_dtype(self._output.dtype),
        )
        return [tf.reshape(result, tf.shape(inputs[0]))]
