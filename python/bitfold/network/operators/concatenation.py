# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""CONCATENATION: tensors one behind the other along an axis.

Stored elements move as they are. int8 has one scale throughout. In int16 the scales may differ, and
the elements are not rescaled.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import Move, alike, need_axis, need_one_scale


class Concatenation(Move):
    """CONCATENATION."""

    moved = None

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = [
            *_checks.need_counts(node, [max(1, len(node.inputs))]),
            *_checks.need_option(node, "fused_activation_function", "NONE"),
        ]
        before = before or list(cls.element_problems(node))
        if not before and node.outputs[0].dtype == np.int8:
            before = list(need_one_scale([*node.inputs, *node.outputs]))
        yield from before
        if before:
            return
        first, *others = node.inputs
        rank = len(first.shape)
        axis = node.option("axis", 0)
        yield from need_axis(axis, rank)
        for other in others:
            if _without(first.shape, axis) != _without(other.shape, axis):
                yield f"need {other} of the shape of {first} but along axis {axis}"

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Put the elements of each image behind one another."""
        axis = self.node.option("axis", 0) % len(self.node.inputs[0].shape) + 1
        return [tf.concat(alike(images), axis)]


def _without(shape: tuple[int, ...], axis: int) -> list[int]:
    rest = list(shape)
    if -len(rest) <= axis < len(rest):
        rest[axis] = -1
    return rest
