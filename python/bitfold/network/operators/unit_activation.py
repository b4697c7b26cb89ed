# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""LOGISTIC, TANH, HARD_SWISH and GELU by the activation unit.

The unit's tables are those of `bitfold.tables.activation` for the scales and zero points of input
and output; it computes from stored integers to stored integers.
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

_FUNCTIONS = {"LOGISTIC": "sigmoid", "TANH": "tanh", "HARD_SWISH": "hard_swish", "GELU": "gelu"}


def _approximate_gelu(x: np.ndarray) -> np.ndarray:
    return 0.5 * x * (1 + np.tanh(np.sqrt(2 / np.pi) * (x + 0.044715 * x**3)))


class UnitActivation(Step):
    """A function of each element."""

    stacks = True

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Fit the unit's tables."""
        super().__init__(node, arithmetic)
        data, output = node.inputs[0], node.outputs[0]
        function = _FUNCTIONS[node.kind]
        if node.kind == "GELU" and node.option("approximate"):
            function = _approximate_gelu
        self._table = tables.activation(
            function,
            input_scale=data.scale,
            input_zero_point=data.zero_point,
            output_scale=output.scale,
            output_zero_point=output.zero_point,
            input_range=stored_range(data.dtype),
            output_range=stored_range(output.dtype),
        )

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the unit from computing the operator."""
        before = list(_checks.need_counts(node, (1,)))
        yield from before
        if before:
            return
        yield from _checks.need_stored("the data", node.inputs[0])
        yield from _checks.need_stored("the output", node.outputs[0])

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Look every element's piece up."""
        pixels = tf.reshape(tf.cast(inputs[0], tf.int32), [1, 1, -1, 1])
        result = ops.activation(pixels, **self._table.keywords)
        stored = tf.cast(result, self.node.outputs[0].dtype)
        return [tf.reshape(stored, tf.shape(inputs[0]))]
