# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The gradient of the softmax unit: that of steps * softmax(scale * x), both numbers of the table.

scale is the real value of one step of the input. The exponentials are E * exp(-k * scale), rounded,
so each says between which two numbers the scale lies; it is taken from the middle of what they all
leave. steps is how many steps of the result make 1: (E + 1) * r / 2^16, r being the reciprocal that
the table has for a sum of E, the least there is.
"""

from __future__ import annotations

from typing import Any

import tensorflow as tf

from bitfold.gradients.operands import sizes

_ROWS = 256


@tf.RegisterGradient("HSoftmax")
def _softmax(op: Any, gradient: tf.Tensor) -> list[tf.Tensor | None]:
    value, lut_table = op.inputs
    scale, steps = (tf.cast(x, tf.float32) for x in scale_and_steps(lut_table))
    vectors = _vectors(value)
    probabilities = tf.nn.softmax(scale * tf.reshape(value, vectors))
    upstream = steps * tf.reshape(gradient, vectors)
    mean = tf.reduce_sum(upstream * probabilities, -1, keepdims=True)
    result = scale * ((upstream - mean) * probabilities)
    return [tf.reshape(result, tf.shape(value)), None]


def scale_and_steps(lut_table: tf.Tensor) -> tuple[tf.Tensor, tf.Tensor]:
    """Return the real value of a step of the input, and how many steps of the result make 1.

    Args:
        lut_table: uint32 [512], as the op takes it.

    Returns:
        Two float64 scalars, the first 0 for a table whose largest exponential is 0.
    """
    low, high = tf.unstack(tf.cast(tf.reshape(lut_table, [_ROWS, 2]), tf.int64), axis=1)
    exponentials = low % 2**16
    sums = low // 2**16 + high % 2**8 * 2**16
    reciprocals = high // 2**8 % 2**8
    largest = exponentials[0]
    row = tf.minimum(tf.reduce_sum(tf.cast(sums > largest, tf.int32)), _ROWS - 1)
    steps = tf.cast((largest + 1) * reciprocals[row], tf.float64) / 2**16
    return _scale(tf.cast(exponentials, tf.float64)), steps


def _scale(exponentials: tf.Tensor) -> tf.Tensor:
    """Return the middle of the scales that have these exponentials."""
    largest, others = exponentials[0], exponentials[1:]
    distances = tf.range(1, _ROWS, dtype=tf.float64)
    least = tf.reduce_max(tf.math.log(largest / (others + 0.5)) / distances)
    # A rounded 0 may be anything below a half, so it bounds the scale from below only.
    bounds = tf.math.log(largest / tf.maximum(others - 0.5, 0.0)) / distances
    greatest = tf.reduce_min(bounds)
    middle = tf.where(tf.math.is_finite(greatest), (least + greatest) / 2, least)
    return tf.where(largest > 0, middle, tf.zeros_like(middle))


def _vectors(value: tf.Tensor) -> list[Any]:
    """Return the shape [vectors, elements of one]: dimension 0 counts them, without one it is 1."""
    if value.shape.rank is None:
        count = tf.where(tf.rank(value) > 1, tf.shape(value)[0], 1)
    else:
        count = sizes(value, value.shape.rank)[0] if value.shape.rank > 1 else 1
    return [count, tf.size(value) // tf.maximum(count, 1)]
