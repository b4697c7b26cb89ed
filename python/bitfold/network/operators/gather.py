# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""GATHER: the elements at constant indices along an axis."""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import Move, need_axis, need_elements, need_numbers


class Gather(Move):
    """GATHER."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = [
            *_checks.need_counts(node, (2,)),
            *_checks.need_option(node, "batch_dims", 0),
        ]
        before = before or [
            *cls.element_problems(node),
            *need_numbers("the indices", node.inputs[1], None),
            *need_elements(node.inputs[1]),
        ]
        shape = node.inputs[0].shape if not before else ()
        axis = node.option("axis", 0)
        before = before or list(need_axis(axis, len(shape)))
        yield from before
        if before:
            return
        indices = node.inputs[1].data
        if indices.min() < 0 or indices.max() >= shape[axis]:
            yield f"need indices of {shape[axis]} elements, got {indices.min()} to {indices.max()}"

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Gather from each image."""
        axis = self.node.option("axis", 0) % len(self.node.inputs[0].shape)
        return [tf.gather(images[0], self.node.inputs[1].data, axis=axis + 1)]
