# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SOFTMAX over the last dimension.

With d = stored - the greatest stored of the row:

int8. e^(beta * scale * d) in fixed point is an entry of a table of 256; below a d it counts as 0,
as it would be below e^-31. Exponentials are added with 19 fraction bits; 1 / sum is a number in
(1/2, 1], by Newton's steps, and a power of two. The output is exponential * that number, rounded
halves up, / the power, rounded, halves away from zero, plus the least stored output.

int16. e^(beta * scale * d), 0 at -10, is drawn by 512 straight lines; so is 1 / (1 + x), the other
factor of the output, for a sum of 2^k (1 + x). The product is shifted right by the bits of the
sum, less one, halves up.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node, Tensor
from bitfold.network.operators import _checks
from bitfold.network.operators._exponentials import (
    divided,
    exponentials,
    interpolated,
    product,
    reciprocals,
)
from bitfold.network.operators._fixed_point import mantissa_and_exponent
from bitfold.network.operators._scaling import need_multiplier
from bitfold.network.operators._step import Step

# Of the exponentials' argument in int8: 5 integer bits.
_INTEGER_BITS = 5
_FRACTION_BITS = 31 - _INTEGER_BITS
# The integer bits of a sum of exponentials, and how many of these it so has room for.
_SUM_BITS = 12
_MOST = {"int8": 2**_SUM_BITS - 1, "int16": 2**16 - 1}
# What the runtime has as outputs: scale, within a thousandth, and zero point.
_OUTPUTS = {"int8": (2.0**-8, -128), "int16": (2.0**-15, 0)}


