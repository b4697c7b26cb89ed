# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""RESIZE_BILINEAR and RESIZE_NEAREST_NEIGHBOR: images of another size, on stored integers.

Bilinear: a pixel's place among the rows, and among the columns, is a whole number of 1/1024; what
lies between two pixels is their mean, weighted in 20 bits, halves away from zero. Nearest: a place
in single precision, rounded down, where corners are aligned to the nearest. The output has the
scale of the data.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._fixed_point import halved_away
from bitfold.network.operators._moves import Move, need_elements, need_numbers, numbers
from bitfold.network.operators._step import Step
from bitfold.network.operators._windows import MODEST


def size_problems(node: Node) -> Iterator[str]:
    """Yield unless there are images and a new size, and the options go together."""
    data, size = node.inputs
    before = [
        *_checks.need_type("the data", data, ("int8", "int16", "int32", "float32"), 4),
        *_checks.need_same_type(node, data, node.outputs[0]),
        *need_elements(data),
        *need_numbers("the size", size, 2, ("int32",)),
    ]
    yield from before
    # Of each new row and column its place is kept.
    if not before and not 1 <= min(numbers(size)) <= max(numbers(size)) <= MODEST:
        yield f"need a size of 1 to {MODEST}, got {numbers(size)}"
    if node.option("align_corners") and node.option("half_pixel_centers"):
        yield "need align_corners or half_pixel_centers, got both"


class ResizeNearest(Move):
    """RESIZE_NEAREST_NEIGHBOR."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (2,)))
        yield from before or size_problems(node)

    def move(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        """Take the nearest pixels."""
        result = images[0]
        for axis, size in zip((1, 2), numbers(self.node.inputs[1]), strict=True):
            places = self._places(self.node.inputs[0].shape[axis], size)
            result = tf.gather(result, places, axis=axis + 1)
        return [result]

    def _places(self, size: int, new_size: int) -> np.ndarray:
        """Return for each new pixel that of the data."""
        aligned = self.node.option("align_corners") and new_size > 1
        centre = np.float32(0.5 if self.node.option("half_pixel_centers") else 0)
        scale = (
            np.float32(size - 1) / np.float32(new_size - 1)
            if aligned
            else np.float32(size) / np.float32(new_size)
        )
        places = (np.arange(new_size, dtype=np.float32) + centre) * scale
        places = places + np.float32(0.5) if self.node.option("align_corners") else places
        return np.floor(places).astype(np.int32).clip(0, size - 1)


class ResizeBilinear(Step):
    """RESIZE_BILINEAR."""

    stacks = True

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Find each new pixel's neighbours and their weights."""
        super().__init__(node, arithmetic)
        sizes = zip(node.inputs[0].shape[1:3], numbers(node.inputs[1]), strict=True)
        self._axes = [neighbours(node, *pair) for pair in sizes]
        # Weights of 20 bits times 8 bits fit 32.
        self._type = tf.int32 if node.inputs[0].dtype == np.int8 else tf.int64

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (2,)))
        before = before or [
            *_checks.need_stored("the data", node.inputs[0]),
            *_checks.need_stored("the output", node.outputs[0]),
            *size_problems(node),
        ]
        yield from before
        if before:
            return
        for size, new_size in zip(node.inputs[0].shape[1:3], numbers(node.inputs[1]), strict=True):
            lower, _, weights = neighbours(node, size, new_size)
            # A rounded scale adds up to a place beyond the last pixel, far along a large image.
            if lower.max() >= size or weights.min() < 0 or weights.max() > 1024:
                yield f"need pixels between those of {size}, got {new_size}"

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Interpolate rows, then columns, and round once."""
        total = tf.cast(inputs[0], self._type)
        for axis, (lower, upper, weights) in enumerate(self._axes, start=1):
            weights = tf.reshape(tf.constant(weights, self._type), [-1, *[1] * (3 - axis)])
            total = tf.gather(total, lower, axis=axis) * (1024 - weights) + (
                tf.gather(total, upper, axis=axis) * weights
            )
        return [tf.cast(halved_away(total, 20), inputs[0].dtype)]


def neighbours(node: Node, size: int, new_size: int) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Return for each new pixel the lower and the upper pixel, and the weight of the upper one.

    Places and weights are in 1/1024 of a pixel.
    """
    spans, new_spans = size, new_size
    if node.option("align_corners") and new_size > 1:
        spans, new_spans = size - 1, new_size - 1
    scale = (1024 * spans + new_spans // 2) // new_spans
    places = np.arange(new_size, dtype=np.int64) * scale
    if node.option("half_pixel_centers"):
        places += scale // 2 - 512
    # Places before the first pixel are cut towards zero, which makes both neighbours the first.
    lower = np.maximum(places // 1024, 0)
    upper = np.minimum(np.where(places > 0, (places + 1023) // 1024, 0), size - 1)
    weights = np.where(lower == upper, 0, places - 1024 * lower)
    return lower.astype(np.int32), upper.astype(np.int32), weights
