# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Gradients of the three convolutions.

    convolution(input, filter) / s + elementwise, with the windows of rules G1 to G3

s is the shift's value, 1 where that is 0. Depthwise weights count as what the unit reads of them
where the input's gradient meets them; their own gradient passes through the correction. The stock
ops compute it, on the pixels that the windows reach over (windows.py).
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import tensorflow as tf

from bitfold.gradients.operands import Size, corrected, divided, require, sizes, unhidden, wants
from bitfold.gradients.windows import Axis, PhasedWindows, Windows


def _convolution(op: Any, gradient: tf.Tensor) -> list[tf.Tensor | None]:
    images, filter, elementwise, mult_shift = (unhidden(operand) for operand in op.inputs)
    for name in ("strides", "dilations"):
        steps = list(op.get_attr(name)[1:3])  # what goes backward is no stock convolution
        require(min(steps) >= 1, op, f"{name} of at least 1", steps)
    kind = _Ordinary
    if op.get_attr("is_depthwise"):
        kind = _FilterPerImage if filter.shape.rank == 5 else _Depthwise
    gradients = kind(op, images, filter, divided(gradient, mult_shift))
    return [
        gradients.of_images() if wants(op, 0) else None,
        gradients.of_filter() if wants(op, 1) else None,
        _of_elementwise(op, filter, elementwise, gradient) if wants(op, 2) else None,
        None,
    ]


for _name in ("HConv2d", "HConv2dDilation", "HDepthWise"):
    tf.RegisterGradient(_name)(_convolution)


def _of_elementwise(
    op: Any, filter: tf.Tensor, elementwise: tf.Tensor, gradient: tf.Tensor
) -> tf.Tensor | None:
    """Return the gradient of the addend, None where it is not added."""
    count, outputs = (x.shape.num_elements() for x in (elementwise, op.outputs[0]))
    if count == 0 or (None not in (count, outputs) and count != outputs):
        return None
    taps = _taps(filter)[0]
    if op.get_attr("dilations")[1] > 1 and not tf.is_tensor(taps) and taps % 2 == 0:
        return None  # no row of the filter lies in the middle
    return tf.reshape(gradient, tf.shape(elementwise))


def _taps(filter: tf.Tensor) -> list[Size]:
    """Return the taps of a filter along the height and the width."""
    return sizes(filter, 4)[-4:-2]


# ---- The kinds of convolutions -----------------------------------------------------------------


class _Ordinary:
    """The gradients of images and of a filter that spans all of their channels.

    Derived classes say which form the stock op wants, and what is to be done with what it gives.

    Args:
        op: a convolution.
        images: its input.
        filter: its filter.
        gradient: that of its sums of products.
    """

    strides_may_differ = True
    backprop_images: Callable[..., tf.Tensor] = tf.raw_ops.Conv2DBackpropInput
    backprop_filter: Callable[..., tf.Tensor] = tf.raw_ops.Conv2DBackpropFilter

    def __init__(self, op: Any, images: tf.Tensor, filter: tf.Tensor, gradient: tf.Tensor) -> None:
        """Place the windows."""
        self._op, self._images, self._filter, self._gradient = op, images, filter, gradient
        self.check()
        self._windows = self._placed_windows()

    def of_images(self) -> tf.Tensor:
        """Return the gradient of the images."""
        batch, _, _, channels = sizes(self.images(), 4)
        gradient = type(self).backprop_images(
            input_sizes=tf.stack(self._windows.shape(batch, channels)),
            filter=self.weights(),
            out_backprop=self._windows.outputs(self.gradient()),
            strides=self._windows.strides,
            padding="VALID",
        )
        return self.as_images(self._windows.images(gradient))

    def of_filter(self) -> tf.Tensor:
        """Return the gradient of the filter."""
        gradient = type(self).backprop_filter(
            input=self._windows.pixels(self.images()),
            filter_sizes=tf.stack(sizes(self.weights(), 4)),
            out_backprop=self._windows.outputs(self.gradient()),
            strides=self._windows.strides,
            padding="VALID",
        )
        return self.as_filter(gradient)

    def check(self) -> None:
        """Raise for operands without a gradient."""
        shape = self._filter.shape
        is_one = shape.rank in (None, 4) or (shape.rank == 5 and shape[0] in (None, 1))
        require(is_one, self._op, "one filter", shape)

    def images(self) -> tf.Tensor:
        """Return the images in the stock op's form, like the next two."""
        return self._images

    def weights(self) -> tf.Tensor:
        """Return the filter as the unit reads it."""
        if self._filter.shape.rank == 4:
            return self._filter
        return tf.reshape(self._filter, tf.shape(self._filter)[-4:])

    def gradient(self) -> tf.Tensor:
        """Return the gradient of the sums."""
        return self._gradient

    def as_images(self, gradient: tf.Tensor) -> tf.Tensor:
        """Return the gradient of the images in their own form, like the next one."""
        return gradient

    def as_filter(self, gradient: tf.Tensor) -> tf.Tensor:
        """Return the gradient of the filter."""
        if self._filter.shape.rank == 4:
            return gradient
        return tf.reshape(gradient, tf.shape(self._filter))

    def _placed_windows(self) -> Windows:
        attribute = self._op.get_attr
        inputs, outputs = sizes(self._images, 4)[1:3], sizes(self._gradient, 4)[1:3]
        shape = self._op.outputs[0].shape  # which a graph may know where the gradient's is not
        if shape.rank is not None:
            known = zip(shape[1:3], outputs, strict=True)
            outputs = [later if size is None else size for size, later in known]
        is_same = tf.compat.as_text(attribute("padding")) == "SAME"
        steps = zip(attribute("strides")[1:3], attribute("dilations")[1:3], strict=True)
        axes = zip(inputs, _taps(self._filter), outputs, steps, strict=True)
        rows, columns = (Axis(*counts, *apart, is_same) for *counts, apart in axes)
        is_direct = rows.dilation == columns.dilation == 1 and (
            rows.stride == columns.stride or self.strides_may_differ
        )
        return (Windows if is_direct else PhasedWindows)(rows, columns)


