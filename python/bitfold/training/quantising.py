# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Scales and integers of a network in training, by the rules of the runtime's converter.

A tensor's grid is float32 [2]: its scale and its zero point. Between layers run centred integers:
stored integers of int8 less their zero point, whole numbers in float32. A centred integer c stands
for scale * c.

Roundings pass gradients straight through. What must come out the same in every graph is computed
in double precision: a graph's optimiser may reorder products.
"""

from __future__ import annotations

from typing import Any

import tensorflow as tf

# The stored integers of data.
LEAST, GREATEST = -128, 127
# Filters are symmetric.
LARGEST_WEIGHT = 127
# A narrower range would have a scale that says nothing.
_NARROWEST = 2.0**-20
# The largest magnitude of a stored bias.
_LARGEST_BIAS = 2.0**31 - 1


@tf.custom_gradient
def rounded(x: tf.Tensor) -> Any:
    """Round to whole numbers, halves to even; the gradient passes straight through."""
    return tf.round(x), lambda upstream: upstream


@tf.custom_gradient
def truncated(x: tf.Tensor) -> Any:
    """Round towards zero; the gradient passes straight through."""
    return tf.sign(x) * tf.floor(tf.abs(x)), lambda upstream: upstream


@tf.custom_gradient
def replaced(x: tf.Tensor, value: tf.Tensor) -> Any:
    """Return a value in place of x, whose gradient x gets."""
    return tf.identity(value), lambda upstream: (upstream, None)


def ends(low: tf.Tensor, high: tf.Tensor) -> tuple[tf.Tensor, tf.Tensor]:
    """Return a range, float32, as it is quantised: with 0 in it, and not empty."""
    low, high = tf.minimum(low, 0.0), tf.maximum(high, 0.0)
    return low, tf.maximum(high, low + _NARROWEST)


def grid_of(low: tf.Tensor, high: tf.Tensor) -> tf.Tensor:
    """Return the grid of a range.

    The scale is a 255th of the range; the zero point is the stored integer next to 0, halves up.

    Args:
        low: float32, at most 0.
        high: float32, at least 0 and above `low`.
    """
    low, high = tf.cast(low, tf.float64), tf.cast(high, tf.float64)
    scale = (high - low) / (GREATEST - LEAST)
    zero_point = tf.floor(0.5 - low / scale) + LEAST
    return tf.cast(tf.stack([scale, zero_point]), tf.float32)


def bounds(grid: tf.Tensor) -> tuple[tf.Tensor, tf.Tensor]:
    """Return the least and the greatest centred integer of a grid."""
    return LEAST - grid[1], GREATEST - grid[1]


def whole(values: tf.Tensor, grid: tf.Tensor) -> tf.Tensor:
    """Return the whole numbers next to value / scale, halves away from zero; not clamped."""
    quotients = values / grid[0]
    found = tf.sign(quotients) * tf.floor(tf.abs(quotients) + 0.5)
    # The sum with a half may round to the next whole number.
    return tf.where(tf.abs(found - quotients) > 0.5, found - tf.sign(quotients), found)


def real(centred: tf.Tensor, grid: tf.Tensor) -> tf.Tensor:
    """Return the real numbers of centred integers."""
    return tf.math.multiply_no_nan(centred, grid[0])


def filter_scales(largest: tf.Tensor) -> tf.Tensor:
    """Return the scales of filters whose largest magnitudes stand for 127, float32."""
    return tf.cast(tf.cast(largest, tf.float64) / LARGEST_WEIGHT, tf.float32)


def integer_filter(filter: tf.Tensor, scales: tf.Tensor, rounding: Any = rounded) -> tf.Tensor:
    """Return the whole numbers of a filter, float32 [..., outputs].

    Args:
        filter: float64 [..., outputs].
        scales: float32 [outputs].
        rounding: `rounded` or `truncated`.
    """
    quotients = filter / tf.cast(scales, tf.float64)
    whole = tf.clip_by_value(rounding(quotients), -LARGEST_WEIGHT, LARGEST_WEIGHT)
    return tf.cast(whole, tf.float32)


def integer_bias(bias: tf.Tensor, units: tf.Tensor, rounding: Any = rounded) -> tf.Tensor:
    """Return the whole numbers of a bias, float64 [outputs].

    Args:
        bias: float64 [outputs].
        units: float64 [outputs], data scale * filter scale.
        rounding: `rounded` or `truncated`.
    """
    return tf.clip_by_value(rounding(bias / units), -_LARGEST_BIAS, _LARGEST_BIAS)
