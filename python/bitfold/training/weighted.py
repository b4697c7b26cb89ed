# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A layer with weights in integers: convolution, depthwise convolution, dense layer."""

from __future__ import annotations

import dataclasses
from collections.abc import Callable
from typing import Any

import keras
import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.arithmetic import Arithmetic
from bitfold.training import folding, quantising
from bitfold.training.clamping import Term, clamped
from bitfold.training.flow import Flow, current
from bitfold.training.hooks import FilterRule, LayerIntegers, RealLayer
from bitfold.training.layers import Ranged, eagerly, known
from bitfold.training.products import PARTS, PRODUCTS
from bitfold.training.sums import GRADIENTS, Accumulator

_ROUNDINGS = {"nearest": quantising.rounded, "towards_zero": quantising.truncated}


@dataclasses.dataclass(frozen=True, eq=False)
class _Integers:
    """What a layer computes with, as tensors or arrays."""

    filter: Any
    scales: Any
    largest: Any
    bias: Any
    units: Any


@keras.saving.register_keras_serializable("bitfold")
class EmulatedLayer(Ranged):
    """A Keras layer with weights, and the normalisation and the activation behind it, in integers.

    The Keras layers keep their variables. Filters are int8 with a scale for each output, biases
    int32 in units of data scale * filter scale.

    Attributes:
        layer: the Conv2D, DepthwiseConv2D or Dense layer.
        normalisation: the BatchNormalization layer that is folded into it, or None.
        arithmetic: what it computes in.
        kind: of the operator that it becomes, as CONV_2D.
        called: its name in a `bitfold.Network`.
    """

    def __init__(
        self,
        layer: keras.layers.Layer,
        normalisation: keras.layers.Layer | None = None,
        *,
        arithmetic: Arithmetic | None = None,
        gradient: str = "straight",
        filter_rule: FilterRule | None = None,
        penalty: Callable[[LayerIntegers], tf.Tensor] | None = None,
        part: str | None = None,
        **kwargs: Any,
    ) -> None:
        """Take the layers; `bitfold.training.emulate` is the way to call.

        Of a separable convolution `part` is the one that this is.
        """
        kwargs.setdefault("name", layer.name)
        super().__init__(**kwargs)
        if gradient not in GRADIENTS:
            raise ValueError(f"Need a gradient of {', '.join(GRADIENTS)}, got {gradient!r}")
        self.layer, self.normalisation = layer, normalisation
        self.arithmetic = arithmetic or Arithmetic()
        self.gradient = gradient
        self.filter_rule = filter_rule or FilterRule()
        self.penalty = penalty
        self.part = part
        self._product = (PRODUCTS[type(layer)] if part is None else PARTS[part])(layer)
        self._sums = Accumulator(self.name, self._product, self.arithmetic, gradient)
        self.kind = self._product.kind

    def build(self, values_shape: Any, grid_shape: Any) -> None:
        """Build the Keras layers, unless they are built."""
        self._product.build(values_shape)
        if self.normalisation is not None and not self.normalisation.built:
            self.normalisation.build(self._product.output_shape(values_shape))
        self.built = True

    def call(self, values: tf.Tensor, grid: tf.Tensor, training: bool = False) -> Any:
        """Compute a batch."""
        flow = current()
        if flow is Flow.CALIBRATION:
            filter, bias = self._folded()
            sums = self._product.stock(values, tf.cast(filter, tf.float32))
            return self.in_floats(sums + tf.cast(bias, tf.float32))
        if flow is Flow.EXPORT:
            return self._export(values, known(grid))
        integers = self._integers(grid)
        output_grid = self.range.grid()
        sums = self._sums(values, integers.filter, integers.bias, grid)
        multipliers = integers.units / tf.cast(output_grid[0], tf.float64)
        stored = ops.requantise(
            sums.held,
            multipliers,
            rounding=self._product.rounding,
            dtype=tf.int16,
            shift=self.arithmetic.mult_shift,
        )
        unclamped = tf.stop_gradient(tf.cast(stored, tf.float32))
        centred = clamped(
            unclamped,
            [Term(sums.real, tf.cast(multipliers, tf.float32))],
            self.output_bounds(output_grid),
            is_wrong=sums.is_wrong,
            log_scale=self.log_scale,
        )
        self._learn(integers, grid, training)
        self.observe(unclamped, output_grid, training)
        if training and self._updates_statistics:
            folding.update_statistics(
                self.normalisation, sums.real, integers.bias, integers.units, self._bias
            )
        return self.result(centred, output_grid)

    @property
    def _bias(self) -> tf.Tensor | None:
        bias = self._product.bias
        return None if bias is None else tf.convert_to_tensor(bias)

    @property
    def _updates_statistics(self) -> bool:
        return self.normalisation is not None and self.normalisation.trainable

    def _folded(self) -> tuple[tf.Tensor, tf.Tensor]:
        """Return filter and bias with the normalisation in them, float64."""
        kernel = self._product.filter(tf.convert_to_tensor(self._product.kernel))
        filter, bias = folding.folded(kernel, self._bias, self.normalisation)
        text = (
            f"Need weights of layer {self.name!r} that are finite, got others: where gradients "
            "left the floats, take a lower learning rate, clipnorm, a proven_width or "
            "gradient='zero_where_wrapped'"
        )
        with tf.control_dependencies(
            [tf.debugging.assert_all_finite(x, text) for x in (filter, bias)]
        ):
            return tf.identity(filter), tf.identity(bias)

    def _integers(self, grid: tf.Tensor) -> _Integers:
        """Return what the layer computes with for data of a grid."""
        filter, bias = self._folded()
        outputs = filter.shape[-1]
        low, high = quantising.bounds(grid)
        layer = RealLayer(
            *self._facts,
            filter=tf.reshape(filter, [-1, outputs]),
            bias=bias,
            data_scale=grid[0],
            data_low=low,
            data_high=high,
        )
        # A scale must be one, and no bias wider than its type.
        least = tf.cast(tf.abs(bias), tf.float32) / grid[0] * quantising.LARGEST_WEIGHT * 2.0**-30
        largest = tf.maximum(self.filter_rule.largest(layer), tf.maximum(least, 2.0**-100))
        largest = tf.stop_gradient(largest)
        scales = quantising.filter_scales(largest)
        rounding = _ROUNDINGS[self.filter_rule.rounding]
        units = tf.cast(grid[0], tf.float64) * tf.cast(scales, tf.float64)
        return _Integers(
            quantising.integer_filter(filter, scales, rounding),
            scales,
            largest,
            quantising.integer_bias(bias, units, rounding),
            units,
        )

    @property
    def _facts(self) -> tuple[str, int | None, int, bool]:
        chosen = self.arithmetic
        return self.called, chosen.accumulator_size, chosen.mult_shift, self._product.is_depthwise

    def integers(self, grid: tf.Tensor) -> LayerIntegers:
        """Return the integers that the layer computes with for data of a grid."""
        return self._record(self._integers(grid), grid)

    def _record(self, found: _Integers, grid: tf.Tensor) -> LayerIntegers:
        low, high = quantising.bounds(grid)
        return LayerIntegers(
            *self._facts,
            filter=tf.reshape(found.filter, [-1, found.filter.shape[-1]]),
            bias=tf.cast(found.bias, tf.float32),
            scales=found.scales,
            data_low=low,
            data_high=high,
        )

    def _learn(self, found: _Integers, grid: tf.Tensor, training: bool) -> None:
        """Add the penalty to the loss."""
        if training and self.penalty is not None:
            self.add_loss(self.penalty(self._record(found, grid)))

    def _export(self, values: tf.Tensor, grid: np.ndarray) -> Any:
        """Compute with the nodes that tell a converter the scales, and note the integers."""
        found = eagerly(lambda: dataclasses.asdict(self._integers(tf.constant(grid))))
        sums = self._product.annotated(values, found["filter"], found["scales"], found["largest"])
        bias = (found["bias"] * found["units"]).astype(np.float32)
        self.note(
            [grid],
            arithmetic=self.arithmetic,
            filter=self._product.stored(found["filter"]).astype(np.int8),
            filter_scales=found["scales"],
            axis=self._product.axis,
            bias=found["bias"].astype(np.int32),
        )
        return self.in_floats(tf.nn.bias_add(sums, bias))

    def output_shape(self, shape: tuple) -> tuple:
        """Return the shape of the output, for data of a shape."""
        return self._product.output_shape(shape)

    def compute_output_spec(self, values: Any, grid: Any, training: bool = False) -> Any:
        """Return what a call gives, symbolically."""
        return self.spec(self.output_shape(values.shape))

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        pack = keras.saving.serialize_keras_object
        return {
            **super().get_config(),
            "layer": pack(self.layer),
            "normalisation": None if self.normalisation is None else pack(self.normalisation),
            "arithmetic": dataclasses.asdict(self.arithmetic),
            "gradient": self.gradient,
            "part": self.part,
            "filter_rule": pack(self.filter_rule),
            "penalty": None if self.penalty is None else pack(self.penalty),
        }

    @staticmethod
    def settings(config: dict[str, Any]) -> dict[str, Any]:
        """Return a configuration's layers and records in place of what it keeps of them."""
        unpack = keras.saving.deserialize_keras_object
        found = {
            key: None if config[key] is None else unpack(config[key])
            for key in ("layer", "normalisation", "filter_rule", "penalty")
        }
        return {**config, **found, "arithmetic": Arithmetic(**config["arithmetic"])}

    @classmethod
    def from_config(cls, config: dict[str, Any]) -> EmulatedLayer:
        """Make the layer from `get_config`'s result."""
        return cls(**cls.settings(config))