class _Depthwise(_Ordinary):
    """The gradients of images and of a filter for each of their first channels."""

    strides_may_differ = False
    backprop_images: Callable[..., tf.Tensor] = tf.raw_ops.DepthwiseConv2dNativeBackpropInput
    backprop_filter: Callable[..., tf.Tensor] = tf.raw_ops.DepthwiseConv2dNativeBackpropFilter

    def check(self) -> None:
        """Raise for operands without a gradient."""
        shape = self._filter.shape
        require(shape.rank in (4, 5), self._op, "a filter of a known rank, 4 or 5", shape)
        require(shape[-2] in (None, 1), self._op, "a filter of one input channel", shape)

    def images(self) -> tf.Tensor:
        """Return the channels that have a filter."""
        return self._images if self._has_all else self._images[..., : self._outputs]

    def weights(self) -> tf.Tensor:
        """Return the filter as the unit reads it."""
        taps = _taps(self._filter)
        return tf.reshape(self._read(), [*taps, self._outputs, 1])

    def as_images(self, gradient: tf.Tensor) -> tf.Tensor:
        """Return the gradient of the images in their own form, like the next one."""
        if self._has_all:
            return gradient
        others = sizes(self._images, 4)[3] - self._outputs
        return tf.pad(gradient, [[0, 0], [0, 0], [0, 0], [0, others]])

    def as_filter(self, gradient: tf.Tensor) -> tf.Tensor:
        """Return the gradient of the filter."""
        return tf.reshape(gradient, tf.shape(self._filter))

    @property
    def _outputs(self) -> Size:
        return sizes(self._filter, 5)[-1]

    @property
    def _has_all(self) -> bool:
        """Whether every channel is known to have a filter."""
        channels = self._images.shape[-1] if self._images.shape.rank else None
        return channels is not None and channels == self._filter.shape[-1]

    def _read(self) -> tf.Tensor:
        return corrected(self._filter, self._op.get_attr("accumulator_size"))


class _FilterPerImage(_Depthwise):
    """The same with filters for each image: images side by side are channels of one."""

    def images(self) -> tf.Tensor:
        """Return the channels that have a filter."""
        return _side_by_side(super().images())

    def weights(self) -> tf.Tensor:
        """Return the filters of the images as the unit reads them."""
        filters = _side_by_side(self._read()[: self._batch, :, :, 0])
        return tf.transpose(filters, [1, 2, 3, 0])

    def gradient(self) -> tf.Tensor:
        """Return the gradient of the sums."""
        return _side_by_side(super().gradient())

    def as_images(self, gradient: tf.Tensor) -> tf.Tensor:
        """Return the gradient of the images in their own form, like the next one."""
        return super().as_images(_one_by_one(gradient, self._batch))

    def as_filter(self, gradient: tf.Tensor) -> tf.Tensor:
        """Return the gradient of the filters, 0 for those of no image."""
        used = _one_by_one(tf.transpose(gradient, [3, 0, 1, 2]), self._batch)
        unused = sizes(self._filter, 5)[0] - self._batch
        return super().as_filter(tf.pad(used, [[0, unused], [0, 0], [0, 0], [0, 0]]))

    @property
    def _batch(self) -> Size:
        return sizes(self._images, 4)[0]


def _side_by_side(images: tf.Tensor) -> tf.Tensor:
    """Return [N, H, W, C] as [1, H, W, N * C]."""
    batch, height, width, channels = sizes(images, 4)
    return tf.reshape(tf.transpose(images, [1, 2, 0, 3]), [1, height, width, batch * channels])


def _one_by_one(images: tf.Tensor, batch: Size) -> tf.Tensor:
    """Return [1, H, W, N * C] as [N, H, W, C]."""
    _, height, width, channels = sizes(images, 4)
    apart = tf.reshape(images, [height, width, batch, channels // batch])
    return tf.transpose(apart, [2, 0, 1, 3])
