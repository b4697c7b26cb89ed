# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The mean of stored integers as the runtime's reference kernel takes it, of scales that train.

`bitfold.ops.stored_mean` takes scales as numbers; here they are tensors.
"""

from __future__ import annotations

import tensorflow as tf

_MANTISSA_BITS = 52
_EXPONENT_BIAS = 1022
_LOWEST_EXPONENT = -31


def mean_in_two_roundings(sums: tf.Tensor, ratio: tf.Tensor, count: tf.Tensor) -> tf.Tensor:
    """Return means in the scale of the output.

    Args:
        sums: whole numbers, float32, of `count` centred integers each.
        ratio: data scale / output scale, a float64 number above 0.
        count: int32, at least 1.

    Returns:
        Whole numbers, float32.
    """
    mantissa, exponent = _fixed(ratio)
    count = tf.cast(count, tf.int64)
    # As many bits as the number has, of which the mantissa loses at most one.
    spare = _bit_length(count) - 1
    spare = tf.minimum(spare, exponent - _LOWEST_EXPONENT)
    mantissa = tf.bitwise.left_shift(mantissa, spare) // count
    exponent = exponent - spare
    zero = tf.zeros([], tf.int64)
    scaled = tf.bitwise.left_shift(tf.cast(sums, tf.int64), tf.maximum(exponent, zero))
    high = tf.bitwise.right_shift(scaled * mantissa + (1 << 30), tf.constant(31, tf.int64))
    return tf.cast(_halved_away(high, tf.maximum(-exponent, zero)), tf.float32)


def _fixed(real: tf.Tensor) -> tuple[tf.Tensor, tf.Tensor]:
    """Return mantissa and exponent of a number above 0, int64: m / 2^31 * 2^e, halves up."""
    bits = tf.bitcast(real, tf.int64)
    fraction = tf.bitwise.bitwise_and(bits, tf.constant((1 << _MANTISSA_BITS) - 1, tf.int64))
    fraction = fraction + (1 << _MANTISSA_BITS)
    exponent = tf.bitwise.right_shift(bits, tf.constant(_MANTISSA_BITS, tf.int64)) - _EXPONENT_BIAS
    spare = _MANTISSA_BITS + 1 - 31
    mantissa = tf.bitwise.right_shift(fraction + (1 << (spare - 1)), tf.constant(spare, tf.int64))
    carries = mantissa == 1 << 31
    mantissa = tf.where(carries, tf.constant(1 << 30, tf.int64), mantissa)
    return mantissa, exponent + tf.cast(carries, tf.int64)


def _bit_length(count: tf.Tensor) -> tf.Tensor:
    """Return the bits of a number of at least 1, below 2^31."""
    powers = tf.constant([1 << bit for bit in range(31)], tf.int64)
    return tf.reduce_sum(tf.cast(powers <= count, tf.int64))


def _halved_away(values: tf.Tensor, bits: tf.Tensor) -> tf.Tensor:
    """Divide by 2^bits, halves away from zero."""
    half = tf.bitwise.left_shift(tf.ones([], tf.int64), bits) // 2
    return tf.sign(values) * tf.bitwise.right_shift(tf.abs(values) + half, bits)
