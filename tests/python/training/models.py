# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Small Keras models with random weights, between them all that computes in integers."""

from __future__ import annotations

import keras
import numpy as np
from keras import layers

SHAPE = (10, 9, 4)
IMAGES = 12


def images(seed: int = 0, count: int = IMAGES) -> np.ndarray:
    """Return random images."""
    rng = np.random.default_rng(seed)
    return rng.normal(size=(count, *SHAPE)).astype(np.float32)


def residual() -> keras.Model:
    """Normalised convolutions with a shortcut, means and a dense layer."""
    x = inputs = keras.Input(SHAPE, name="image")
    x = layers.Conv2D(6, 3, strides=2, padding="same", use_bias=False, name="first")(x)
    x = layers.ReLU(name="first_relu")(layers.BatchNormalization(name="first_norm")(x))
    y = layers.DepthwiseConv2D(3, padding="same", name="depthwise")(x)
    y = layers.ReLU(6, name="depthwise_relu")(layers.BatchNormalization(name="norm")(y))
    y = layers.Conv2D(6, 1, use_bias=False, name="pointwise")(y)
    y = layers.BatchNormalization(scale=False, center=False, name="pointwise_norm")(y)
    x = layers.ReLU(name="sum")(layers.Add(name="add")([x, y]))
    x = layers.GlobalAveragePooling2D(name="mean")(x)
    x = layers.Dense(5, name="scores")(layers.Dropout(0.2, seed=1, name="dropout")(x))
    return _with_random_weights(keras.Model(inputs, x, name="residual"))


def windows() -> keras.Model:
    """Strides, dilations, multipliers, pools, and elements that move."""
    model = keras.Sequential(
        [
            keras.Input(SHAPE),
            layers.ZeroPadding2D(((1, 2), (2, 1)), name="pad"),
            layers.Conv2D(4, (3, 2), strides=3, padding="same", activation="relu6", name="wide"),
            layers.DepthwiseConv2D(
                (2, 3), depth_multiplier=2, dilation_rate=2, padding="same", name="twice"
            ),
            layers.MaxPooling2D(2, 1, padding="same", name="largest"),
            layers.Conv2D(5, 3, dilation_rate=2, padding="same", name="dilated"),
            layers.AveragePooling2D(2, 1, padding="same", name="average"),
            layers.Cropping2D(((1, 0), (0, 1)), name="crop"),
            layers.Permute((2, 1, 3), name="turned"),
            layers.Flatten(name="flat"),
            layers.Dense(6, activation="relu", name="dense"),
            layers.Dense(3, use_bias=False, name="dense_1"),
        ],
        name="windows",
    )
    return _with_random_weights(model)


def functions() -> keras.Model:
    """Functions by tables and the softmax, two outputs, the outputs of layers used twice."""
    x = inputs = keras.Input(SHAPE, name="image")
    x = y = layers.Conv2D(4, 3, activation="hard_silu", name="hard")(x)
    x = layers.Activation("tanh", name="tanh")(layers.Conv2D(4, 3, padding="same", name="c")(x))
    z = layers.Subtract(name="difference")([layers.LeakyReLU(0.1, name="leaky")(y), x])
    z = layers.ReLU(name="relu")(layers.Add(name="three")([x, y, z]))
    gate = layers.Conv2D(2, 1, activation="sigmoid", name="gate")(z)
    z = layers.Concatenate(name="side_by_side")([z, layers.MaxPooling2D(2, 1, "same", name="m")(x)])
    mean = layers.GlobalAveragePooling2D(keepdims=True, name="mean")(z)
    mean = layers.Multiply(name="squeezed")([mean, layers.GlobalMaxPooling2D(keepdims=True)(z)])
    probabilities = layers.Dense(5, activation="softmax", name="probabilities")(
        layers.Flatten(name="flat")(mean)
    )
    model = keras.Model(inputs, [probabilities, gate], name="functions")
    return _with_random_weights(model)


def nested() -> keras.Model:
    """A model in a model, a separable convolution, and layers in floats between."""
    head = keras.Sequential(
        [
            keras.Input((8, 7, 6)),
            layers.SeparableConv2D(5, 3, depth_multiplier=2, name="separable"),
            layers.BatchNormalization(name="separable_norm"),
            layers.ReLU(name="separable_relu"),
        ],
        name="head",
    )
    x = inputs = keras.Input(SHAPE, name="image")
    x = layers.BatchNormalization(name="input_norm")(x)
    x = head(layers.Conv2D(6, 3, name="first")(x))
    x = layers.GlobalMaxPooling2D(name="largest")(x)
    x = layers.LayerNormalization(name="normalised")(x)
    return _with_random_weights(keras.Model(inputs, layers.Dense(3, name="last")(x), name="nested"))


def _with_random_weights(model: keras.Model) -> keras.Model:
    """Set all variables, those of normalisations too; one filter is zeros with a bias."""
    rng = np.random.default_rng(7)
    for variable in model.weights:
        if "seed" in variable.path or variable.dtype != "float32":
            continue
        if "variance" in variable.name or "gamma" in variable.name:
            variable.assign(rng.uniform(0.3, 2.0, variable.shape))
        else:
            scale = 0.5 if "kernel" in variable.name else 0.2
            variable.assign(rng.normal(scale=scale, size=variable.shape))
    return model
