# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Layers of float32, between DEQUANTIZE and QUANTIZE, by TensorFlow's ops.

Convolutions, dense layers, products of matrices, pools, reductions, and functions of the last
dimension. The last bits are those of the ops, not of the runtime's kernels.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators import _checks
from bitfold.network.operators._requantisation import FUSED
from bitfold.network.operators._step import Step
from bitfold.network.operators._windows import Windows, window_problems
from bitfold.network.operators.floats import activated

_NORM_EPSILON = 1e-6
_FLOAT = ("float32",)


class FloatStep(Step):
    """An operator of float32 whose output passes a fused activation."""

    is_float = True
    stacks = True
    counts: tuple[int, ...] = (1,)
    # The positions of inputs that are constants of int32, not float32.
    integers: tuple[int, ...] = ()
    fuses = False

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, cls.counts))
        before = before or list(cls._type_problems(node))
        if not before and cls.fuses and node.option("fused_activation_function"):
            before = list(_checks.need_option(node, "fused_activation_function", *FUSED))
        yield from before or cls.own_problems(node)

    @classmethod
    def _type_problems(cls, node: Node) -> Iterator[str]:
        for i, tensor in enumerate(node.inputs):
            if i in cls.integers:
                yield from _checks.need_constant("the axes", tensor, ("int32",))
            elif tensor is not None and tensor.is_constant and tensor.dtype == np.int8:
                yield (
                    f"need weights of float32 beside data in floats, got {tensor}: the file has a "
                    "dynamic range; quantise the data, too, with representative images"
                )
            elif tensor is not None:
                yield from _checks.need_type("every input", tensor, _FLOAT)
        yield from _checks.need_type("the output", node.outputs[0], _FLOAT)

    @classmethod
    def own_problems(cls, node: Node) -> Iterator[str]:
        """Yield what else an operator needs, once numbers and types are right."""
        yield from ()

    def compute(self, *inputs: tf.Tensor | None) -> tf.Tensor:
        """Return the output before the fused activation."""
        raise NotImplementedError

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Compute the output."""
        fused = self.node.option("fused_activation_function") if self.fuses else None
        return [activated(self.compute(*inputs), fused or "NONE")]


class FloatConvolution(FloatStep):
    """CONV_2D. The filter is [outputs, height, width, inputs]."""

    counts = (2, 3)
    fuses = True

    @classmethod
    def own_problems(cls, node: Node) -> Iterator[str]:
        """Yield what is wrong with the filter and the windows."""
        data, filter = node.inputs[:2]
        ranks = [
            *_checks.need_type("the data", data, _FLOAT, 4),
            *_checks.need_constant("the filter", filter, _FLOAT, 4),
        ]
        yield from ranks
        if ranks:
            return
        if min(filter.shape) < 1 or not cls.fits(data.shape[3], filter.shape):
            yield f"need a filter for {data.shape[3]} channels, got {filter}"
        else:
            yield from window_problems(node, *filter.shape[1:3])

    @staticmethod
    def fits(channels: int, filter: tuple[int, ...]) -> bool:
        """Return whether a filter is one for so many channels."""
        return filter[3] == channels

    def compute(
        self, data: tf.Tensor, filter: tf.Tensor, bias: tf.Tensor | None = None
    ) -> tf.Tensor:
        """Convolve, and add the bias."""
        windows = Windows.of(self.node, *self.node.inputs[1].shape[1:3])
        result = self.convolve(windows.padded(data), filter, windows)
        return result if bias is None else result + bias

    def convolve(self, data: tf.Tensor, filter: tf.Tensor, windows: Windows) -> tf.Tensor:
        """Return the products of padded data."""
        filter = tf.transpose(filter, [1, 2, 3, 0])
        return tf.nn.conv2d(data, filter, windows.strides, "VALID", dilations=windows.dilations)


class FloatDepthwise(FloatConvolution):
    """DEPTHWISE_CONV_2D. The filter is [1, height, width, outputs]."""

    @staticmethod
    def fits(channels: int, filter: tuple[int, ...]) -> bool:
        """Return whether a filter has outputs for each channel."""
        return filter[0] == 1 and channels > 0 and filter[3] % channels == 0

    def convolve(self, data: tf.Tensor, filter: tf.Tensor, windows: Windows) -> tf.Tensor:
        """Return the products of padded data."""
        channels = self.node.inputs[0].shape[3]
        filter = tf.reshape(filter, [*filter.shape[1:3], channels, filter.shape[3] // channels])
        rows, columns = windows.strides
        # The op has neither two strides nor strides between dilated taps.
        stride = rows if rows == columns and max(windows.dilations) == 1 else 1
        result = tf.nn.depthwise_conv2d(
            data, filter, [1, stride, stride, 1], "VALID", dilations=windows.dilations
        )
        return result if stride == rows == columns else result[:, ::rows, ::columns]


class FloatFullyConnected(FloatStep):
    """FULLY_CONNECTED. The filter is [outputs, inputs]."""

    counts = (2, 3)
    fuses = True

    @classmethod
    def own_problems(cls, node: Node) -> Iterator[str]:
        """Yield what is wrong with the filter."""
        data, filter = node.inputs[:2]
        before = [
            *_checks.need_constant("the filter", filter, _FLOAT, 2),
            *_checks.need_option(node, "weights_format", "DEFAULT", None),
        ]
        yield from before
        if before:
            return
        inputs = filter.shape[1]
        if inputs < 1 or int(np.prod(data.shape)) % inputs:
            yield f"need a filter for {data}, got {filter}"
        elif node.option("keep_num_dims") and data.shape[-1:] != (inputs,):
            yield f"need {inputs} inputs in the last dimension, got {data}"

    def compute(
        self, data: tf.Tensor, filter: tf.Tensor, bias: tf.Tensor | None = None
    ) -> tf.Tensor:
        """Multiply, and add the bias."""
        result = tf.matmul(tf.reshape(data, [-1, filter.shape[1]]), filter, transpose_b=True)
        result = result if bias is None else result + bias
        if not self.node.option("keep_num_dims"):
            return result
        return tf.reshape(result, [-1, *self.node.inputs[0].shape[1:-1], filter.shape[0]])


class FloatMatrixProduct(FloatStep):
    """BATCH_MATMUL."""

    counts = (2,)

    @property
    def stacks(self) -> bool:
        """Whether images are a dimension of their own in both operands, or rows of the first."""
        first, second = self.node.inputs
        if second.is_constant:
            return len(first.shape) > max(len(second.shape), 2)
        shapes = first.shape, second.shape
        same = len(shapes[0]) == len(shapes[1]) > 2 and shapes[0][0] == shapes[1][0]
        return same and not first.is_constant

    def compute(self, first: tf.Tensor, second: tf.Tensor) -> tf.Tensor:
        """Multiply matrices."""
        return tf.matmul(
            first,
            second,
            transpose_a=bool(self.node.option("adj_x")),
            transpose_b=bool(self.node.option("adj_y")),
        )


class FloatPool(FloatStep):
    """AVERAGE_POOL_2D, over the pixels of a window that lie in the image, and MAX_POOL_2D."""

    fuses = True

    @classmethod
    def own_problems(cls, node: Node) -> Iterator[str]:
        """Yield what is wrong with the windows."""
        before = [
            *_checks.need_type("the data", node.inputs[0], _FLOAT, 4),
            *_checks.need_positive(node, "filter_height", "filter_width"),
        ]
        size = node.option("filter_height"), node.option("filter_width")
        yield from before or window_problems(node, *size)

    def compute(self, data: tf.Tensor) -> tf.Tensor:
        """Pool."""
        option = self.node.option
        pool = tf.nn.max_pool2d if self.node.kind == "MAX_POOL_2D" else tf.nn.avg_pool2d
        size = [option("filter_height"), option("filter_width")]
        return pool(data, size, [option("stride_h"), option("stride_w")], option("padding"))


_REDUCTIONS: dict[str, Callable] = {
    "MEAN": tf.reduce_mean,
    "REDUCE_MAX": tf.reduce_max,
    "REDUCE_MIN": tf.reduce_min,
    "REDUCE_PROD": tf.reduce_prod,
    "SUM": tf.reduce_sum,
}


class FloatReduction(FloatStep):
    """MEAN, SUM and their like."""

    counts = (2,)
    integers = (1,)

    @classmethod
    def own_problems(cls, node: Node) -> Iterator[str]:
        """Yield where an axis is none of the data's."""
        rank, axes = len(node.inputs[0].shape), node.constant(1).reshape(-1)
        if ((axes < -rank) | (axes >= rank)).any():
            yield f"need axes of {node.inputs[0]}, got {axes.tolist()}"

    @property
    def _axes(self) -> list[int]:
        rank = len(self.node.inputs[0].shape)
        return sorted({int(axis) % rank for axis in self.node.constant(1).reshape(-1)})

    @property
    def stacks(self) -> bool:
        """Whether the first dimension stays."""
        return 0 not in self._axes

    def compute(self, data: tf.Tensor, axes: tf.Tensor) -> tf.Tensor:
        """Reduce."""
        keep = bool(self.node.option("keep_dims"))
        return _REDUCTIONS[self.node.kind](data, axis=self._axes, keepdims=keep)


