# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""QUANTIZE and DEQUANTIZE: between real numbers and stored integers, or of other scales.

From real to stored: value / scale in single precision, rounded, halves away from zero, plus the
zero point, within the stored type. What lies beyond it, infinities too, is its end; NaN stands for
no number and is stored as the zero point. (The runtime leaves both undefined.)

From stored to real: scale * (stored - zero point), rounded once to single precision. Constants may
have a scale for each channel, or be half-precision numbers, which are widened.

From stored to stored: the stored integer less its zero point, requantised in two roundings by
scale / the output's scale.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node, Tensor
from bitfold.network.operators import _checks
from bitfold.network.operators._scaling import need_multiplier
from bitfold.network.operators._step import Step

STORED_OR_UNSIGNED = (*_checks.STORED, "uint8")


def quantise(values: tf.Tensor, tensor: Tensor) -> tf.Tensor:
    """Return the stored integers of float32 values, in a tensor's type, scale and zero point."""
    return ops.stored_quantise(
        values,
        output_scale=tensor.scale,
        output_zero_point=tensor.zero_point,
        dtype=tf.as_dtype(tensor.dtype),
    )


def dequantise(stored: tf.Tensor, tensor: Tensor) -> tf.Tensor:
    """Return the float32 values of a tensor's stored integers."""
    scales, zero_points = _parameters(tensor)
    centred = tf.cast(tf.cast(stored, tf.int32) - zero_points, tf.float32)
    # When a graph is optimised, factors of plain products are gathered into one.
    return tf.math.multiply_no_nan(centred, scales)


def _parameters(tensor: Tensor) -> tuple[np.ndarray, np.ndarray]:
    """Return scales and zero points in the shape in which they meet the elements."""
    scales = tensor.quantisation.scales.astype(np.float32)
    zero_points = tensor.quantisation.zero_points.astype(np.int32)
    if scales.size == 1:
        return scales.reshape(()), zero_points.reshape(())
    shape = [1] * len(tensor.shape)
    shape[tensor.quantisation.axis] = scales.size
    return scales.reshape(shape), zero_points.reshape(shape)


class Quantise(Step):
    """QUANTIZE of float32."""

    stacks = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (1,)))
        yield from before
        if not before:
            yield from _checks.need_type("the data", node.inputs[0], ("float32",))
            yield from _checks.need_stored("the output", node.outputs[0], STORED_OR_UNSIGNED)

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Quantise."""
        return [quantise(inputs[0], self.node.outputs[0])]


class Rescale(Step):
    """QUANTIZE of stored integers."""

    stacks = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (1,)))
        before = before or [
            *_checks.need_stored("the data", node.inputs[0], STORED_OR_UNSIGNED),
            *_checks.need_stored("the output", node.outputs[0], STORED_OR_UNSIGNED),
        ]
        yield from before
        if before:
            return
        types = tuple(tensor.dtype.name for tensor in (node.inputs[0], node.outputs[0]))
        if types in (("int8", "int16"), ("uint8", "int16"), ("int16", "uint8")):
            yield f"need 8 bits to 8, or int16 to int8 or int16, got {' to '.join(types)}"
        yield from need_multiplier("scale / the output's scale", _ratio(node))

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Make the multiplier, and the table for bytes."""
        super().__init__(node, arithmetic)
        limits = np.iinfo(node.outputs[0].dtype)
        self._bounds = int(limits.min), int(limits.max)
        self._ratio = [_ratio(node)]
        self._table = None
        if node.inputs[0].dtype.itemsize == 1:
            ends = np.iinfo(node.inputs[0].dtype)
            with tf.init_scope():
                self._table = self._rescaled(tf.range(ends.min, ends.max + 1)).numpy()

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Requantise; bytes by a table of all results."""
        if self._table is not None:
            return [ops.stored_lookup(inputs[0], self._table)]
        return [self._rescaled(tf.cast(inputs[0], tf.int32))]

    def _rescaled(self, stored: tf.Tensor) -> tf.Tensor:
        """Requantise stored integers, given as int32."""
        data, output = self.node.inputs[0], self.node.outputs[0]
        minimum, maximum = self._bounds
        is_signed = output.dtype != np.uint8
        rescaled = ops.requantise(
            stored - data.zero_point,
            self._ratio,
            rounding="two_roundings",
            zero_point=output.zero_point,
            minimum=minimum,
            maximum=maximum,
            dtype=tf.as_dtype(output.dtype) if is_signed else tf.int16,
        )
        return rescaled if is_signed else tf.cast(rescaled, tf.uint8)


def _ratio(node: Node) -> float:
    return node.inputs[0].scale / node.outputs[0].scale


class Dequantise(Step):
    """DEQUANTIZE."""

    stacks = True

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (1,)))
        yield from before
        if before:
            return
        data = node.inputs[0]
        yield from _checks.need_type("the output", node.outputs[0], ("float32",))
        if data.dtype == np.float16:
            return
        types = list(_checks.need_type("the data", data, STORED_OR_UNSIGNED))
        yield from types
        if types:
            return
        if data.is_constant and data.is_quantised:
            yield from _channel_problems(data)
        else:
            yield from _checks.need_stored("the data", data, STORED_OR_UNSIGNED)

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Return real numbers."""
        data = self.node.inputs[0]
        if data.dtype == np.float16:
            return [tf.cast(inputs[0], tf.float32)]
        return [dequantise(inputs[0], data)]


def _channel_problems(data: Tensor) -> Iterator[str]:
    scales, axis = data.quantisation.scales.size, data.quantisation.axis
    if scales != 1 and (not 0 <= axis < len(data.shape) or data.shape[axis] != scales):
        yield f"need one scale, or one for each of a dimension, got {scales} for {data}"
