# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Between real numbers and integers: where data comes in, around layers in floats, at the end."""

from __future__ import annotations

from typing import Any

import keras
import tensorflow as tf

from bitfold.training import quantising
from bitfold.training.clamping import Term, clamped
from bitfold.training.flow import Flow, current
from bitfold.training.layers import Emulated, Ranged


@keras.saving.register_keras_serializable("bitfold")
class Quantised(Ranged):
    """Stores real numbers."""

    def call(self, values: tf.Tensor, training: bool = False) -> Any:
        """Quantise a batch."""
        if current() is not Flow.INTEGERS:
            return self.in_floats(values)
        grid = self.range.grid()
        if training:
            self.range.average(tf.reduce_min(values), tf.reduce_max(values))
        centred = clamped(
            tf.stop_gradient(quantising.whole(values, grid)),
            [Term(values, 1.0 / grid[0])],
            quantising.bounds(grid),
            log_scale=self.log_scale,
        )
        return self.result(centred, grid)

    def compute_output_spec(self, values: Any, training: bool = False) -> Any:
        """Return what a call gives, symbolically."""
        return self.spec(values.shape)


@keras.saving.register_keras_serializable("bitfold")
class Dequantised(Emulated):
    """The real numbers that integers stand for."""

    def __init__(self, **kwargs: Any) -> None:
        """Take the keywords of every Keras layer."""
        super().__init__(**{**kwargs, "gives_real": True})

    def call(self, values: tf.Tensor, grid: tf.Tensor) -> tf.Tensor:
        """Dequantise a batch."""
        return quantising.real(values, grid) if current() is Flow.INTEGERS else values

    def compute_output_spec(self, values: Any, grid: Any) -> Any:
        """Return what a call gives, symbolically."""
        return self.spec(values.shape)
