# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""From the trained float network to whole numbers: int8 filters, 8-bit activations.

A real value is (whole number) x (scale). Filters have one scale per output
channel, except in ``conv3``: the residual is added straight to its accumulators
with one whole-number factor for all channels, so its channels share one scale,
chosen so that the factor is exact.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import tensorflow as tf

import model

WEIGHT_MAX = 127
ACTIVATION_MAX = 255


@dataclass(frozen=True)
class Layer:
    """A convolution with its bias in whole numbers.

    filters: int32 [height, width, in, out], within -127..127.
    bias: int32 [out], in units of ``sum_scale``.
    sum_scale: float64 [out], real value of one unit of the accumulator.
    """

    name: str
    filters: np.ndarray
    bias: np.ndarray
    sum_scale: np.ndarray
    strides: int
    padding: str


@dataclass(frozen=True)
class QuantisedNetwork:
    """Everything the integer network needs.

    layers: by name, in order of execution.
    activation_scale: real value of one unit of ``act1`` .. ``act4``.
    skip_factor: multiplier that brings ``act1`` to the scale of conv3's accumulators.
    """

    layers: dict[str, Layer]
    activation_scale: dict[str, float]
    skip_factor: int


def quantise(network: tf.keras.Model, calibration_images: np.ndarray) -> QuantisedNetwork:
    """Quantise a float network, with activation ranges taken from the images given.

    calibration_images: int32 [n, 8, 8, 1], from the training split.
    """
    largest = model.largest_activations(network, calibration_images)
    scale = {name: value / ACTIVATION_MAX for name, value in largest.items()}
    skip_factor, conv3_scale = _exact_skip(network, scale)
    input_scales = {
        "conv1": 1 / model.PIXEL_MAX,
        "conv2": scale["act1"],
        "conv3": scale["act2"],
        "conv4": scale["act3"],
        "dense": scale["act4"],
    }
    layers = {}
    for name, input_scale in input_scales.items():
        keras_layer = network.get_layer(name)
        weight_scale = _channel_scales(keras_layer)
        if name == "conv3":
            weight_scale = np.full_like(weight_scale, conv3_scale)
        layers[name] = _quantise_layer(keras_layer, input_scale, weight_scale)
    return QuantisedNetwork(layers, scale, skip_factor)


def _channel_scales(keras_layer: tf.keras.layers.Layer) -> np.ndarray:
    """Smallest scale that fits each output channel's filters in int8, float64 [out]."""
    kernel = keras_layer.get_weights()[0].astype(np.float64)
    return np.abs(kernel).max(axis=(0, 1, 2)) / WEIGHT_MAX


def _exact_skip(network: tf.keras.Model, scale: dict[str, float]) -> tuple[int, float]:
    """Residual factor and conv3's filter scale.

    The factor is scale(act1) / (scale(act2) x filter scale). It is rounded down
    and the filter scale widened to match, so that the addition itself is exact.
    """
    ratio = scale["act1"] / scale["act2"]
    tightest = _channel_scales(network.get_layer("conv3")).max()
    factor = max(1, int(ratio / tightest))
    return factor, ratio / factor


def _quantise_layer(
    keras_layer: tf.keras.layers.Layer, input_scale: float, weight_scale: np.ndarray
) -> Layer:
    """Round one layer's filters and bias to whole numbers."""
    kernel, bias = keras_layer.get_weights()
    filters = np.clip(np.rint(kernel / weight_scale), -WEIGHT_MAX, WEIGHT_MAX)
    sum_scale = input_scale * weight_scale
    return Layer(
        name=keras_layer.name,
        filters=filters.astype(np.int32),
        bias=np.rint(bias / sum_scale).astype(np.int32),
        sum_scale=sum_scale,
        strides=keras_layer.strides[0],
        padding=keras_layer.padding.upper(),
    )
