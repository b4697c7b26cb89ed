# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The networks that are timed as a whole: random weights, sensible activations, no download.

Weights are drawn from a seed. Batch normalisation takes its statistics from random images, so that
the activations of every layer spread over their range as those of a trained network do; the scores
are scaled likewise. What is made is kept under build/bench/models and read again as long as this
file does not change.
"""

from __future__ import annotations

import functools
import hashlib
import pathlib
import sys
from collections.abc import Callable

import keras
import numpy as np
import tensorflow as tf

import bitfold
from bitfold.network.converter import convert_keras

ROOT = pathlib.Path(__file__).resolve().parent.parent
FOLDER = ROOT / "build/bench/models"
SEED = 2026
CLASSES = 1000
# Images that the statistics are taken from, and those of them that calibrate the integers.
IMAGES, CALIBRATION = 32, 8
# Standard deviation of the scores: far enough apart that the softmax is no constant.
SPREAD = 3.0
# (filters, stride of the first block) of the residual network's stages, two blocks each.
STAGES = ((64, 1), (128, 2), (256, 2), (512, 2))


def mobile() -> keras.Model:
    """Build MobileNetV2, [n, 224, 224, 3] to class probabilities [n, 1000]."""
    return keras.applications.MobileNetV2(weights=None)


def residual() -> keras.Model:
    """Build an 18-layer residual network, [n, 224, 224, 3] to class probabilities [n, 1000]."""
    layers = keras.layers
    inputs = keras.Input((224, 224, 3))
    x = _convolved(inputs, 64, 7, 2, "first")
    x = layers.MaxPooling2D(3, 2, "same")(layers.ReLU()(x))
    for stage, (filters, stride) in enumerate(STAGES, 1):
        x = _block(x, filters, stride, f"stage{stage}_block1")
        x = _block(x, filters, 1, f"stage{stage}_block2")
    x = layers.GlobalAveragePooling2D()(x)
    outputs = layers.Dense(CLASSES, activation="softmax", name="predictions")(x)
    return keras.Model(inputs, outputs, name="residual18")


def fashion() -> keras.Model:
    """Build the network of `make demo`, [n, 28, 28, 1] to class scores [n, 10]."""
    for folder in ("fashion", "common"):
        sys.path.append(str(ROOT / "examples" / folder))
    import model

    return model.build((28, 28, 1))


BUILDERS: dict[str, Callable[[], keras.Model]] = {
    "mobilenet_v2": mobile,
    "residual18": residual,
    "fashion": fashion,
}


@functools.cache
def float_model(name: str) -> keras.Model:
    """Return a network in floats."""
    path = _kept(name, "keras")
    if path.is_file():
        return keras.models.load_model(path, compile=False)
    keras.utils.set_random_seed(SEED)
    model = BUILDERS[name]()
    _settle(model, images(name, IMAGES))
    path.parent.mkdir(parents=True, exist_ok=True)
    model.save(path)
    return model


@functools.cache
def model_file(name: str) -> bytes:
    """Return a network quantised to 8 bits, as a model file."""
    path = _kept(name, "tflite")
    if not path.is_file():
        path.write_bytes(convert_keras(float_model(name), images(name, CALIBRATION)))
    return path.read_bytes()


@functools.cache
def network(name: str) -> bitfold.Network:
    """Return a network on the accelerator's bits, at full width."""
    return bitfold.Network.from_tflite(model_file(name))


def images(name: str, count: int) -> np.ndarray:
    """Return random images for a network, coarse shapes with noise, from -1 to 1."""
    side, channels = (28, 1) if name == "fashion" else (224, 3)
    generator = np.random.default_rng(SEED)
    coarse = generator.uniform(-1, 1, (count, 7, 7, channels)).astype(np.float32)
    noise = generator.uniform(-0.25, 0.25, (count, side, side, channels)).astype(np.float32)
    shapes = tf.image.resize(coarse, (side, side), "bilinear").numpy()
    return np.clip(shapes + noise, -1, 1)


def stored_images(name: str, count: int) -> tf.Tensor:
    """Return the same as stored integers."""
    port = network(name).inputs[0]
    stored = np.round(images(name, count) / port.scale) + port.zero_point
    return tf.constant(np.clip(stored, -128, 127).astype(port.dtype))


def _convolved(x: tf.Tensor, filters: int, taps: int, stride: int, name: str) -> tf.Tensor:
    """Convolve and normalise."""
    x = keras.layers.Conv2D(
        filters, taps, stride, "same", use_bias=False, kernel_initializer="he_normal", name=name
    )(x)
    return keras.layers.BatchNormalization(name=f"{name}_normalised")(x)


def _block(x: tf.Tensor, filters: int, stride: int, name: str) -> tf.Tensor:
    """Two convolutions, and the input added: convolved, too, where the shapes differ."""
    relu = keras.layers.ReLU
    y = relu()(_convolved(x, filters, 3, stride, f"{name}_a"))
    y = _convolved(y, filters, 3, 1, f"{name}_b")
    if x.shape != y.shape:
        x = _convolved(x, filters, 1, stride, f"{name}_shortcut")
    return relu()(keras.layers.Add()([x, y]))


def _settle(model: keras.Model, data: np.ndarray) -> None:
    """Draw scales and offsets, take the statistics from data, spread the scores."""
    generator = np.random.default_rng(SEED)
    for layer in model.layers:
        if isinstance(layer, keras.layers.BatchNormalization):
            layer.momentum = 0.0  # the statistics become those of the next batch
            layer.gamma.assign(generator.uniform(0.5, 1.5, layer.gamma.shape))
            layer.beta.assign(generator.uniform(-0.5, 1.0, layer.beta.shape))
    model(data, training=True)
    last = model.layers[-1]
    features = keras.Model(model.inputs, last.input)(data, training=False)
    scores = features @ last.kernel
    last.kernel.assign(last.kernel * (SPREAD / tf.math.reduce_std(scores)))


@functools.cache
def _digest() -> str:
    """Name what the models depend on."""
    return hashlib.sha256(pathlib.Path(__file__).read_bytes()).hexdigest()[:12]


def _kept(name: str, ending: str) -> pathlib.Path:
    return FOLDER / f"{name}-{_digest()}.{ending}"
