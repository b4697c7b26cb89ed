# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Layers without weights in integers: averages, and layers that move elements or drop some."""

from __future__ import annotations

from typing import Any

import keras
import tensorflow as tf

from bitfold import ops
from bitfold.training import quantising
from bitfold.training.clamping import Term, clamped
from bitfold.training.flow import Flow, current
from bitfold.training.layers import Emulated, Ranged, known
from bitfold.training.means import mean_in_two_roundings


class _Wrapped(Emulated):
    """A layer around a Keras layer of one operand, whose output has the grid of its data."""

    def __init__(self, layer: keras.layers.Layer, **kwargs: Any) -> None:
        """Take the Keras layer."""
        kwargs.setdefault("name", layer.name)
        super().__init__(**kwargs)
        self.layer = layer

    def build(self, values_shape: Any, grid_shape: Any) -> None:
        """Build the Keras layer."""
        if not self.layer.built:
            self.layer.build(values_shape)
        self.built = True

    def compute_output_spec(self, values: Any, grid: Any, training: bool = False) -> Any:
        """Return what a call gives, symbolically."""
        return self.spec(self.layer.compute_output_shape(values.shape))

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        return {**super().get_config(), "layer": keras.saving.serialize_keras_object(self.layer)}

    @classmethod
    def from_config(cls, config: dict[str, Any]) -> _Wrapped:
        """Make the layer from `get_config`'s result."""
        return cls(**{**config, "layer": keras.saving.deserialize_keras_object(config["layer"])})


@keras.saving.register_keras_serializable("bitfold")
class EmulatedMove(_Wrapped):
    """A layer that moves elements, or takes the largest: the same on integers."""

    def call(self, values: tf.Tensor, grid: tf.Tensor, training: bool = False) -> Any:
        """Compute a batch."""
        return self.result(self.layer.call(values), grid)


@keras.saving.register_keras_serializable("bitfold")
class EmulatedNoise(_Wrapped):
    """A layer that changes elements in training alone, as Dropout: rounded and clamped again."""

    def call(self, values: tf.Tensor, grid: tf.Tensor, training: bool = False) -> Any:
        """Compute a batch."""
        if current() is not Flow.INTEGERS or not training:
            return self.result(values, grid)
        changed = self.layer(values, training=True)
        low, high = quantising.bounds(grid)
        whole = quantising.rounded(tf.clip_by_value(changed, low, high))
        return self.result(whole, grid)


@keras.saving.register_keras_serializable("bitfold")
class EmulatedAverage(_Wrapped):
    """AVERAGE_POOL_2D: of stored integers, halves away from zero."""

    def call(self, values: tf.Tensor, grid: tf.Tensor, training: bool = False) -> Any:
        """Compute a batch."""
        averages = self.layer.call(values)
        if current() is not Flow.INTEGERS:
            return self.result(averages, grid)
        stored = tf.cast(tf.stop_gradient(values) + grid[1], tf.int8)
        pooled = ops.stored_pool(
            stored,
            pooling="average",
            window=list(self.layer.pool_size),
            strides=list(self.layer.strides),
            padding=self.layer.padding.upper(),
        )
        centred = tf.cast(pooled, tf.float32) - grid[1]
        return self.result(quantising.replaced(averages, centred), grid)


@keras.saving.register_keras_serializable("bitfold")
class EmulatedMean(Ranged):
    """MEAN over the pixels of an image, in a range of its own."""

    kind = "MEAN"

    def __init__(self, *, keeps_dimensions: bool = False, **kwargs: Any) -> None:
        """Take whether rows and columns of one remain."""
        super().__init__(**kwargs)
        self.keeps_dimensions = keeps_dimensions

    def call(self, values: tf.Tensor, grid: tf.Tensor, training: bool = False) -> Any:
        """Compute a batch."""
        flow = current()
        if flow is not Flow.INTEGERS:
            if flow is Flow.EXPORT:
                self.note([known(grid)])
            means = tf.reduce_mean(values, [1, 2], keepdims=self.keeps_dimensions)
            return self.in_floats(means)
        output_grid = self.range.grid()
        sums = tf.reduce_sum(values, [1, 2], keepdims=self.keeps_dimensions)
        count = tf.shape(values)[1] * tf.shape(values)[2]
        scales = [tf.cast(given[0], tf.float64) for given in (grid, output_grid)]
        ratio = scales[0] / scales[1]
        unclamped = tf.stop_gradient(mean_in_two_roundings(sums, ratio, count))
        factor = tf.cast(ratio / tf.cast(count, tf.float64), tf.float32)
        centred = clamped(
            unclamped,
            [Term(sums, factor)],
            self.output_bounds(output_grid),
            log_scale=self.log_scale,
        )
        self.observe(unclamped, output_grid, training)
        return self.result(centred, output_grid)

    def compute_output_spec(self, values: Any, grid: Any, training: bool = False) -> Any:
        """Return what a call gives, symbolically."""
        batch, *_, channels = values.shape
        return self.spec((batch, 1, 1, channels) if self.keeps_dimensions else (batch, channels))

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        return {**super().get_config(), "keeps_dimensions": self.keeps_dimensions}


@keras.saving.register_keras_serializable("bitfold")
class InFloats(keras.layers.Layer):
    """A Keras layer that computes in floats, beside layers in integers; it keeps its variables."""

    def __init__(self, layer: keras.layers.Layer, **kwargs: Any) -> None:
        """Take the Keras layer."""
        kwargs.setdefault("name", layer.name)
        super().__init__(**kwargs)
        self.layer = layer
        self.supports_jit = getattr(layer, "supports_jit", True)

    def build(self, *shapes: Any, **named: Any) -> None:
        """Leave it to the Keras layer, which builds itself when it is called."""
        self.built = True

    def call(self, *args: Any, **kwargs: Any) -> Any:
        """Call the Keras layer."""
        return self.layer(*args, **kwargs)

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        return {**super().get_config(), "layer": keras.saving.serialize_keras_object(self.layer)}

    @classmethod
    def from_config(cls, config: dict[str, Any]) -> InFloats:
        """Make the layer from `get_config`'s result."""
        return cls(**{**config, "layer": keras.saving.deserialize_keras_object(config["layer"])})
