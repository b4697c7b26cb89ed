# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""ADD and SUB by the addition unit.

Each operand, less its zero point, is multiplied by a weight and added in one addition:
`bitfold.ops.weighted_add`, in the layer's accumulator and with its shift. The weights are the
ratios of the operands' scales to the output's, as whole numbers of 8 bits in units of a power of
two, the finest that holds both; the requantisation takes that power back, with two roundings.
"""

from __future__ import annotations

import math
from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._accumulator import datapath, element_type
from bitfold.network.operators._requantisation import FUSED, Requantiser
from bitfold.network.operators._step import Step

_LARGEST_WEIGHT = 127


def weights_of(first: float, second: float) -> tuple[np.ndarray, int]:
    """Return two ratios as whole numbers of 8 bits, and the bits that they lie above the point."""
    largest = max(abs(first), abs(second))
    bits = math.floor(math.log2(_LARGEST_WEIGHT / largest))
    if round(math.ldexp(largest, bits)) > _LARGEST_WEIGHT:
        bits -= 1
    return np.array([round(math.ldexp(ratio, bits)) for ratio in (first, second)], np.int32), bits


class UnitAddition(Step):
    """ADD or SUB of tensors that may repeat along dimensions."""

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Make the weights."""
        super().__init__(node, arithmetic)
        first, second = node.inputs
        output = node.outputs[0]
        sign = -1 if node.kind == "SUB" else 1
        ratios = first.scale / output.scale, sign * second.scale / output.scale
        self._weights, bits = weights_of(*ratios)
        fused = node.option("fused_activation_function", "NONE")
        self._requantise = Requantiser(
            output, np.float64(2.0**-bits), fused, arithmetic, "two_roundings"
        )

    @property
    def stacks(self) -> bool:
        """Operands without, or with a single, place along the images' dimension go to each."""
        output = np.broadcast_shapes(*(tensor.shape for tensor in self.node.inputs))
        return all(
            not tensor.is_constant or len(tensor.shape) < len(output) or tensor.shape[0] == 1
            if tensor.is_constant
            else len(tensor.shape) == len(output) and tensor.shape[0] == output[0]
            for tensor in self.node.inputs
        )

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the unit from computing the operator."""
        before = list(_checks.need_counts(node, (2,)))
        before = before or [
            *_checks.need_stored("the first operand", node.inputs[0]),
            *_checks.need_stored("the second operand", node.inputs[1]),
            *_checks.need_stored("the output", node.outputs[0]),
            *_checks.need_option(node, "fused_activation_function", *FUSED, None),
        ]
        yield from before
        if before:
            return
        first, second = node.inputs
        try:
            shape = np.broadcast_shapes(first.shape, second.shape)
        except ValueError:
            yield f"need operands that fit one another, got {first} and {second}"
            return
        if not shape:
            yield f"need operands with dimensions, got {first} and {second}"
        ratios = first.scale / node.outputs[0].scale, second.scale / node.outputs[0].scale
        if min(ratios) <= 0 or math.isinf(max(ratios)):
            yield f"need scales whose ratios are numbers, got {ratios}"

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Add, and bring the sums to the output's scale."""
        kind = element_type(self.arithmetic)
        values = [
            tf.cast(tf.cast(value, tf.int32) - tensor.zero_point, kind)
            for value, tensor in zip(inputs, self.node.inputs, strict=True)
        ]
        shape = tf.broadcast_dynamic_shape(tf.shape(values[0]), tf.shape(values[1]))
        rows = [tf.reshape(tf.broadcast_to(value, shape), [-1, 1]) for value in values]
        sums = ops.weighted_add(
            *rows, tf.cast(self._weights[:, None], kind), **datapath(self.arithmetic)
        )
        return [tf.reshape(self._requantise(sums), shape)]
