# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The integer arithmetic of the runtime's reference kernels that no op of ours computes."""

from __future__ import annotations

import tensorflow as tf

from bitfold._frame.multipliers import quantise_multipliers


def mantissa_and_exponent(multiplier: float) -> tuple[int, int]:
    """Return a multiplier of at least 0 in fixed point, as whole numbers without a limit."""
    mantissa, exponent = quantise_multipliers(multiplier)
    return int(mantissa), int(exponent)


def two_roundings(sums: tf.Tensor, mantissa: int, exponent: int) -> tf.Tensor:
    """Return sums, int64 that hold 32 bits, times mantissa / 2^31 * 2^exponent, as int64.

    The mantissa need not have all its 31 bits. The product is rounded half up, then divided by
    2^-exponent, halves away from zero. Requires 0 <= mantissa < 2^31, -31 <= exponent <= 30, and
    shifted sums that fit 32 bits.
    """
    high = _shifted(sums * (1 << max(exponent, 0)) * mantissa + (1 << 30), 31)
    return halved_away(high, max(-exponent, 0))


def halved_away(values: tf.Tensor, bits: int) -> tf.Tensor:
    """Divide by 2^bits, halves away from zero."""
    if not bits:
        return values
    return tf.sign(values) * _shifted(tf.abs(values) + (1 << (bits - 1)), bits)


def quotient_away(values: tf.Tensor, divisor: tf.Tensor | int) -> tf.Tensor:
    """Divide by a number above 0, halves away from zero."""
    half = divisor // 2
    return tf.sign(values) * ((tf.abs(values) + half) // divisor)


def _shifted(values: tf.Tensor, bits: int) -> tf.Tensor:
    """Divide by 2^bits, towards minus infinity."""
    return tf.bitwise.right_shift(values, tf.constant(bits, values.dtype))
