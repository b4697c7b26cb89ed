# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""TILE and BROADCAST_TO: a tensor repeated."""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import Move, need_numbers, numbers


class Tile(Move):
    """TILE: so many times along each dimension."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (2,)))
        before = before or list(cls.element_problems(node))
        rank = len(node.inputs[0].shape) if not before else 0
        before = before or list(need_numbers("the repetitions", node.inputs[1], rank))
        yield from before
        if not before and min(numbers(node.inputs[1]), default=1) < 1:
            yield f"need repetitions above 0, got {numbers(node.inputs[1])}"

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Repeat each image."""
        return [tf.tile(images[0], [1, *numbers(self.node.inputs[1])])]


class BroadcastTo(Move):
    """BROADCAST_TO: dimensions of 1 and such that are not there, repeated."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (2,)))
        before = before or [
            *cls.element_problems(node),
            *need_numbers("the shape", node.inputs[1], None),
        ]
        yield from before
        if before:
            return
        shape, target = node.inputs[0].shape, numbers(node.inputs[1])
        ends = list(zip(reversed(shape), reversed(target), strict=False))
        if (
            len(target) < len(shape)
            or min(target, default=1) < 1
            or any(size not in (1, wanted) for size, wanted in ends)
        ):
            yield f"need a shape that {node.inputs[0]} can be repeated to, got {target}"

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Repeat each image."""
        shape, target = self.node.inputs[0].shape, numbers(self.node.inputs[1])
        image = tf.reshape(images[0], [-1, *[1] * (len(target) - len(shape)), *shape])
        return [tf.broadcast_to(image, [tf.shape(image)[0], *target])]
