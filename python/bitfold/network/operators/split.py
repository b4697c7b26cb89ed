# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SPLIT, SPLIT_V and UNPACK: a tensor cut along an axis."""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import Move, need_axis, need_numbers, numbers


class Split(Move):
    """SPLIT into equal parts. The axis comes before the data."""

    moved = (1,)
    _count = 2
    _axis = 0

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (cls._count,), [max(1, len(node.outputs))]))
        before = before or [
            *cls.element_problems(node),
            *need_numbers("the axis", node.inputs[cls._axis], 1),
        ]
        (data,) = cls.data(node)
        before = before or list(need_axis(*numbers(node.inputs[cls._axis]), len(data.shape)))
        yield from before or cls._size_problems(node, data.shape[cls.axis(node)])

    @classmethod
    def axis(cls, node: Node) -> int:
        """Return the dimension that is cut."""
        return numbers(node.inputs[cls._axis])[0] % len(cls.data(node)[0].shape)

    @classmethod
    def _size_problems(cls, node: Node, size: int) -> Iterator[str]:
        parts = len(node.outputs)
        if size % parts or node.option("num_splits", parts) != parts:
            yield f"need {size} elements in {parts} equal parts"

    @classmethod
    def sizes(cls, node: Node) -> list[int]:
        """Return the size of each part."""
        parts = len(node.outputs)
        return [cls.data(node)[0].shape[cls.axis(node)] // parts] * parts

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Cut each image."""
        return tf.split(images[0], self.sizes(self.node), self.axis(self.node) + 1)


class SplitV(Split):
    """SPLIT_V into parts of given sizes, one of which may be -1: the rest."""

    moved = (0,)
    _count = 3
    _axis = 2

    @classmethod
    def _size_problems(cls, node: Node, size: int) -> Iterator[str]:
        before = list(need_numbers("the sizes", node.inputs[1], len(node.outputs)))
        yield from before
        if before:
            return
        sizes = numbers(node.inputs[1])
        if sizes.count(-1) > 1 or min(cls.sizes(node)) < 1 or sum(cls.sizes(node)) != size:
            yield f"need sizes above 0 that add up to {size}, got {sizes}"

    @classmethod
    def sizes(cls, node: Node) -> list[int]:
        """Return the size of each part."""
        sizes = numbers(node.inputs[1])
        rest = node.inputs[0].shape[cls.axis(node)] - sum(size for size in sizes if size != -1)
        return [rest if size == -1 else size for size in sizes]


class Unpack(Move):
    """UNPACK: a tensor for each index along an axis, which is dropped."""

    keeps_scale = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (1,), [max(1, len(node.outputs))]))
        before = before or list(cls.element_problems(node))
        shape = node.inputs[0].shape if not before else ()
        axis = node.option("axis", 0)
        before = before or list(need_axis(axis, len(shape)))
        yield from before
        if not before and shape[axis] != len(node.outputs):
            yield f"need {shape[axis]} outputs, got {len(node.outputs)}"

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Take each image apart."""
        axis = self.node.option("axis", 0) % len(self.node.inputs[0].shape)
        return tf.unstack(images[0], axis=axis + 1)
