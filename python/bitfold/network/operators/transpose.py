# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""TRANSPOSE and REVERSE_V2: dimensions in another order, and elements along them."""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import Move, need_axis, need_numbers, numbers


class Transpose(Move):
    """TRANSPOSE: the i-th dimension of the result is dimension order[i] of the data."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (2,)))
        before = before or list(cls.element_problems(node))
        rank = len(node.inputs[0].shape) if not before else 0
        before = before or list(need_numbers("the order", node.inputs[1], rank))
        yield from before
        if before:
            return
        order = numbers(node.inputs[1])
        if sorted(axis + rank if axis < 0 else axis for axis in order) != list(range(rank)):
            yield f"need an order of {rank} dimensions, got {order}"

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Transpose each image."""
        rank = len(self.node.inputs[0].shape)
        return [tf.transpose(images[0], [0, *(a % rank + 1 for a in numbers(self.node.inputs[1]))])]


class Reverse(Move):
    """REVERSE_V2: elements along some axes from the last to the first."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (2,)))
        before = before or [
            *cls.element_problems(node),
            *need_numbers("the axes", node.inputs[1], None),
        ]
        yield from before
        if before:
            return
        rank = len(node.inputs[0].shape)
        axes = numbers(node.inputs[1])
        bad = [problem for axis in axes for problem in need_axis(axis, rank)]
        yield from bad
        if not bad and len({axis % rank for axis in axes}) != len(axes):
            yield f"need each axis once, got {axes}"

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Reverse each image."""
        rank = len(self.node.inputs[0].shape)
        return [tf.reverse(images[0], [axis % rank + 1 for axis in numbers(self.node.inputs[1])])]
