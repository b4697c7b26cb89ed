# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""PACK: tensors side by side along a new axis. Stored elements move as they are."""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import Move, alike, need_axis


class Pack(Move):
    """PACK."""

    moved = None
    keeps_scale = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, [max(1, len(node.inputs))]))
        before = before or list(cls.element_problems(node))
        yield from before
        if before:
            return
        first, *others = node.inputs
        yield from need_axis(node.option("axis", 0), len(first.shape) + 1)
        for other in others:
            if other.shape != first.shape:
                yield f"need {other} of the shape of {first}"

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Pack each image."""
        axis = self.node.option("axis", 0) % (len(self.node.inputs[0].shape) + 1)
        return [tf.stack(alike(images), axis + 1)]
