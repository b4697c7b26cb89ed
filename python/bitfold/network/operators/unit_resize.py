# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""RESIZE_BILINEAR by the resampling unit.

`bitfold.resize.bilinear` on the stored integers, fractions of 8 bits in int8 and of 7 in int16, in
the layer's accumulator. The weights of a pixel add up to one, so scale and zero point pass through.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold import resize
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._step import Step

_FRACTION_BITS = {"int8": 8, "int16": 7}


class UnitResize(Step):
    """RESIZE_BILINEAR of [N, H, W, C]."""

    stacks = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the unit from computing the operator."""
        before = list(_checks.need_counts(node, (2,)))
        before = before or [
            *_checks.need_stored("the images", node.inputs[0], rank=4),
            *_checks.need_constant("the size", node.inputs[1], ("int32",), rank=1),
        ]
        yield from before
        if before:
            return
        size = node.constant(1)
        if size.size != 2 or size.min() < 1:
            yield f"need a size of two numbers above 0, got {size.tolist()}"
        if min(node.inputs[0].shape) < 1:
            yield f"need images with pixels, got {node.inputs[0]}"
        if node.option("align_corners") and node.option("half_pixel_centers"):
            yield "need one of align_corners and half_pixel_centers, got both"
        yield from _checks.need_same_type(node, node.inputs[0], node.outputs[0])

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Resize."""
        dtype = self.node.inputs[0].dtype
        width = self.arithmetic.accumulator_size
        result = resize.bilinear(
            tf.cast(inputs[0], tf.int32),
            [int(size) for size in np.asarray(self.node.constant(1))],
            align_corners=bool(self.node.option("align_corners")),
            half_pixel_centers=bool(self.node.option("half_pixel_centers")),
            fraction_bits=_FRACTION_BITS[dtype.name],
            accumulator_size=32 if width is None else width,
        )
        limits = np.iinfo(dtype)
        return [tf.cast(tf.clip_by_value(result, limits.min, limits.max), dtype)]
