# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Two operands in one scale: both in fractions of twice the larger scale, with bits to spare.

Operand i is (stored - zero point) * 2^spare times scale / (2 * the larger scale), in two roundings.
The larger scale's multiplier is 1/2, which rounds nothing.
"""

from __future__ import annotations

from collections.abc import Iterator, Sequence

import tensorflow as tf

from bitfold import ops
from bitfold.network.graph import Tensor


def twice_larger_scale(operands: Sequence[Tensor]) -> float:
    """Return the unit of scaled operands, but for the spare bits."""
    return 2.0 * max(operand.scale for operand in operands)


def need_fraction(what: str, multiplier: float) -> Iterator[str]:
    """Yield unless a multiplier is above 0 and below 1, also when rounded to 31 bits."""
    if not 0 < multiplier < 1 - 2.0**-32:
        yield f"need {what} above 0 and below 1, got {multiplier:.9g}"


def need_multiplier(what: str, multiplier: float) -> Iterator[str]:
    """Yield unless a multiplier is one that sums can be multiplied by in two roundings."""
    if not 0 <= multiplier < 2.0**31:
        yield f"need {what} of at least 0 and below 2^31, got {multiplier:.9g}"


def scale_problems(operands: Sequence[Tensor]) -> Iterator[str]:
    """Yield where an operand is too small beside the other to have a multiplier."""
    for operand in operands:
        multiplier = operand.scale / twice_larger_scale(operands)
        yield from need_fraction("scale / (2 * the larger scale of the operands)", multiplier)


class CommonScale:
    """Maps an operand's stored elements to int32 in the scale of both."""

    def __init__(self, operands: Sequence[Tensor], spare: int) -> None:
        """Take the two operands and the number of spare bits."""
        unit = twice_larger_scale(operands)
        self._multipliers = [operand.scale / unit for operand in operands]
        self._zero_points = [operand.zero_point for operand in operands]
        self._spare = spare

    def __call__(self, i: int, stored: tf.Tensor) -> tf.Tensor:
        """Scale the i-th operand."""
        centred = tf.cast(stored, tf.int32) - self._zero_points[i]
        multiplier = self._multipliers[i]
        if multiplier == 0.5:
            return centred * (1 << (self._spare - 1))
        # The op takes no scalar.
        sums = tf.reshape(centred, [-1]) if centred.shape.rank == 0 else centred
        scaled = ops.requantise(
            sums * (1 << self._spare), [multiplier], rounding="two_roundings", dtype=tf.int32
        )
        return tf.reshape(scaled, []) if centred.shape.rank == 0 else scaled
