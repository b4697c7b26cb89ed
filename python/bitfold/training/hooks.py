# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What can be plugged into the layers of a model in training: rules for filters, penalties.

Both get records of tensors, with batch normalisation folded into filter and bias, while the model
is called. Gradients flow through them to the variables.
"""

from __future__ import annotations

import dataclasses
from typing import Any

import keras
import tensorflow as tf


@dataclasses.dataclass(frozen=True, eq=False)
class RealLayer:
    """A layer with an accumulator, before its filter is quantised.

    Attributes:
        name: of the layer.
        accumulator_size: bits of its accumulator, None where sums are exact.
        mult_shift: of its products.
        is_depthwise: whether each channel is summed for itself.
        filter: float64 [taps, outputs].
        bias: float64 [outputs].
        data_scale: float32, of the layer's data.
        data_low: float32, the least stored integer of the data less its zero point, at most 0.
        data_high: float32, the greatest, at least 0.
    """

    name: str
    accumulator_size: int | None
    mult_shift: int
    is_depthwise: bool
    filter: tf.Tensor
    bias: tf.Tensor
    data_scale: tf.Tensor
    data_low: tf.Tensor
    data_high: tf.Tensor


@dataclasses.dataclass(frozen=True, eq=False)
class LayerIntegers:
    """A layer with an accumulator, in the integers that it computes with.

    A sum of an output lies between that of the least and that of the greatest products with data
    of `data_low` to `data_high`, plus the bias.

    Attributes:
        name: of the layer.
        accumulator_size: bits of its accumulator, None where sums are exact.
        mult_shift: of its products.
        is_depthwise: whether each channel is summed for itself.
        filter: whole numbers, float32 [taps, outputs].
        bias: whole numbers, float32 [outputs].
        scales: float32 [outputs], what a step of the filter stands for.
        data_low: float32, the least stored integer of the data less its zero point, at most 0.
        data_high: float32, the greatest, at least 0.
    """

    name: str
    accumulator_size: int | None
    mult_shift: int
    is_depthwise: bool
    filter: tf.Tensor
    bias: tf.Tensor
    scales: tf.Tensor
    data_low: tf.Tensor
    data_high: tf.Tensor


@keras.saving.register_keras_serializable("bitfold")
class FilterRule:
    """How real filters become integers: the largest magnitude of an output stands for 127.

    A subclass may let more stand for 127, so that integers get smaller, and round towards zero. It
    is part of the model that it is given to: register it by
    `keras.saving.register_keras_serializable`, and give it a `get_config` where it has arguments.

    Attributes:
        rounding: of filter and bias, "nearest" or "towards_zero".
    """

    rounding = "nearest"

    def largest(self, layer: RealLayer) -> tf.Tensor:
        """Return what 127 stands for: float32 [outputs], at least each largest magnitude."""
        return tf.cast(tf.reduce_max(tf.abs(layer.filter), axis=0), tf.float32)

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        return {}

    @classmethod
    def from_config(cls, config: dict[str, Any]) -> FilterRule:
        """Make the rule from `get_config`'s result."""
        return cls(**config)
