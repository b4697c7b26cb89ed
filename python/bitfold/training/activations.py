# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The activations that are fused into the layer before them."""

from __future__ import annotations

import keras
import tensorflow as tf

# The real numbers that each clamps to.
LIMITS: dict[str, tuple[float | None, float | None]] = {
    "linear": (None, None),
    "relu": (0.0, None),
    "relu6": (0.0, 6.0),
}


def name_of(layer: keras.layers.Layer) -> str | None:
    """Return the activation that a layer is, None where it cannot be fused."""
    if type(layer) is keras.layers.Activation:
        return of_function(layer.activation)
    if type(layer) is keras.layers.ReLU and not layer.negative_slope and not layer.threshold:
        return {None: "relu", 6.0: "relu6"}.get(layer.max_value)
    return None


def of_function(function: object) -> str | None:
    """Return what a Keras activation function is called, None where it cannot be fused."""
    name = keras.activations.serialize(function)
    return name if isinstance(name, str) and name in LIMITS else None


def applied(values: tf.Tensor, activation: str) -> tf.Tensor:
    """Return real numbers after an activation."""
    functions = {"linear": tf.identity, "relu": tf.nn.relu, "relu6": tf.nn.relu6}
    return functions[activation](values)


def bounds(activation: str, grid: tf.Tensor, low: tf.Tensor, high: tf.Tensor) -> tuple:
    """Return the bounds of centred integers, narrowed by an activation.

    A bound is bound / scale, a quotient in single precision, halves away from zero.
    """
    least, greatest = LIMITS[activation]
    if least is not None:
        low = tf.maximum(low, 0.0)
    if greatest is not None:
        high = tf.minimum(high, tf.floor(greatest / grid[0] + 0.5))
    return low, high
