# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SUM, REDUCE_MAX and REDUCE_MIN: elements along some axes.

The extremes are those of the stored elements; the scale is the data's. A sum is that of the stored
elements; in single precision it is multiplied by the ratio of the scales, the elements' zero points
in the output's scale are taken off, and the result is rounded, halves away from zero.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import stacked
from bitfold.network.operators._reductions import (
    elements_of,
    need_narrow_sums,
    reduced,
    reduction_problems,
)
from bitfold.network.operators._requantisation import stored_range
from bitfold.network.operators._step import Step


class ReducedSum(Step):
    """SUM."""

    stacks = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(reduction_problems(node))
        ratio = node.inputs[0].scale / node.outputs[0].scale if not before else 1.0
        # Above 2^31 the result would not fit 32 bits, nor the ratio single precision.
        before = before or list(need_narrow_sums(node, max(0.0, np.log2(ratio))))
        yield from before

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Add up, multiply and store."""
        data, output = self.node.inputs[0], self.node.outputs[0]
        sums = reduced(self.node, tf.cast(inputs[0], tf.int32), tf.reduce_sum)
        ratio = np.float32(data.scale) / np.float32(output.scale)
        offset = np.float32(-data.zero_point) * ratio * np.float32(elements_of(self.node))
        scaled = _rounded(tf.cast(sums, tf.float32) * ratio + offset) + output.zero_point
        return [
            stacked(tf.cast(tf.clip_by_value(scaled, *stored_range(output.dtype)), output.dtype))
        ]


def _rounded(values: tf.Tensor) -> tf.Tensor:
    """Return floats as int32, halves away from zero."""
    whole = tf.cast(values, tf.int32)
    rest = values - tf.cast(whole, values.dtype)
    return whole + tf.cast(rest >= 0.5, tf.int32) - tf.cast(rest <= -0.5, tf.int32)


class ReducedExtreme(Step):
    """REDUCE_MAX, REDUCE_MIN."""

    stacks = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(reduction_problems(node))
        yield from before or _checks.need_same_quantisation(node.inputs[0], node.outputs[0])

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Compare."""
        reduce = tf.reduce_max if self.node.kind == "REDUCE_MAX" else tf.reduce_min
        return [stacked(reduced(self.node, inputs[0], reduce))]
