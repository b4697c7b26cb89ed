# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A separable convolution in integers: two layers, with stored integers between them."""

from __future__ import annotations

from typing import Any

import keras
import tensorflow as tf

from bitfold.training.layers import Emulated
from bitfold.training.weighted import EmulatedLayer

# What of a layer's settings the first part has, too.
_OF_BOTH = ("arithmetic", "gradient", "filter_rule", "penalty", "ranges", "momentum")


@keras.saving.register_keras_serializable("bitfold")
class EmulatedSeparable(Emulated):
    """A SeparableConv2D layer, and the normalisation and the activation behind it.

    Attributes:
        depthwise: the first part, without a bias.
        pointwise: the second.
    """

    kind = "DEPTHWISE_CONV_2D, CONV_2D"

    def __init__(
        self,
        layer: keras.layers.Layer,
        normalisation: keras.layers.Layer | None = None,
        *,
        activation: str = "linear",
        gives_real: bool = False,
        name: str | None = None,
        trainable: bool = True,
        dtype: Any = "float32",
        **settings: Any,
    ) -> None:
        """Take what an `EmulatedLayer` takes."""
        super().__init__(
            gives_real=gives_real, name=name or layer.name, trainable=trainable, dtype=dtype
        )
        of_both = {key: settings[key] for key in _OF_BOTH if key in settings}
        self.depthwise = EmulatedLayer(layer, part="depthwise", name="depthwise", **of_both)
        self.pointwise = EmulatedLayer(
            layer,
            normalisation,
            part="pointwise",
            name="pointwise",
            activation=activation,
            gives_real=gives_real,
            **settings,
        )

        for part in (self.depthwise, self.pointwise):
            part.called = f"{self.name}/{part.name}"

    def build(self, values_shape: Any, grid_shape: Any) -> None:
        """Build the parts."""
        self.depthwise.build(values_shape, grid_shape)
        self.pointwise.build(self.depthwise.output_shape(values_shape), grid_shape)
        self.built = True

    @property
    def arithmetic(self) -> Any:
        """What both parts compute in."""
        return self.pointwise.arithmetic

    def call(self, values: tf.Tensor, grid: tf.Tensor, training: bool = False) -> Any:
        """Compute a batch."""
        between, between_grid = self.depthwise(values, grid, training=training)
        return self.pointwise(between, between_grid, training=training)

    def compute_output_spec(self, values: Any, grid: Any, training: bool = False) -> Any:
        """Return what a call gives, symbolically."""
        between = self.depthwise.output_shape(values.shape)
        return self.spec(self.pointwise.output_shape(between))

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs."""
        config = self.pointwise.get_config()
        del config["part"]
        return {**config, **super().get_config()}

    @classmethod
    def from_config(cls, config: dict[str, Any]) -> EmulatedSeparable:
        """Make the layer from `get_config`'s result."""
        return cls(**EmulatedLayer.settings(config))
