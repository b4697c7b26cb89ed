# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""MEAN: the mean of the elements along some axes.

The sum of the elements, less their zero points, is multiplied by the ratio of the scales over the
number of elements, in two roundings. The mantissa of that quotient is the ratio's, shifted left
and divided by the number; it is not brought back to 31 bits.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators._fixed_point import mantissa_and_exponent, two_roundings
from bitfold.network.operators._moves import stacked
from bitfold.network.operators._reductions import (
    elements_of,
    need_narrow_sums,
    reduced,
    reduction_problems,
)
from bitfold.network.operators._requantisation import stored_range
from bitfold.network.operators._step import Step


class Mean(Step):
    """MEAN."""

    stacks = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(reduction_problems(node))
        yield from before or need_narrow_sums(node, max(multiplier(node)[1], 0))

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Add up, multiply and store."""
        data, output = self.node.inputs[0], self.node.outputs[0]
        centred = tf.cast(inputs[0], tf.int32) - data.zero_point
        sums = tf.cast(reduced(self.node, centred, tf.reduce_sum), tf.int64)
        means = two_roundings(sums, *multiplier(self.node)) + output.zero_point
        return [
            stacked(tf.cast(tf.clip_by_value(means, *stored_range(output.dtype)), output.dtype))
        ]


def multiplier(node: Node) -> tuple[int, int]:
    """Return the mantissa and the exponent of what a sum is multiplied by."""
    mantissa, exponent = mantissa_and_exponent(node.inputs[0].scale / node.outputs[0].scale)
    elements = elements_of(node)
    # As many bits as the number has, so that the mantissa loses at most one; no exponent lies
    # below -31.
    spare = min(elements.bit_length() - 1, 31 + exponent)
    return (mantissa << spare) // elements, exponent - spare
