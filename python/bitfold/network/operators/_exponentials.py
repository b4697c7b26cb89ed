# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Exponentials and reciprocals in fixed point, as the runtime's reference kernels compute them.

A fixed-point number of i integer bits is an int32 x that stands for x / 2^(31 - i). The arrays and
tensors here are of int64 and hold 32 bits, so that products are exact.
"""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
import tensorflow as tf

_ONE = 2**31 - 1  # the largest number without integer bits
_QUARTER = 1 << 24  # with 5 integer bits
# The constants without integer bits, rounded: e^(-1/8), 1/3, and e^(-2^k) for k = -2 to 4.
_EXP_EIGHTH = 1895147668
_THIRD = 715827883
_EXP_POWERS = (1672461947, 1302514674, 790015084, 290630308, 39332535, 720401, 242)
# With 2 integer bits: 48 / 17 and -32 / 17.
_RECIPROCAL_START = 1515870810
_RECIPROCAL_SLOPE = -1010580540
# Segments of the curves of int16 kernels.
_SEGMENTS = 512


def product(a: Any, b: Any) -> Any:
    """Return the high half of the doubled product, halves up; arrays, or tensors of int64."""
    doubled = a * b + (1 << 30)
    if tf.is_tensor(doubled):
        return tf.bitwise.right_shift(doubled, tf.constant(31, tf.int64))
    return doubled >> 31


def divided(x: np.ndarray, bits: int) -> np.ndarray:
    """Return x / 2^bits, halves away from zero."""
    return np.sign(x) * ((np.abs(x) + ((1 << bits) >> 1)) >> bits)


def exponentials(x: np.ndarray) -> np.ndarray:
    """Return e^x without integer bits, of x <= 0 with 5 integer bits.

    A polynomial around -1/8 serves [-1/4, 0); what is below is a product with powers of e.
    """
    rest = (x & (_QUARTER - 1)) - _QUARTER
    result = _exponentials_of_a_quarter(rest << 5)
    bits = rest - x
    for k, factor in enumerate(_EXP_POWERS):
        result = np.where(bits & (_QUARTER << k), product(result, factor), result)
    return np.where(x == 0, _ONE, result)


def _exponentials_of_a_quarter(a: np.ndarray) -> np.ndarray:
    """Return e^a of a in [-1/4, 0), both without integer bits: e^(-1/8) times a Taylor series."""
    x = a + (1 << 28)
    x2 = product(x, x)
    x3, x4 = product(x2, x), product(x2, x2)
    tail = divided(product(divided(x4, 2) + x3, _THIRD) + x2, 1)
    return _EXP_EIGHTH + product(x + tail, _EXP_EIGHTH)


def reciprocals(a: tf.Tensor) -> tf.Tensor:
    """Return 1 / (1 + a) of a in [0, 1), both without integer bits, by three of Newton's steps."""
    half = (a + _ONE + 1) // 2
    x = _RECIPROCAL_START + product(half, _RECIPROCAL_SLOPE)
    for _ in range(3):
        x = x + product(x, (1 << 29) - product(half, x)) * 4
    return tf.minimum(x * 2, _ONE)


def interpolated(
    function: Callable[[np.ndarray], np.ndarray], low: float, high: float
) -> np.ndarray:
    """Return a curve over the 65,536 int16 inputs, the least first, as int16 kernels draw it.

    Input -32768 + 65535 * t stands for low + (high - low) * t, an output y for 32768 * y. 513
    points are joined by straight lines; half of a line's error at its middle is taken off.
    """
    points = _points(function, low, high)
    value = np.arange(-(2**15), 2**15)
    place, offset = (value >> 7) + 256, value & 127
    return points[place] + (((points[place + 1] - points[place]) * offset + 64) >> 7)


def _points(function: Callable[[np.ndarray], np.ndarray], low: float, high: float) -> np.ndarray:
    step = (high - low) / _SEGMENTS
    start = low + np.arange(_SEGMENTS) * step
    first = _rounded(function(start) * 2.0**15)
    chord = _rounded((function(start + step) * 2.0**15 + first) / 2)
    curve = _rounded(function(start + step / 2) * 2.0**15)
    points = [*(first - _rounded((chord - curve) / 2)), _rounded(function(high) * 2.0**15)]
    return np.clip(points, -(2**15), 2**15 - 1).astype(np.int64)


def _rounded(x: np.ndarray) -> np.ndarray:
    """Return whole numbers, halves away from zero."""
    return np.trunc(x + np.copysign(0.5, x))
