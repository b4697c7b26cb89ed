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


def halved_away(values: tf.Tensor, bits: int) -> tf.Tensor:
    """Divide by 2^bits, halves away from zero."""
    if not bits:
        return values
    return tf.sign(values) * _shifted(tf.abs(values) + (1 << (bits - 1)), bits)


def _shifted(values: tf.Tensor, bits: int) -> tf.Tensor:
    """Divide by 2^bits, towards minus infinity."""
    return tf.bitwise.right_shift(values, tf.constant(bits, values.dtype))
