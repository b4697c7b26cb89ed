# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Where the windows of a convolution lie in its images, for gradients of stock convolutions.

The kernels place windows by rules G1 to G3, which is not where the stock padding puts them. So the
stock ops are given windows that fit: images with the zeros around them that the windows reach over,
without the pixels that none does.
"""

from __future__ import annotations

import functools
from dataclasses import dataclass

import tensorflow as tf

from bitfold.gradients.operands import Size, choose, sizes


@dataclass(frozen=True)
class Axis:
    """The windows of one axis, strides and dilations being positive.

    Attributes:
        input: the pixels of the image.
        taps: the taps of the filter.
        outputs: the windows.
        stride: the distance of windows.
        dilation: the distance of taps.
        is_same: whether the padding is SAME.
    """

    input: Size
    taps: Size
    outputs: Size
    stride: int
    dilation: int
    is_same: bool

    @functools.cached_property
    def window(self) -> Size:
        """How far a window reaches (G1)."""
        return (self.taps - 1) * self.dilation + 1

    @functools.cached_property
    def before(self) -> Size:
        """How far the first window begins before the image (G3)."""
        if not self.is_same:
            return 0
        pad = (self.outputs - 1) * self.stride - self.input + self.window
        centred = ((pad % 2 < 1) & (self.window % 2 > 0)) | (pad < 0)
        return choose(centred, self.window // 2, pad // 2)

    @functools.cached_property
    def reach(self) -> Size:
        """How far all windows reach, from the start of the first; of none, what holds none."""
        several = (self.outputs - 1) * self.stride + self.window
        return choose(self.outputs > 0, several, self.window - 1)

    @functools.cached_property
    def met(self) -> Size:
        """How many pixels of the image lie before the end of the last window."""
        inside = self.reach - self.before
        return choose(inside < self.input, inside, self.input)

    @functools.cached_property
    def after(self) -> Size:
        """How far the last window ends behind the image."""
        return self.reach - self.before - self.met


class Windows:
    """The windows of images, as a stock convolution of VALID padding forms them.

    Args:
        rows: the windows along the height.
        columns: the windows along the width.
    """

    def __init__(self, rows: Axis, columns: Axis) -> None:
        """Take the axes."""
        self._axes = rows, columns

    @property
    def strides(self) -> list[int]:
        """The stock op's strides."""
        return [1, *(axis.stride for axis in self._axes), 1]

    def shape(self, batch: Size, channels: Size) -> list[Size]:
        """Return the shape of the pixels."""
        return [batch, *(axis.reach for axis in self._axes), channels]

    def pixels(self, images: tf.Tensor) -> tf.Tensor:
        """Return the pixels that the windows of images reach over."""
        if not all(map(_is_all, self._axes)):
            rows, columns = self._axes
            images = images[:, : rows.met, : columns.met]
        pads = [[axis.before, axis.after] for axis in self._axes]
        return _padded(images, pads)

    def images(self, gradient: tf.Tensor) -> tf.Tensor:
        """Return the gradient of images, given that of their pixels."""
        ranges = [slice(axis.before, axis.before + axis.met) for axis in self._axes]
        gradient = gradient[:, ranges[0], ranges[1]]
        if all(map(_is_all, self._axes)):
            return gradient
        return _padded(gradient, [[0, axis.input - axis.met] for axis in self._axes])

    def outputs(self, gradient: tf.Tensor) -> tf.Tensor:
        """Return the gradient of the stock op's windows, given that of the op's outputs."""
        return gradient


class PhasedWindows(Windows):
    """The same for stock ops that do not stride or dilate as the op does.

    There is a window at every pixel; those between the op's own have a gradient of 0. The pixels
    that lie a dilation apart, which a window meets together, are an image of their own.
    """

    @property
    def strides(self) -> list[int]:
        """The stock op's strides."""
        return [1, 1, 1, 1]

    def shape(self, batch: Size, channels: Size) -> list[Size]:
        """Return the shape of the pixels."""
        dilations = self._dilations
        whole = zip(self._axes, self._missing, dilations, strict=True)
        sizes = [(axis.reach + missing) // dilation for axis, missing, dilation in whole]
        return [batch * dilations[0] * dilations[1], *sizes, channels]

    def pixels(self, images: tf.Tensor) -> tf.Tensor:
        """Return the pixels that the windows of images reach over."""
        return self._phases(super().pixels(images))

    def images(self, gradient: tf.Tensor) -> tf.Tensor:
        """Return the gradient of images, given that of their pixels."""
        ends = [[0, missing] for missing in self._missing]
        return super().images(tf.batch_to_space(gradient, self._dilations, ends))

    def outputs(self, gradient: tf.Tensor) -> tf.Tensor:
        """Return the gradient of the stock op's windows, given that of the op's outputs."""
        batch, *_, channels = sizes(gradient, 4)
        rows, columns = self._axes
        apart = [[0, 0], [0, 0], [0, rows.stride - 1], [0, 0], [0, columns.stride - 1], [0, 0]]
        placed = [batch, rows.outputs, 1, columns.outputs, 1, channels]
        spread = tf.pad(tf.reshape(gradient, placed), apart)
        whole = [batch, rows.outputs * rows.stride, columns.outputs * columns.stride, channels]
        windows = [axis.reach - axis.window + 1 for axis in self._axes]
        return self._phases(tf.reshape(spread, whole)[:, : windows[0], : windows[1]])

    def _phases(self, pixels: tf.Tensor) -> tf.Tensor:
        """Return the phases of pixels as images, with zeros where one has fewer than others."""
        return tf.space_to_batch(pixels, self._dilations, [[0, n] for n in self._missing])

    @property
    def _dilations(self) -> list[int]:
        return [axis.dilation for axis in self._axes]

    @property
    def _missing(self) -> list[Size]:
        """How many pixels are missing for phases of one size."""
        return [-axis.reach % axis.dilation for axis in self._axes]


def _is_all(axis: Axis) -> bool:
    """Answer whether windows are known to reach to the end of the image, or beyond."""
    met = axis.met
    return not tf.is_tensor(met) and not tf.is_tensor(axis.input) and met == axis.input


def _padded(images: tf.Tensor, pads: list[list[Size]]) -> tf.Tensor:
    """Return images with zeros before and behind their rows and their columns."""
    if all(not tf.is_tensor(count) and count == 0 for pad in pads for count in pad):
        return images
    return tf.pad(images, [[0, 0], *pads, [0, 0]])
