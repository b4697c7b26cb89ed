# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SPACE_TO_DEPTH and DEPTH_TO_SPACE: the pixels of a block as channels of one, and back."""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import Move


class _Depth(Move):
    """What both directions share."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = [
            *_checks.need_counts(node, (1,)),
            *_checks.need_positive(node, "block_size"),
        ]
        before = before or list(cls.element_problems(node))
        if not before and len(node.inputs[0].shape) != 4:
            before.append(f"need the data of rank 4, got {node.inputs[0]}")
        yield from before or cls.block_problems(node, node.option("block_size", 1))

    @classmethod
    def block_problems(cls, node: Node, block: int) -> Iterator[str]:
        """Yield unless the blocks fit the image."""
        raise NotImplementedError


class SpaceToDepth(_Depth):
    """SPACE_TO_DEPTH: the pixels of a block row by row, each with all its channels."""

    @classmethod
    def block_problems(cls, node: Node, block: int) -> Iterator[str]:
        """Yield unless the image consists of whole blocks."""
        _, rows, columns, _ = node.inputs[0].shape
        if rows % block or columns % block:
            yield f"need whole blocks of {block} pixels, got {node.inputs[0]}"

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Gather each block."""
        n, rows, columns, channels = self.node.inputs[0].shape
        b = self.node.option("block_size", 1)
        blocks = tf.reshape(images[0], [-1, rows // b, b, columns // b, b, channels])
        pixels = tf.transpose(blocks, [0, 1, 3, 2, 4, 5])
        return [tf.reshape(pixels, [-1, n, rows // b, columns // b, b * b * channels])]


class DepthToSpace(_Depth):
    """DEPTH_TO_SPACE: the channels of a pixel are those of a block, row by row."""

    @classmethod
    def block_problems(cls, node: Node, block: int) -> Iterator[str]:
        """Yield unless the channels are those of a whole block."""
        if node.inputs[0].shape[3] % (block * block):
            yield f"need channels for {block} x {block} pixels, got {node.inputs[0]}"

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Spread each pixel."""
        n, rows, columns, channels = self.node.inputs[0].shape
        b = self.node.option("block_size", 1)
        channels //= b * b
        pixels = tf.reshape(images[0], [-1, rows, columns, b, b, channels])
        blocks = tf.transpose(pixels, [0, 1, 3, 2, 4, 5])
        return [tf.reshape(blocks, [-1, n, rows * b, columns * b, channels])]
