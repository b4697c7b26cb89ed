# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The products of a layer with weights: by the stock op, by the public ops, as a file has them."""

from __future__ import annotations

import abc
from typing import Any

import keras
import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.operators import Axis, Windows


class Product(abc.ABC):
    """What a layer adds up. Filters have the layout of the public ops, outputs last.

    Attributes:
        kind: of the operator in a model file.
        axis: the dimension of a file's filter that counts outputs.
        rounding: of the requantisation, as `bitfold.ops.requantise` calls it.
        is_depthwise: whether each channel is summed for itself.
    """

    kind: str
    axis = 0
    rounding = "two_roundings"
    is_depthwise = False

    def __init__(self, layer: keras.layers.Layer) -> None:
        """Take the Keras layer whose products these are."""
        self._layer = layer

    def filter(self, kernel: tf.Tensor) -> tf.Tensor:
        """Return a Keras kernel as a filter."""
        return kernel

    def build(self, shape: Any) -> None:
        """Build the Keras layer for data of a shape, unless it is built."""
        if not self._layer.built:
            self._layer.build(shape)

    @property
    def kernel(self) -> Any:
        """The variable."""
        return self._layer.kernel

    @property
    def bias(self) -> Any:
        """The variable, None where there is none."""
        return self._layer.bias

    def output_shape(self, shape: tuple) -> tuple:
        """Return the shape of the sums, for data of a shape."""
        return self._layer.compute_output_shape(shape)

    @abc.abstractmethod
    def stock(self, data: tf.Tensor, filter: tf.Tensor) -> tf.Tensor:
        """Sum in floats, by the stock op; it has a gradient."""

    @abc.abstractmethod
    def public(self, data: tf.Tensor, filter: tf.Tensor, **datapath: Any) -> tf.Tensor:
        """Sum in an accumulator, by a public op; data and filter are int32, or both float32."""

    @abc.abstractmethod
    def annotated(
        self, data: tf.Tensor, filter: np.ndarray, scales: np.ndarray, largest: np.ndarray
    ) -> tf.Tensor:
        """Sum in floats, with the nodes that tell a converter the filter's scales."""

    @abc.abstractmethod
    def stored(self, filter: np.ndarray) -> np.ndarray:
        """Return a filter in the layout of a model file."""


class _Windowed(Product):
    """Products of windows of an image."""

    @property
    def _padding(self) -> str:
        return self._layer.padding.upper()

    @property
    def _strides(self) -> tuple[int, int]:
        return tuple(self._layer.strides)

    @property
    def _dilations(self) -> tuple[int, int]:
        return tuple(self._layer.dilation_rate)

    def _windows(self, data: tf.Tensor, filter: tf.Tensor) -> Windows:
        """Return where the windows lie. Only where the image's size matters it must be known."""
        axes = [
            Axis(
                data.shape[i + 1] or 1,
                filter.shape[i],
                self._strides[i],
                self._dilations[i],
                self._padding == "SAME",
            )
            for i in range(2)
        ]
        windows = Windows(*axes)
        if windows.needs_zeros and None in data.shape[1:3]:
            raise ValueError(
                f"Need images of a known size for {self._layer.name!r} with strides "
                f"{self._strides}, got {data.shape}"
            )
        return windows

    def _annotated_filter(self, filter: np.ndarray, largest: np.ndarray) -> tf.Tensor:
        """Return a filter [height, width, inputs, outputs] with its nodes."""
        return tf.quantization.fake_quant_with_min_max_vars_per_channel(
            filter, -largest, largest, narrow_range=True
        )


class Convolution(_Windowed):
    """Those of CONV_2D; filters [height, width, inputs, outputs]."""

    kind = "CONV_2D"

    def stock(self, data: tf.Tensor, filter: tf.Tensor) -> tf.Tensor:
        """Sum in floats."""
        return tf.nn.conv2d(
            data,
            filter,
            self._strides,
            self._padding,
            dilations=self._dilations,
            name="convolution",
        )

    def public(self, data: tf.Tensor, filter: tf.Tensor, **datapath: Any) -> tf.Tensor:
        """Sum in an accumulator."""
        windows = self._windows(data, filter)
        data, padding = windows.placed(data)
        keywords = dict(strides=windows.strides, padding=padding, **datapath)
        if max(windows.dilations) > 1:
            return ops.dilated_conv2d(data, filter, dilations=windows.dilations, **keywords)
        return ops.conv2d(data, filter, **keywords)

    def annotated(
        self, data: tf.Tensor, filter: np.ndarray, scales: np.ndarray, largest: np.ndarray
    ) -> tf.Tensor:
        """Sum with nodes for a converter."""
        return self.stock(data, self._annotated_filter(filter * scales, largest))

    def stored(self, filter: np.ndarray) -> np.ndarray:
        """Return [outputs, height, width, inputs]."""
        return filter.transpose(3, 0, 1, 2)


