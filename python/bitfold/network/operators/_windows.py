# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Where the windows of a convolution or a pool lie in the image."""

from __future__ import annotations

import dataclasses
from collections.abc import Iterator
from typing import Any

import tensorflow as tf

from bitfold import ops
from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._moves import need_elements
from bitfold.network.operators._requantisation import FUSED

# Where windows lie costs the file nothing. What they meet may have so many pixels, or so many times
# the image's.
MODEST = 1 << 20
_MOST_PADDED = 16


@dataclasses.dataclass(frozen=True)
class Axis:
    """The windows along one axis of an image.

    Attributes:
        size: of the image.
        window: taps.
        stride: from a window to the next.
        dilation: from a tap to the next.
        is_same: whether windows may reach beyond the image.
    """

    size: int
    window: int
    stride: int
    dilation: int
    is_same: bool

    @property
    def extent(self) -> int:
        """From a window's first tap to beyond its last."""
        return (self.window - 1) * self.dilation + 1

    @property
    def outputs(self) -> int:
        """The number of windows, below 1 where none fits."""
        span = self.size if self.is_same else self.size - self.extent + 1
        return -(-span // self.stride)

    @property
    def padding(self) -> tuple[int, int]:
        """How far windows reach beyond the begin and the end; the odd one of a pair at the end."""
        if not self.is_same:
            return 0, 0
        total = max((self.outputs - 1) * self.stride + self.extent - self.size, 0)
        return total // 2, total - total // 2

    @property
    def padded_size(self) -> int:
        """Of the image and what windows meet beyond it."""
        return self.size + sum(self.padding)


@dataclasses.dataclass(frozen=True)
class Windows:
    """The windows of an image: rows and columns."""

    rows: Axis
    columns: Axis

    @classmethod
    def of(cls, node: Node, height: int, width: int) -> Windows:
        """Read an operator's options; `height` and `width` are those of the window."""
        _, rows, columns, _ = node.inputs[0].shape
        is_same = node.option("padding") == "SAME"

        def axis(size: int, window: int, which: str) -> Axis:
            dilation = node.option(f"dilation_{which}_factor", 1)
            return Axis(size, window, node.option(f"stride_{which}"), dilation, is_same)

        return cls(axis(rows, height, "h"), axis(columns, width, "w"))

    @classmethod
    def of_pool(cls, node: Node) -> Windows:
        """Read a pool's options."""
        return cls.of(node, node.option("filter_height"), node.option("filter_width"))

    @property
    def strides(self) -> list[int]:
        """Of rows and columns."""
        return [self.rows.stride, self.columns.stride]

    @property
    def dilations(self) -> list[int]:
        """Of rows and columns."""
        return [self.rows.dilation, self.columns.dilation]

    @property
    def outputs(self) -> int:
        """The number of windows."""
        return self.rows.outputs * self.columns.outputs

    def problems(self) -> Iterator[str]:
        """Yield where no window fits."""
        for axis in (self.rows, self.columns):
            if axis.outputs < 1:
                yield f"need a window of at most {axis.size} pixels, got one of {axis.extent}"
        pixels = self.rows.size * self.columns.size
        padded = self.rows.padded_size * self.columns.padded_size
        if padded > max(MODEST, _MOST_PADDED * pixels):
            yield f"need windows near the image of {pixels} pixels, got {padded} with padding"

    def padded(self, images: tf.Tensor, value: Any = 0) -> tf.Tensor:
        """Return [N, H, W, C] with what the windows meet beyond the images; VALID from then on."""
        rows, columns = self.rows.padding, self.columns.padding
        if not any(rows + columns):
            return images
        paddings = [[0, 0], list(rows), list(columns), [0, 0]]
        return tf.pad(images, paddings, constant_values=tf.cast(value, images.dtype))

    def placed(self, images: tf.Tensor) -> tuple[tf.Tensor, str]:
        """Return images and the padding by which the public convolutions place these windows."""
        return (self.padded(images) if self.needs_zeros else images), self.placed_by

    @property
    def needs_zeros(self) -> bool:
        """Whether zeros are written out: above strides of 2 the ops place SAME elsewhere."""
        return self.rows.is_same and max(self.strides) > 2

    @property
    def placed_by(self) -> str:
        """The padding by which the public convolutions place these windows."""
        return "SAME" if self.rows.is_same and not self.needs_zeros else "VALID"

    def pooled(self, images: tf.Tensor, pooling: str, bounds: tuple[int, int]) -> tf.Tensor:
        """Pool stored images [N, H, W, C] and clamp the results."""
        minimum, maximum = bounds
        return ops.stored_pool(
            images,
            pooling=pooling,
            window=[self.rows.window, self.columns.window],
            strides=self.strides,
            padding="SAME" if self.rows.is_same else "VALID",
            minimum=minimum,
            maximum=maximum,
        )


def window_problems(node: Node, height: int, width: int) -> Iterator[str]:
    """Yield what is wrong with the options that place windows."""
    options = (
        *_checks.need_option(node, "padding", "SAME", "VALID"),
        *_checks.need_positive(
            node, "stride_h", "stride_w", "dilation_h_factor", "dilation_w_factor"
        ),
    )
    yield from options
    if not options:
        yield from Windows.of(node, height, width).problems()


def pool_problems(node: Node) -> Iterator[str]:
    """Yield what keeps a pool from being imported."""
    before = list(_checks.need_counts(node, (1,)))
    before = before or [
        *_checks.need_stored("the data", node.inputs[0], rank=4),
        *_checks.need_stored("the output", node.outputs[0]),
        *_checks.need_same_type(node, node.inputs[0], node.outputs[0]),
        *need_elements(node.inputs[0]),
        *_checks.need_positive(node, "filter_height", "filter_width"),
    ]
    if node.option("fused_activation_function", "NONE") not in FUSED:
        before += _checks.need_option(node, "fused_activation_function", *FUSED)
    yield from before
    if not before:
        yield from window_problems(node, node.option("filter_height"), node.option("filter_width"))
