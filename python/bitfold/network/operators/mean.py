# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""MEAN: the mean of the elements along some axes.

The sum of the elements, less their zero points, is multiplied by the ratio of the scales over the
number of elements, in two roundings. The mantissa of that quotient is the ratio's, shifted left
and divided by the number; it is not brought back to 31 bits.
"""

from __future__ import annotations

import math
from collections.abc import Iterator, Sequence

import tensorflow as tf

from bitfold import ops
from bitfold.network.graph import Node
from bitfold.network.operators._fixed_point import mantissa_and_exponent
from bitfold.network.operators._moves import stacked
from bitfold.network.operators._reductions import (
    axes_of,
    elements_of,
    need_narrow_sums,
    reduction_problems,
)
from bitfold.network.operators._step import Step


class Mean(Step):
    """MEAN."""

    stacks = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(reduction_problems(node))
        yield from before or need_narrow_sums(node, _exponent(node))

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Take the mean of what lies along the axes."""
        data, output = self.node.inputs[0], self.node.outputs[0]
        means = ops.stored_mean(
            self._gathered(inputs[0]),
            data_scale=data.scale,
            data_zero_point=data.zero_point,
            output_scale=output.scale,
            output_zero_point=output.zero_point,
        )
        rest = [1 if axis in axes_of(self.node) else n for axis, n in enumerate(data.shape)]
        if not self.node.option("keep_dims"):
            rest = [data.shape[axis] for axis in self._kept]
        return [stacked(tf.reshape(means, [-1, *rest]))]

    @property
    def _kept(self) -> list[int]:
        """The dimensions that remain."""
        return [i for i in range(len(self.node.inputs[0].shape)) if i not in axes_of(self.node)]

    def _gathered(self, stored: tf.Tensor) -> tf.Tensor:
        """Return images with the axes as the middle one of three dimensions."""
        shape, axes = self.node.inputs[0].shape, axes_of(self.node)
        elements = elements_of(self.node)
        if not axes or axes == list(range(axes[0], axes[-1] + 1)):
            behind = math.prod(shape[axes[-1] + 1 :]) if axes else 1
            return tf.reshape(stored, [-1, elements, behind])
        images = tf.reshape(stored, [-1, *shape])
        last = tf.transpose(images, [0, *(axis + 1 for axis in (*self._kept, *axes))])
        return tf.reshape(last, [-1, elements, 1])


def _exponent(node: Node) -> int:
    """Return by how many bits a sum is shifted left before it is multiplied."""
    _, exponent = mantissa_and_exponent(node.inputs[0].scale / node.outputs[0].scale)
    # The mantissa over the number of elements gets as many bits as the number has.
    spare = min(elements_of(node).bit_length() - 1, 31 + exponent)
    return max(exponent - spare, 0)
