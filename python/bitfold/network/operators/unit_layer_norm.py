# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A layer normalisation by its unit, where a file spells it out in many operators.

The unit normalises each vector to 16 bits, by the table of `bitfold.tables.layer_norm`. It knows
one gain for all, so those of the channels follow as a depthwise layer of one pixel with a bias: its
weights have 8 bits in units of a power of two, which the requantisation takes back with two
roundings.
"""

from __future__ import annotations

import dataclasses
from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold import ops, tables
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._accumulator import datapath, element_type
from bitfold.network.operators._layer_norm_pattern import Pattern
from bitfold.network.operators._requantisation import Requantiser
from bitfold.network.operators._step import Step
from bitfold.network.operators._unit_weights import unit_weights

_LONGEST = 4096


class UnitLayerNorm(Step):
    """The unit, and the gains and biases of the channels."""

    def __init__(self, node: Node, arithmetic: Arithmetic, pattern: Pattern) -> None:
        """Make the unit's table, the weights and the bias."""
        super().__init__(node, arithmetic)
        self.stacks = len(pattern.data.shape) > 1
        self._size = pattern.data.shape[-1]
        # The unit's zero point is not negative: elements are counted from the least.
        self._least = int(np.iinfo(pattern.data.dtype).min)
        self._table = tables.layer_norm(
            self._size,
            input_scale=pattern.data.scale,
            zero_point=pattern.data.zero_point - self._least,
            input_range=(0, 2 * -self._least - 1),
            epsilon=pattern.epsilon,
            is_16bit_output=True,
        )
        ratios = pattern.gain * self._table.output_scale / pattern.output.scale
        self._weights, bits = unit_weights(ratios)
        steps = np.rint(np.ldexp(pattern.bias / pattern.output.scale, bits))
        self._bias = np.clip(steps, -(2**31), 2**31 - 1).astype(np.int64).astype(np.int32)
        self._requantise = Requantiser(
            pattern.output, np.float64(2.0**-bits), "NONE", arithmetic, "two_roundings"
        )

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the unit from computing the normalisation."""
        data = node.inputs[0]
        yield from _checks.need_stored("the data", data, ("int8",))
        if not data.shape or not 1 <= data.shape[-1] <= _LONGEST:
            yield f"need vectors of 1 to {_LONGEST} elements, got {data}"

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Normalise, then scale and shift each channel."""
        kind = element_type(self.arithmetic)
        keywords = datapath(self.arithmetic)
        counted = tf.cast(inputs[0], tf.float32) - float(self._least)
        vectors = tf.reshape(counted, [1, 1, -1, self._size])
        normal = ops.layer_norm(vectors, **self._table.keywords)
        steps = tf.cast(normal - float(self._table.output_zero_point), kind)
        weights = tf.cast(self._weights.reshape(1, 1, 1, -1), kind)
        sums = ops.depthwise_conv2d(steps, weights, padding="VALID", **keywords)
        sums = ops.bias_add(sums, tf.cast(self._bias, kind), **keywords)
        return [tf.reshape(self._requantise(sums), tf.shape(inputs[0]))]


def fused(steps: Sequence[Step], patterns: Sequence[Pattern]) -> list[Step]:
    """Replace layer normalisations whose last operator asks for the unit.

    Args:
        steps: of all operators.
        patterns: what `find_patterns` found.
    """
    by_position = {step.node.operator.position: step for step in steps}
    for pattern in patterns:
        last = pattern.nodes[-1]
        arithmetic = by_position[last.operator.position].arithmetic
        if arithmetic.layer_norm != "unit":
            continue
        operator = dataclasses.replace(last.operator, inputs=(pattern.data.index,))
        node = Node(operator, (pattern.data,), last.outputs)
        for problem in UnitLayerNorm.problems(node):
            raise ValueError(problem)
        for part in pattern.nodes:
            del by_position[part.operator.position]
        by_position[operator.position] = UnitLayerNorm(node, arithmetic, pattern)
    return [by_position[position] for position in sorted(by_position)]