class Softmax(Step):
    """SOFTMAX of stored integers."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        before = list(_checks.need_counts(node, (1,)))
        before = before or [
            *_checks.need_stored("the data", node.inputs[0]),
            *_checks.need_stored("the output", node.outputs[0]),
        ]
        yield from before
        if before:
            return
        data, output = node.inputs[0], node.outputs[0]
        if data.dtype == np.int16 or output.dtype == np.int8:
            yield from _checks.need_same_type(node, data, output)
            yield from _output_problems(output)
        most = _MOST[data.dtype.name]
        if not data.shape or not 1 <= data.shape[-1] <= most:
            yield f"need 1 to {most} elements in the last dimension, got {data}"
        beta = node.option("beta", 0.0)
        if not (0 < beta < np.inf):
            yield f"need beta above 0, got {beta}"
        elif data.dtype == np.int16:
            yield from need_multiplier("beta * scale * 6553.5", _rescale(data.scale, beta))
        elif beta * data.scale * 2.0**_FRACTION_BITS <= 1:
            yield f"need beta * scale above 2^-26, got {beta} * {data.scale:.9g}"

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Make the tables."""
        super().__init__(node, arithmetic)
        data, output = node.inputs[0], node.outputs[0]
        beta = float(node.option("beta"))
        self._is_wide = data.dtype == np.int16
        if self._is_wide:
            self._exponentials = _curve(data.scale, beta)
            self._reciprocals = interpolated(lambda x: 1 / (1 + x), 0.0, 1.0)
        else:
            self._exponentials = _table(data.scale, beta)
            self._parts = divided(self._exponentials, _SUM_BITS).astype(np.int32)
        self._bits = 8 * output.dtype.itemsize
        self._least = int(np.iinfo(output.dtype).min)

    @property
    def stacks(self) -> bool:
        """Whether the last dimension is not that of the images."""
        return len(self.node.inputs[0].shape) > 1

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Compute every row."""
        data = tf.cast(inputs[0], tf.int32)
        below = tf.reduce_max(data, axis=-1, keepdims=True) - data
        return [self._wide(below) if self._is_wide else self._narrow(below)]

    def _narrow(self, below: tf.Tensor) -> tf.Tensor:
        total = tf.reduce_sum(tf.gather(self._parts, below), axis=-1, keepdims=True)
        total = tf.cast(total, tf.int64)
        bits = _bits(total)
        # The sum in [1, 2) without its leading bit, with 31 fraction bits.
        factor = reciprocals(tf.bitwise.left_shift(total, 32 - bits) - 2**31)
        scaled = product(tf.gather(self._exponentials, below), factor)
        # The sum's integer bits, and those of the exponential that the output lacks.
        shift = bits - (32 - _SUM_BITS) + 31 - self._bits
        half = tf.bitwise.left_shift(tf.ones_like(shift), shift - 1)
        stored = tf.bitwise.right_shift(scaled + half, shift) + self._least
        greatest = self._least + 2**self._bits - 1
        return tf.cast(tf.minimum(stored, greatest), self.node.outputs[0].dtype)

    def _wide(self, below: tf.Tensor) -> tf.Tensor:
        parts = tf.cast(tf.gather(self._exponentials, below), tf.int64)
        total = tf.reduce_sum(parts, axis=-1, keepdims=True)
        bits = _bits(total)
        # The sum in [1, 2] with 16 fraction bits; beyond 65535 / 65536 the line ends.
        fraction = tf.bitwise.left_shift(total, 31 - bits) + (1 << 13)
        fraction = tf.bitwise.right_shift(fraction, tf.constant(14, tf.int64)) - 2**16
        factor = tf.gather(self._reciprocals, tf.minimum(fraction, 2**16 - 1))
        half = tf.bitwise.left_shift(tf.ones_like(bits), bits - 2)
        stored = tf.bitwise.right_shift(parts * factor + half, bits - 1)
        return tf.cast(tf.minimum(stored, 2**15 - 1), tf.int16)


def _output_problems(output: Tensor) -> Iterator[str]:
    scale, zero_point = _OUTPUTS[output.dtype.name]
    if abs(output.scale - scale) > scale / 1000 or output.zero_point != zero_point:
        yield (
            f"need the output's scale {scale:.9g} and zero point {zero_point}, got "
            f"{output.scale:.9g} and {output.zero_point}"
        )


def _table(scale: float, beta: float) -> np.ndarray:
    """Return e^(-beta * scale * d) of d = 0 to 255, without integer bits."""
    multiplier = min(beta * scale * 2.0**_FRACTION_BITS, 2.0**31 - 1)
    mantissa, exponent = mantissa_and_exponent(multiplier)
    distance = np.arange(256)
    # Beyond it the argument has no 5 integer bits.
    radius = (2**_INTEGER_BITS - 1) * 2**_FRACTION_BITS >> exponent
    argument = product(-np.minimum(distance, radius) << exponent, mantissa)
    return np.where(distance <= radius, exponentials(argument), 0)


def _curve(scale: float, beta: float) -> np.ndarray:
    """Return e^(-beta * scale * d) of d = 0 to 65535, with 15 fraction bits."""
    mantissa, exponent = mantissa_and_exponent(_rescale(scale, beta))
    distance = -np.arange(2**16) << max(exponent, 0)
    place = divided(
        product(distance.astype(np.int32).astype(np.int64), mantissa), max(-exponent, 0)
    )
    # The curve's least input is -10, its greatest 0.
    curve = interpolated(np.exp, -10.0, 0.0)
    return curve[np.clip(place + 2**16 - 1, 0, 2**16 - 1)].astype(np.int32)


def _rescale(scale: float, beta: float) -> float:
    """Return the steps of the curve that a stored step is, of the product in single precision."""
    with np.errstate(over="ignore"):
        return float(np.float32(scale) * np.float32(beta)) / (10.0 / 65535.0)


def _bits(values: tf.Tensor) -> tf.Tensor:
    """Return how many bits whole numbers above 0 have, int64: from the exponent of a double."""
    double = tf.bitcast(tf.cast(values, tf.float64), tf.int64)
    return tf.bitwise.right_shift(double, tf.constant(52, tf.int64)) - 1022
