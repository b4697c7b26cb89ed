# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The range of a tensor: calibrated, then averaged, learned or fixed."""

from __future__ import annotations

from typing import Any

import keras
import tensorflow as tf

from bitfold.training import quantising

RANGES = ("averaged", "learned", "fixed")
# What a range holds before it has seen anything.
_NOTHING = 0.0


@keras.saving.register_keras_serializable("bitfold")
class Range(keras.layers.Layer):
    """The least and the greatest real number that a tensor is stored for.

    "averaged": in training a moving average of the extremes of batches. "learned": both ends are
    multiplied by a number that is trained, by its logarithm. "fixed": as calibrated.
    """

    def __init__(self, ranges: str = "averaged", momentum: float = 0.99, **kwargs: Any) -> None:
        """Take how the range is found, and how much of the old one a step of averaging keeps."""
        kwargs.setdefault("dtype", "float32")
        super().__init__(**kwargs)
        if ranges not in RANGES:
            raise ValueError(f"Need ranges of {', '.join(RANGES)}, got {ranges!r}")
        if not 0 <= momentum <= 1:
            raise ValueError(f"Need a momentum from 0 to 1, got {momentum!r}")
        self.ranges = ranges
        self.momentum = momentum
        self.low = self._number("low", _NOTHING)
        self.high = self._number("high", _NOTHING)
        self.log_scale = self._number("log_scale", 0.0) if ranges == "learned" else None
        self._is_given = False
        self.built = True

    def _number(self, name: str, value: float) -> Any:
        return self.add_weight(
            name=name,
            shape=(),
            initializer=keras.initializers.Constant(value),
            trainable=name == "log_scale",
        )

    def grid(self) -> tf.Tensor:
        """Return the grid."""
        return quantising.grid_of(*self.ends())

    def ends(self) -> tuple[tf.Tensor, tf.Tensor]:
        """Return the least and the greatest real number."""
        low, high = tf.convert_to_tensor(self.low), tf.convert_to_tensor(self.high)
        if self.log_scale is not None:
            factor = tf.exp(tf.stop_gradient(tf.convert_to_tensor(self.log_scale)))
            low, high = low * factor, high * factor
        return quantising.ends(low, high)

    def widen(self, values: tf.Tensor) -> None:
        """Let the range hold real numbers."""
        if self._is_given:
            return
        self.low.assign(tf.minimum(self.low, tf.reduce_min(values)))
        self.high.assign(tf.maximum(self.high, tf.reduce_max(values)))

    def average(self, low: tf.Tensor, high: tf.Tensor) -> None:
        """Move the range towards the extremes of a batch, where it is averaged."""
        if self.ranges != "averaged" or not self.trainable:
            return
        kept = self.momentum
        self.low.assign(kept * self.low + (1 - kept) * tf.minimum(low, 0.0))
        self.high.assign(kept * self.high + (1 - kept) * tf.maximum(high, 0.0))

    def give(self, low: float, high: float) -> None:
        """Set a range that nothing changes."""
        self.low.assign(low)
        self.high.assign(high)
        self._is_given = True

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        return {**super().get_config(), "ranges": self.ranges, "momentum": self.momentum}
