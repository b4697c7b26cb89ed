# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The gradient of the layer normalisation unit: that of its rules L1 to L7 on real numbers.

    d = x - zero_point              S = the sum of d, 0 in RMS mode     m = S / 2^s
    mean = m * mult / 2^shift       V = x_squared_mult * sum(d^2) / 2^squares + epsilon - m^2
    result = clip(gain * (d - mean) / sqrt(V) + bias / T, 0, the largest result)

gain = F * 2^exponent_sub_value * man / 2^(exp + 6 or 11) / T, T = 1024 or, of 16 bits, 8. The
table holds F / sqrt(u) for u in [1/4, 1), so F is the mean over its intervals of what it has in the
middle times sqrt(u), as a whole number, since entries are. Beyond the limits of the result the
gradient is 0; the unit's other widths, which its tables keep from being met, are passed straight
through.
"""

from __future__ import annotations

from typing import Any

import tensorflow as tf

from bitfold.gradients.operands import first, require

# Fields of the unit and their bits, in the order of the op's scalar inputs. Three flags follow.
_FIELDS = {
    "zero_point": 16,
    "exponent_sub_value": 8,
    "sum_of_x_mult": 16,
    "sum_of_x_shift": 8,
    "sum_of_x_mult_n_shift": 8,
    "x_squared_mult": 16,
    "sum_of_x_squares_shift": 8,
    "epsilon": 32,
    "mul_act_man": 16,
    "mul_act_exp": 8,
    "mul_act_bias": 32,
}


@tf.RegisterGradient("HLayernorm")
def _layer_norm(op: Any, gradient: tf.Tensor) -> list[tf.Tensor | None]:
    value, *scalars, lut = op.inputs
    require(value.shape.rank in (None, 4), op, "a value of rank 4", value.shape)
    unit = Unit(scalars, lut)
    # In double precision: the variance is the difference of two numbers that may be far larger.
    distances = tf.cast(value, tf.float64) - unit.zero_point
    total = tf.reduce_sum(distances, -1, keepdims=True)
    rounded = total * unit.sum_scale
    squares = tf.reduce_sum(distances * distances, -1, keepdims=True) * unit.square_scale
    variance = squares + unit.epsilon - rounded * rounded
    slope = unit.gain / tf.sqrt(variance)
    centred = distances - total * unit.mean_scale
    results = slope * centred + unit.bias
    is_inside = (results >= 0) & (results <= unit.largest)
    upstream = tf.cast(tf.where(is_inside, gradient, 0.0), tf.float64)
    # An element raises its own result, lowers all by the mean, and all by the root.
    by_mean = tf.reduce_sum(upstream, -1, keepdims=True) * unit.mean_scale
    by_root = tf.reduce_sum(upstream * centred, -1, keepdims=True) / variance
    falls = distances * unit.square_scale - rounded * unit.sum_scale
    result = slope * (upstream - by_mean - by_root * falls)
    return [tf.cast(result, tf.float32), *[None] * 15]


class Unit:
    """The numbers of the unit as real ones, float64 scalars.

    Args:
        scalars: the op's scalar inputs, in their order.
        lut: the table.

    Attributes:
        zero_point: what is subtracted from elements.
        sum_scale: what their sum is multiplied by for the variance.
        mean_scale: what their sum is multiplied by for the mean.
        square_scale: what the sum of their squares is multiplied by.
        epsilon: what is added to the variance.
        gain: what an element is multiplied by, divided by the variance's root.
        bias: what is added to it.
        largest: the largest result.
    """

    def __init__(self, scalars: list[tf.Tensor], lut: tf.Tensor) -> None:
        """Read the fields as the unit does: in single precision, as many bits as they have."""
        numbers = [tf.cast(tf.cast(first(scalar), tf.float32), tf.int64) for scalar in scalars]
        fields = zip(_FIELDS.items(), numbers, strict=False)
        field = {name: tf.cast(n % 2**bits, tf.float64) for (name, bits), n in fields}
        is_rms, has_more, is_wide = (n != 0 for n in numbers[len(_FIELDS) :])
        sums = _either(is_rms, 0.0, 1.0)
        step = _either(is_wide, 8.0, 1024.0)
        more = _either(has_more, 11.0, 6.0)
        self.zero_point = field["zero_point"]
        self.sum_scale = sums * _power(-field["sum_of_x_shift"])
        mean = field["sum_of_x_mult"] * _power(-field["sum_of_x_mult_n_shift"])
        self.mean_scale = self.sum_scale * mean
        self.square_scale = field["x_squared_mult"] * _power(-field["sum_of_x_squares_shift"])
        self.epsilon = field["epsilon"]
        exponent = field["exponent_sub_value"] - field["mul_act_exp"] - more
        self.gain = table_factor(lut) * field["mul_act_man"] * _power(exponent) / step
        self.bias = field["mul_act_bias"] / step
        self.largest = _either(is_wide, 32767.0, 255.0)


def table_factor(lut: tf.Tensor) -> tf.Tensor:
    """Return F of a table that holds F / sqrt(u), a whole float64 scalar.

    Args:
        lut: float32 [256], as the op takes it; the entries from 64 on are in use.
    """
    entries = tf.cast(tf.reshape(lut, [-1])[64:], tf.int64)
    middle = (
        tf.cast(entries % 2**16, tf.float64) - tf.cast(entries // 2**16 % 2**8, tf.float64) * 127.5
    )
    roots = tf.sqrt((tf.range(64, 256, dtype=tf.float64) + 0.5) / 256)
    return tf.round(tf.reduce_mean(middle * roots))


def _either(flag: tf.Tensor, first: float, second: float) -> tf.Tensor:
    """Return the first number where a flag is set."""
    return tf.where(flag, tf.constant(first, tf.float64), tf.constant(second, tf.float64))


def _power(exponent: tf.Tensor) -> tf.Tensor:
    """Return 2^exponent of a whole number."""
    return tf.pow(tf.constant(2.0, tf.float64), exponent)
