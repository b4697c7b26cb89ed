# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A network as a layer of a Keras model."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

import keras

if TYPE_CHECKING:
    from bitfold.network.network import Network


@keras.saving.register_keras_serializable("bitfold")
class NetworkLayer(keras.layers.Layer):
    """Computes a network. Floats in, floats out; nothing in it trains."""

    def __init__(self, network: Network, **kwargs: Any) -> None:
        """Take the network and the keywords of every Keras layer."""
        kwargs.setdefault("dtype", "float32")
        super().__init__(trainable=False, autocast=False, **kwargs)
        self.supports_jit = False  # the ops have no XLA kernels
        self.network = network

    def call(self, inputs: Any) -> Any:
        """Compute a batch."""
        return self.network(inputs)

    def compute_output_spec(self, inputs: Any) -> Any:
        """Return the outputs' shapes and types; several as a call gives them."""
        first = keras.tree.flatten(inputs)[0]
        is_real = "float" in keras.backend.standardize_dtype(first.dtype)
        specs = [
            keras.KerasTensor(
                (None, *port.shape[1:]),
                "float32" if is_real and port.scale is not None else port.dtype.name,
            )
            for port in self.network.outputs
        ]
        if len(specs) == 1:
            return specs[0]
        names = [port.name for port in self.network.outputs]
        return dict(zip(names, specs, strict=True)) if isinstance(inputs, dict) else specs

    def get_config(self) -> dict[str, Any]:
        """Return what `from_config` needs to build the layer again."""
        config = super().get_config()
        config.pop("trainable", None)
        return {**config, "network": keras.saving.serialize_keras_object(self.network)}

    @classmethod
    def from_config(cls, config: dict[str, Any]) -> NetworkLayer:
        """Build the layer from `get_config`'s result."""
        config = dict(config)
        network = keras.saving.deserialize_keras_object(config.pop("network"))
        return cls(network, **config)
