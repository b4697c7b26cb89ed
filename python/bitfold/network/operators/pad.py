# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""PAD, PADV2 and MIRROR_PAD: elements around a tensor.

PAD writes the output's zero point, which stands for 0; PADV2 a stored constant; MIRROR_PAD the
data, mirrored at its ends: REFLECT leaves out the end itself, SYMMETRIC repeats it.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import Move, need_numbers, need_one_scale, numbers


class Pad(Move):
    """PAD, PADV2."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (3,) if node.kind == "PADV2" else (2,)))
        before = before or [*cls.element_problems(node), *padding_problems(node)]
        yield from before
        if before:
            return
        data, output = node.inputs[0], node.outputs[0]
        if node.kind == "PADV2":
            value = node.inputs[2]
            yield from _checks.need_constant("the value", value, (data.dtype.name,))
            if value.is_constant and value.data.size != 1:
                yield f"need one value, got {value}"
            yield from need_one_scale([value, output])
        elif data.dtype.name in _checks.STORED and (data.is_quantised or output.is_quantised):
            yield from _checks.need_stored("the output", output)

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Pad each image."""
        paddings = [[0, 0], *paddings_of(self.node)]
        return [tf.pad(images[0], paddings, constant_values=tf.constant(self._value()))]

    def _value(self) -> np.ndarray:
        output = self.node.outputs[0]
        if self.node.kind == "PADV2":
            return self.node.inputs[2].data.reshape(())
        return np.array(output.zero_point if output.is_quantised else 0, output.dtype)


class MirrorPad(Move):
    """MIRROR_PAD."""

    keeps_scale = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = [
            *_checks.need_counts(node, (2,)),
            *_checks.need_option(node, "mode", "REFLECT", "SYMMETRIC"),
        ]
        before = before or [*cls.element_problems(node), *padding_problems(node)]
        yield from before
        if before:
            return
        offset = cls._offset(node)
        for size, padding in zip(node.inputs[0].shape, paddings_of(node), strict=True):
            if max(padding) > size - offset:
                yield f"need at most {size - offset} elements beside {size}, got {max(padding)}"

    @staticmethod
    def _offset(node: Node) -> int:
        """Return 1 where the mirror is the last element itself, 0 where it lies behind it."""
        return 1 if node.option("mode") == "REFLECT" else 0

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Pad each image, one dimension after the other."""
        offset, result = self._offset(self.node), images[0]
        pairs = zip(self.node.inputs[0].shape, paddings_of(self.node), strict=True)
        for axis, (size, (before, after)) in enumerate(pairs, start=1):
            if before or after:
                front = _mirrored(result, axis, offset, before)
                back = _mirrored(result, axis, size - offset - after, after)
                result = tf.concat([front, result, back], axis)
        return [result]


def _mirrored(images: tf.Tensor, axis: int, first: int, count: int) -> tf.Tensor:
    """Return so many elements along an axis, the last one first."""
    begin, size = [0] * images.shape.rank, [-1] * images.shape.rank
    begin[axis], size[axis] = first, count
    return tf.reverse(tf.slice(images, begin, size), [axis])


def padding_problems(node: Node) -> Iterator[str]:
    """Yield unless there are two paddings of each dimension, none below 0."""
    rank = len(node.inputs[0].shape)
    before = list(need_numbers("the paddings", node.inputs[1], 2 * rank))
    yield from before
    if not before and min(numbers(node.inputs[1]), default=0) < 0:
        yield f"need paddings of at least 0, got {numbers(node.inputs[1])}"


def paddings_of(node: Node) -> list[list[int]]:
    """Return what lies before and behind each dimension."""
    return node.inputs[1].data.reshape(-1, 2).tolist()
