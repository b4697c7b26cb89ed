# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SPACE_TO_BATCH_ND and BATCH_TO_SPACE_ND: every n-th pixel an image of its own, and back.

Converters write dilated convolutions in this way. The parts of an image lie side by side, those of
the first block row first, as if the image were alone.
"""

from __future__ import annotations

import math
from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import Move, need_numbers, numbers


class _Blocks(Move):
    """What both directions share: [d0, rows, columns, channels] or [d0, rows, channels]."""

    keeps_scale = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (3,)))
        before = before or list(cls.element_problems(node))
        rank = len(node.inputs[0].shape) if not before else 4
        if rank not in (3, 4):
            before.append(f"need the data of rank 3 or 4, got {node.inputs[0]}")
        before = before or [
            *need_numbers("the block", node.inputs[1], rank - 2),
            *need_numbers("the margins", node.inputs[2], 2 * (rank - 2)),
        ]
        yield from before
        if before:
            return
        block, margins = numbers(node.inputs[1]), numbers(node.inputs[2])
        if min(block) < 1 or min(margins) < 0:
            yield f"need a block above 0 and margins of at least 0, got {block} and {margins}"
            return
        yield from cls.block_problems(node, np.array(block), margins_of(node))

    @classmethod
    def block_problems(cls, node: Node, block: np.ndarray, margins: np.ndarray) -> Iterator[str]:
        """Yield unless the blocks fit the image."""
        raise NotImplementedError

    @property
    def _block(self) -> list[int]:
        return numbers(self.node.inputs[1])


class SpaceToBatch(_Blocks):
    """SPACE_TO_BATCH_ND. Around the image lies the output's zero point."""

    @classmethod
    def block_problems(cls, node: Node, block: np.ndarray, margins: np.ndarray) -> Iterator[str]:
        """Yield unless the padded image consists of whole blocks."""
        padded = np.array(node.inputs[0].shape[1:-1]) + margins.sum(axis=1)
        if (padded % block).any():
            yield f"need whole blocks {block.tolist()}, got {padded.tolist()} pixels"

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Pad, then take each place of a block for itself."""
        rows, *_, channels = self.node.inputs[0].shape
        output, block = self.node.outputs[0], self._block
        value = tf.cast(output.zero_point if output.is_quantised else 0, images[0].dtype)
        margins = [[0, 0], [0, 0], *margins_of(self.node).tolist(), [0, 0]]
        padded = tf.pad(images[0], margins, constant_values=value)
        pixels = padded.shape[2:-1]
        sizes = [part for n, b in zip(pixels, block, strict=True) for part in (n // b, b)]
        blocks = tf.reshape(padded, [-1, rows, *sizes, channels])
        n = len(block)
        places, insides = [3 + 2 * i for i in range(n)], [2 + 2 * i for i in range(n)]
        parts = tf.transpose(blocks, [0, *places, 1, *insides, 2 + 2 * n])
        return [tf.reshape(parts, [-1, math.prod(block) * rows, *sizes[::2], channels])]


class BatchToSpace(_Blocks):
    """BATCH_TO_SPACE_ND. The margins are cut off."""

    @classmethod
    def block_problems(cls, node: Node, block: np.ndarray, margins: np.ndarray) -> Iterator[str]:
        """Yield unless the images are those of whole blocks, and pixels are left."""
        rows, *pixels, _ = node.inputs[0].shape
        if rows % math.prod(block.tolist()):
            yield f"need images for blocks {block.tolist()}, got {rows}"
        if (np.array(pixels) * block <= margins.sum(axis=1)).any():
            yield f"need pixels within the margins {margins.tolist()}, got {node.inputs[0]}"

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Put the places of a block side by side, then cut."""
        rows, *pixels, channels = self.node.inputs[0].shape
        block, n = self._block, len(self._block)
        rows //= math.prod(block)
        parts = tf.reshape(images[0], [-1, *block, rows, *pixels, channels])
        order = [axis for i in range(n) for axis in (2 + n + i, 1 + i)]
        blocks = tf.transpose(parts, [0, 1 + n, *order, 2 + 2 * n])
        sizes = [size * b for size, b in zip(pixels, block, strict=True)]
        whole = tf.reshape(blocks, [-1, rows, *sizes, channels])
        before, after = margins_of(self.node).T.tolist()
        kept = [size - b - a for size, b, a in zip(sizes, before, after, strict=True)]
        return [tf.slice(whole, [0, 0, *before, 0], [-1, rows, *kept, channels])]


def margins_of(node: Node) -> np.ndarray:
    """Return what is added or cut before and behind each dimension of pixels."""
    return node.inputs[2].data.reshape(-1, 2)
