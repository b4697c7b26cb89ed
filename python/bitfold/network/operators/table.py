# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Functions of one stored input, element by element: looked up in a table.

ABS, ELU, EXP, GELU, HARD_SWISH, LEAKY_RELU, LOG, LOGISTIC, NEG, the RELUs, RSQRT, SQRT and TANH.

The table holds the result of each of the 256 or 65,536 stored values, made at import by the
runtime's own kernel, which so defines every rounding, and says which scales and zero points there
are for a function. RSQRT and SQRT refuse data below 0; here such a value
has the result of the least one that is taken, so that an image cannot stop a batch.
"""

from __future__ import annotations

import dataclasses
from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.kernels import tabulate
from bitfold.network.operators import _checks
from bitfold.network.operators._step import Step

# The runtime has no kernels of these for 16 bits.
_ONE_BYTE = ("ELU", "HARD_SWISH", "RELU_0_TO_1", "RELU_N1_TO_1")


class Table(Step):
    """A function by its table."""

    stacks = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (1,)))
        types = ("int8",) if node.kind in _ONE_BYTE else _checks.STORED
        before = before or [
            *_checks.need_stored("the data", node.inputs[0], types),
            *_checks.need_stored("the output", node.outputs[0], types),
            *_checks.need_same_type(node, *node.inputs, *node.outputs),
        ]
        yield from before
        if before:
            return
        try:
            _table(node)
        except ValueError as error:
            yield str(error)

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Make the table."""
        super().__init__(node, arithmetic)
        self._table = _table(node)

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Look up every element."""
        return [ops.stored_lookup(inputs[0], self._table)]


def _table(node: Node) -> np.ndarray:
    """Return the results of all stored values, from the least on."""
    data = node.inputs[0]
    if data.is_constant:
        node = Node(node.operator, (dataclasses.replace(data, data=None),), node.outputs)
    return tabulate(node)
