# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The gradient of the activation unit: the slope of an element's piece, 0 where it is clipped.

    result = clip(slope * x, -clip_bits - 1, clip_bits) + offset

slope = slopes_m * 2^-(6 + the shift of rule P2), times 256 in the mode from 8 to 16 bits. The op
takes and gives integers, of which the runtime asks no gradient; `bitfold.ops.activation` attaches
this one to float data.
"""

from __future__ import annotations

from dataclasses import dataclass

import tensorflow as tf

# 2^-6 to 2^-69: six bits stay for the rounding, and the shift is one of 0 to 63.
_POWERS = [2.0**-count for count in range(6, 70)]


@dataclass(frozen=True)
class ActivationPieces:
    """The pieces of the unit, as the op takes them, and what of its attributes shows in a slope.

    Attributes:
        x_points: int64 [G, P], ascending.
        slopes_m: int64 [G, at least P + 1].
        slopes_e: int64 [G, at least P + 1].
        size_splits: int64 [G], how many channels each group has.
        ebias: added to every exponent.
        clip_bits: the largest result before the offset.
        is_8bit_to_16bit_mode: whether products are multiplied by 256.
    """

    x_points: tf.Tensor
    slopes_m: tf.Tensor
    slopes_e: tf.Tensor
    size_splits: tf.Tensor
    ebias: int
    clip_bits: int
    is_8bit_to_16bit_mode: bool

    def slopes(self, value: tf.Tensor) -> tf.Tensor:
        """Return the slope of the unit's function at each element.

        Args:
            value: float32 whole numbers [N, H, W, C], C the channels of all groups together.

        Returns:
            A float32 tensor of the shape of `value`.
        """
        shape = tf.shape(value)
        elements = self._by_row(value, shape)
        points = tf.cast(self._rows(self.x_points), tf.float32)
        pieces = tf.searchsorted(points, elements, side="right")
        slopes = tf.gather(self._rows(self._real_slopes()), pieces, batch_dims=1)
        products = slopes * elements
        is_inside = (products >= -self.clip_bits - 1.0) & (products <= float(self.clip_bits))
        slopes = tf.where(is_inside, slopes, 0.0)
        return tf.reshape(slopes if self._has_one_row else tf.transpose(slopes), shape)

    @property
    def _has_one_row(self) -> bool:
        """Whether one row of the tables is known to be that of all channels."""
        return self.x_points.shape[0] == 1

    def _by_row(self, value: tf.Tensor, shape: tf.Tensor) -> tf.Tensor:
        """Return the elements that share a row side by side."""
        if self._has_one_row:
            return tf.reshape(value, [1, -1])
        return tf.transpose(tf.reshape(value, [-1, shape[-1]]))

    def _rows(self, table: tf.Tensor) -> tf.Tensor:
        """Return the table's row of each channel, or the one of all."""
        return table if self._has_one_row else tf.repeat(table, self.size_splits, axis=0)

    def _real_slopes(self) -> tf.Tensor:
        """Return the slopes of the pieces."""
        shifts = (self.slopes_e + (self.ebias - 6)) % 64
        slopes = tf.cast(self.slopes_m, tf.float32) * tf.gather(_POWERS, shifts)
        return slopes * 256.0 if self.is_8bit_to_16bit_mode else slopes


def activated(value: tf.Tensor, result: tf.Tensor, pieces: ActivationPieces) -> tf.Tensor:
    """Return a result of the unit as float32, with the gradient of what it was computed from.

    Args:
        value: float32, whose whole numbers the unit took.
        result: int32, what it gave.
        pieces: its pieces.
    """

    @tf.custom_gradient
    def with_slopes(floats):
        return tf.cast(result, tf.float32), lambda upstream: upstream * pieces.slopes(floats)

    return with_slopes(value)


def whole(value: tf.Tensor) -> tf.Tensor:
    """Return floats as the unit takes them (rule I4): cut to whole numbers, -2^31 beyond int32."""
    fits = (value >= -(2.0**31)) & (value < 2.0**31)
    return tf.cast(tf.where(fits, value, -(2.0**31)), tf.int64)