class Depthwise(_Windowed):
    """Those of DEPTHWISE_CONV_2D; filters [height, width, 1, outputs]."""

    kind = "DEPTHWISE_CONV_2D"
    axis = 3
    is_depthwise = True

    def filter(self, kernel: tf.Tensor) -> tf.Tensor:
        """Put the filters of a channel side by side."""
        height, width, inputs, repeats = kernel.shape
        return tf.reshape(kernel, [height, width, 1, inputs * repeats])

    def _kernel(self, data: tf.Tensor, filter: tf.Tensor) -> tf.Tensor:
        height, width, *_, outputs = filter.shape
        inputs = data.shape[-1]
        return tf.reshape(filter, [height, width, inputs, outputs // inputs])

    def stock(self, data: tf.Tensor, filter: tf.Tensor) -> tf.Tensor:
        """Sum in floats."""
        return tf.nn.depthwise_conv2d(
            data,
            self._kernel(data, filter),
            [1, *self._strides, 1],
            self._padding,
            dilations=self._dilations,
            name="depthwise",
        )

    def public(self, data: tf.Tensor, filter: tf.Tensor, **datapath: Any) -> tf.Tensor:
        """Sum in an accumulator."""
        windows = self._windows(data, filter)
        repeats = filter.shape[3] // data.shape[3]
        data, padding = windows.placed(tf.repeat(data, repeats, axis=3) if repeats > 1 else data)
        return ops.depthwise_conv2d(
            data,
            filter,
            strides=windows.strides,
            dilations=windows.dilations,
            padding=padding,
            **datapath,
        )

    def annotated(
        self, data: tf.Tensor, filter: np.ndarray, scales: np.ndarray, largest: np.ndarray
    ) -> tf.Tensor:
        """Sum with nodes for a converter, whose channels are the filter's last dimension."""
        together = self._annotated_filter((filter * scales)[:, :, 0], largest)
        # A dilation is to remain one, and no rearrangement of the image.
        return tf.raw_ops.DepthwiseConv2dNative(
            input=data,
            filter=self._kernel(data, together),
            strides=[1, *self._strides, 1],
            padding=self._padding,
            dilations=[1, *self._dilations, 1],
            name="depthwise",
        )

    def stored(self, filter: np.ndarray) -> np.ndarray:
        """Return [1, height, width, outputs]."""
        return filter.transpose(2, 0, 1, 3)


class Dense(Product):
    """Those of FULLY_CONNECTED; filters [1, 1, inputs, outputs]."""

    kind = "FULLY_CONNECTED"
    rounding = "one_rounding"

    def filter(self, kernel: tf.Tensor) -> tf.Tensor:
        """Return the matrix as the filter of one pixel."""
        return kernel[None, None]

    def stock(self, data: tf.Tensor, filter: tf.Tensor) -> tf.Tensor:
        """Sum in floats."""
        return tf.matmul(data, filter[0, 0], name="MatMul")

    def public(self, data: tf.Tensor, filter: tf.Tensor, **datapath: Any) -> tf.Tensor:
        """Sum in an accumulator."""
        return ops.conv2d(data[:, None, None], filter, padding="VALID", **datapath)[:, 0, 0]

    def annotated(
        self, data: tf.Tensor, filter: np.ndarray, scales: np.ndarray, largest: np.ndarray
    ) -> tf.Tensor:
        """Sum without nodes: the converter refuses them for matrices.

        It finds the scales itself where a number of each output is the largest that there is.
        """
        return self.stock(data, tf.constant(filter * scales))

    def stored(self, filter: np.ndarray) -> np.ndarray:
        """Return [outputs, inputs]."""
        return filter[0, 0].T


class SeparableDepthwise(Depthwise):
    """The first products of a separable convolution."""

    @property
    def kernel(self) -> Any:
        """The variable."""
        return self._layer.depthwise_kernel

    @property
    def bias(self) -> None:
        """There is none."""
        return None

    def output_shape(self, shape: tuple) -> tuple:
        """Return the shape of the sums, for data of a shape."""
        *images, _ = self._layer.compute_output_shape(shape)
        return (*images, shape[-1] * self._layer.depth_multiplier)


class SeparablePointwise(Convolution):
    """The second products of a separable convolution."""

    _padding = "VALID"
    _strides = (1, 1)
    _dilations = (1, 1)

    @property
    def kernel(self) -> Any:
        """The variable."""
        return self._layer.pointwise_kernel

    def output_shape(self, shape: tuple) -> tuple:
        """Return the shape of the sums, for data of a shape."""
        return (*shape[:-1], self._layer.filters)


PRODUCTS: dict[type[keras.layers.Layer], type[Product]] = {
    keras.layers.Conv2D: Convolution,
    keras.layers.DepthwiseConv2D: Depthwise,
    keras.layers.Dense: Dense,
}
SEPARABLE = keras.layers.SeparableConv2D
# The parts of a separable convolution, by the names of their layers.
PARTS: dict[str, type[Product]] = {
    "depthwise": SeparableDepthwise,
    "pointwise": SeparablePointwise,
}
