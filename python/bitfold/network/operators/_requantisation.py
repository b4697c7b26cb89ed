# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""From a layer's sums to its stored output: multipliers, fused activations, the two ways."""

from __future__ import annotations

from typing import Any

import numpy as np
import tensorflow as tf

from bitfold import ops, tables
from bitfold._frame.multipliers import require_multipliers
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Tensor

FUSED = ("NONE", "RELU", "RELU6", "RELU_N1_TO_1")
_BOUNDS = {"NONE": (None, None), "RELU": (0, None), "RELU6": (0, 6), "RELU_N1_TO_1": (-1, 1)}


def stored_range(dtype: np.dtype) -> tuple[int, int]:
    """Return the least and the greatest stored integer of a type."""
    limits = np.iinfo(dtype)
    return int(limits.min), int(limits.max)


def activation_range(output: Tensor, fused: str) -> tuple[int, int]:
    """Return the bounds that an output is clamped to: its type's, narrowed by an activation.

    A bound is the zero point plus bound / scale, a quotient in single precision, halves away from
    zero.
    """
    minimum, maximum = stored_range(output.dtype)
    low, high = _BOUNDS[fused]
    if low is not None:
        minimum = max(minimum, _stored(low, output))
    if high is not None:
        maximum = min(maximum, _stored(high, output))
    return minimum, maximum


def _stored(real: float, output: Tensor) -> int:
    """Return where a real number lies among the stored integers, whatever their range."""
    quotient = float(np.float32(real) / np.float32(output.scale))
    # Finite scales can give infinite quotients. What lies beyond 32 bits bounds nothing.
    quotient = min(max(quotient, -(2.0**31)), 2.0**31)
    return output.zero_point + int(np.trunc(quotient + np.copysign(0.5, quotient)))


def multipliers(data: Tensor, filter: Tensor, output: Tensor) -> np.ndarray:
    """Return input scale x filter scale / output scale, for each channel or one for all.

    In double precision, of the single-precision numbers. 0 for dead channels, whose filters have a
    scale of 0 or an infinite one.
    """
    filters = filter.quantisation.scales.astype(np.float64)
    filters = np.where(np.isfinite(filters), filters, 0)
    return np.float64(data.scale) * filters / np.float64(output.scale)


class Requantiser:
    """Maps a layer's sums to its stored output, as the layer's arithmetic says.

    By the model's rule, or by the activation unit: the tables of `bitfold.tables.requantise`, a
    group for each channel, with the fused activation in the pieces.
    """

    def __init__(
        self,
        output: Tensor,
        real_multipliers: np.ndarray,
        fused: str,
        arithmetic: Arithmetic,
        rounding: str,
    ) -> None:
        """Make it.

        Args:
            output: what is stored.
            real_multipliers: one for each channel, or one for all.
            fused: the activation that follows.
            arithmetic: the layer's.
            rounding: of the model's rule, a name of `bitfold.ops.requantise`.
        """
        real_multipliers = np.atleast_1d(real_multipliers)
        self._output = output
        self._multipliers = real_multipliers
        self._bounds = activation_range(output, fused)
        self._shift = arithmetic.mult_shift
        self._rounding = rounding
        self._table = None
        if arithmetic.requantisation == "unit":
            self._table = tables.requantise(
                np.ldexp(real_multipliers, self._shift),
                zero_point=output.zero_point,
                output_range=self._bounds,
            )
        else:
            require_multipliers(real_multipliers, rounding, self._shift)

    def __call__(self, sums: tf.Tensor) -> tf.Tensor:
        """Requantise sums of any rank, channels last; floats hold whole numbers."""
        if sums.dtype == tf.float32:
            sums = tf.cast(sums, tf.int32)
        return self._by_model(sums) if self._table is None else self._by_unit(sums)

    @property
    def keywords(self) -> dict[str, Any]:
        """What an op is told that requantises by the model's rule, but for the shift."""
        minimum, maximum = self._bounds
        return dict(
            multipliers=self._multipliers,
            rounding=self._rounding,
            zero_point=self._output.zero_point,
            minimum=minimum,
            maximum=maximum,
            dtype=tf.as_dtype(self._output.dtype),
        )

    def _by_model(self, sums: tf.Tensor) -> tf.Tensor:
        return ops.requantise(sums, shift=self._shift, **self.keywords)

    def _by_unit(self, sums: tf.Tensor) -> tf.Tensor:
        keywords = self._table.keywords
        channels = self._multipliers.size
        if channels == 1:
            del keywords["size_splits"]  # one group of all channels, however many
        pixels = tf.reshape(sums, [1, 1, -1, channels])
        stored = tf.cast(ops.activation(pixels, **keywords), self._output.dtype)
        return tf.reshape(stored, tf.shape(sums))
