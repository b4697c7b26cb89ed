# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SLICE and STRIDED_SLICE: a part of a tensor."""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import Move, need_numbers, numbers


class Slice(Move):
    """SLICE: so many elements from a first one in each dimension; -1 for the rest."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (3,)))
        before = before or list(cls.element_problems(node))
        rank = len(node.inputs[0].shape) if not before else 0
        before = before or [
            *need_numbers("the begin", node.inputs[1], rank),
            *need_numbers("the size", node.inputs[2], rank),
        ]
        yield from before
        if before:
            return
        begins, sizes = cls._range(node)
        for size, begin, count in zip(node.inputs[0].shape, begins, sizes, strict=True):
            if begin < 0 or count < 1 or begin + count > size:
                yield f"need a part of {size} elements, got {count} from {begin}"

    @staticmethod
    def _range(node: Node) -> tuple[list[int], list[int]]:
        begins, counts = numbers(node.inputs[1]), numbers(node.inputs[2])
        ends = zip(node.inputs[0].shape, begins, counts, strict=True)
        return begins, [size - begin if count == -1 else count for size, begin, count in ends]

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Cut the part out of each image."""
        begins, sizes = self._range(self.node)
        return [tf.slice(images[0], [0, *begins], [-1, *sizes])]


_MASKS = ("begin_mask", "end_mask", "ellipsis_mask", "new_axis_mask", "shrink_axis_mask")


class StridedSlice(Move):
    """STRIDED_SLICE: Python's slices, with strides of both signs and all masks.

    With `offset` an end counts from its begin.
    """

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (4,)))
        before = before or list(cls.element_problems(node))
        before = before or list(need_numbers("the begin", node.inputs[1], None))
        count = node.inputs[1].data.size if not before else 0
        before = before or [
            *need_numbers("the end", node.inputs[2], count),
            *need_numbers("the strides", node.inputs[3], count),
        ]
        yield from before
        if before:
            return
        if 0 in numbers(node.inputs[3]):
            yield "need strides that are not 0"
            return
        limit = 1 << count
        bad = [name for name in _MASKS if not 0 <= node.option(name, 0) < limit]
        yield from (f"need {name} below {limit}, got {node.option(name)}" for name in bad)
        if not bad:
            yield from _part_problems(node)

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Cut the part out of each image; a slice of all images comes first."""
        begin, end, strides = _ranges(self.node)
        masks = {name: self.node.option(name, 0) << 1 for name in _MASKS}
        masks["begin_mask"] |= 1
        masks["end_mask"] |= 1
        return [tf.strided_slice(images[0], [0, *begin], [0, *end], [1, *strides], **masks)]


def _ranges(node: Node) -> tuple[list[int], list[int], list[int]]:
    begin, end, strides = (numbers(tensor) for tensor in node.inputs[1:])
    if node.option("offset"):
        end = [first + count for first, count in zip(begin, end, strict=True)]
    return begin, end, strides


def _part_problems(node: Node) -> Iterator[str]:
    """Yield unless the slices fit the data and leave an element, without memory for either."""
    begin, end, strides = _ranges(node)
    masks = {name: node.option(name, 0) for name in _MASKS}
    image = np.broadcast_to(np.zeros((), np.bool_), node.inputs[0].shape)
    with tf.Graph().as_default():
        data = tf.compat.v1.placeholder(tf.bool, image.shape)
        try:
            part = tf.strided_slice(data, begin, end, strides, **masks)
        except (ValueError, TypeError) as error:
            yield f"need slices of {node.inputs[0]}: {str(error).splitlines()[0]}"
            return
    if not part.shape.num_elements():
        yield f"need an element in each dimension, got {list(part.shape)}"