class FloatOfLastDimension(FloatStep):
    """SOFTMAX, LOG_SOFTMAX and L2_NORMALIZATION."""

    fuses = True

    @property
    def stacks(self) -> bool:
        """Whether the last dimension is not that of the images."""
        return len(self.node.inputs[0].shape) > 1

    def compute(self, data: tf.Tensor) -> tf.Tensor:
        """Compute every vector."""
        if self.node.kind == "SOFTMAX":
            return tf.nn.softmax(data * np.float32(self.node.option("beta", 1.0)))
        if self.node.kind == "LOG_SOFTMAX":
            return tf.nn.log_softmax(data)
        return data / tf.maximum(tf.norm(data, axis=-1, keepdims=True), _NORM_EPSILON)


LAYERS: dict[str, type[Step]] = {
    "AVERAGE_POOL_2D": FloatPool,
    "BATCH_MATMUL": FloatMatrixProduct,
    "CONV_2D": FloatConvolution,
    "DEPTHWISE_CONV_2D": FloatDepthwise,
    "FULLY_CONNECTED": FloatFullyConnected,
    "L2_NORMALIZATION": FloatOfLastDimension,
    "LOG_SOFTMAX": FloatOfLastDimension,
    "MAX_POOL_2D": FloatPool,
    "SOFTMAX": FloatOfLastDimension,
    **dict.fromkeys(_REDUCTIONS, FloatReduction),
}
