# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Trained networks against the interpreter, on real pictures: every quantised tensor, on bits."""

from __future__ import annotations

import importlib.util
import pathlib
from collections.abc import Iterator

import comparing
import joblib
import keras
import numpy as np
import pytest
import skimage.data
import sklearn.datasets
import tensorflow as tf
from keras import layers

import bitfold
from bitfold.network.converter import convert_keras

# The windows and paddings of the pools behind the convolutions of the face detector's networks.
_POOLS = {
    "pnet": [(2, "same"), None, None],
    "rnet": [(3, "same"), (3, "valid"), None],
    "onet": [(3, "same"), (3, "valid"), (2, "same"), None],
}
_SIZES = {"pnet": 32, "rnet": 24, "onet": 48}


def _weights(name: str) -> Iterator[np.ndarray]:
    package = importlib.util.find_spec("mtcnn")
    folder = pathlib.Path(package.origin).parent / "assets" / "weights"
    return iter(joblib.load(folder / f"{name}.lz4"))


def _detector(name: str) -> keras.Model:
    """Return one of the networks of a face detector, with its trained weights."""
    arrays = _weights(name)

    def with_weights(layer: layers.Layer, x: keras.KerasTensor) -> keras.KerasTensor:
        y = layer(x)
        layer.set_weights([next(arrays) for _ in layer.weights])
        return y

    def convolution(channels: int, size: int) -> layers.Layer:
        return layers.Conv2D(channels, size)

    size = _SIZES[name]
    x = images = keras.Input((size, size, 3))
    channels = {"pnet": (10, 16, 32), "rnet": (28, 48, 64), "onet": (32, 64, 64, 128)}[name]
    for i, pool in enumerate(_POOLS[name]):
        is_last_of_many = i == len(channels) - 1 and name != "pnet"
        x = with_weights(convolution(channels[i], 2 if is_last_of_many else 3), x)
        x = with_weights(layers.PReLU(shared_axes=[1, 2]), x)
        if pool is not None:
            x = layers.MaxPooling2D(pool[0], strides=2, padding=pool[1])(x)
    if name == "pnet":
        heads = [convolution(4, 1), convolution(2, 1)]
    else:
        x = layers.Flatten()(layers.Permute((2, 1, 3))(x))
        x = with_weights(layers.Dense(128 if name == "rnet" else 256), x)
        x = with_weights(layers.PReLU(), x)
        heads = [layers.Dense(n) for n in ((4, 2) if name == "rnet" else (4, 10, 2))]
    outputs = [with_weights(head, x) for head in heads]
    return keras.Model(images, [*outputs[:-1], layers.Softmax()(outputs[-1])])


def _pictures(size: int, count: int) -> np.ndarray:
    """Return parts of a photograph of a face, as the detector sees them."""
    photo = skimage.data.astronaut().astype(np.float32)
    rng = np.random.default_rng(0)
    corners = rng.integers([0, 120], [150, 260], (count, 2))
    parts = [photo[y : y + 120, x : x + 120] for y, x in corners]
    return (tf.image.resize(parts, (size, size)).numpy() - 127.5) / 128


@pytest.mark.slow
@pytest.mark.parametrize("name", ["pnet", "rnet", "onet"])
def test_face_detector(name):
    """The three networks of a detector; the converter knows PReLU for 8 bits alone."""
    pictures = _pictures(_SIZES[name], 24)
    content = convert_keras(_detector(name), pictures)
    _compare(content, pictures, f"the face detector's {name}")


def _digits() -> tuple[np.ndarray, np.ndarray]:
    images, labels = sklearn.datasets.load_digits(return_X_y=True)
    return (images.reshape(-1, 8, 8, 1) / 16).astype(np.float32), labels


@pytest.fixture(scope="module")
def residual_network() -> keras.Model:
    """A network with a shortcut and depthwise convolutions, trained on digits for seconds."""
    keras.utils.set_random_seed(1)
    x = images = keras.Input((8, 8, 1))
    x = layers.ReLU()(layers.BatchNormalization()(layers.Conv2D(16, 3, padding="same")(x)))
    y = layers.DepthwiseConv2D(3, padding="same", use_bias=False)(x)
    y = layers.ReLU(6)(layers.BatchNormalization()(y))
    y = layers.BatchNormalization()(layers.Conv2D(16, 1, use_bias=False)(y))
    x = layers.MaxPooling2D()(layers.ReLU()(layers.Add()([x, y])))
    x = layers.Conv2D(32, 3, activation="hard_silu")(x)
    x = layers.Dense(10, activation="softmax")(layers.GlobalAveragePooling2D()(x))
    model = keras.Model(images, x)
    model.compile("adam", "sparse_categorical_crossentropy")
    pixels, labels = _digits()
    model.fit(pixels[:1400], labels[:1400], batch_size=32, epochs=12, verbose=0)
    return model


@pytest.mark.slow
@pytest.mark.parametrize("activation_bits", [8, 16])
def test_digits(residual_network, activation_bits):
    """All 397 digits that it was not trained on; and most of them are told."""
    pixels, labels = _digits()
    model = residual_network
    if activation_bits == 16:  # the converter has no hard_silu of 16 bits
        model = keras.models.clone_model(model, clone_function=lambda layer: _with_relu(layer))
        model.set_weights(residual_network.get_weights())
    content = convert_keras(model, pixels[:200], activation_bits=activation_bits)
    _compare(content, pixels[1400:], f"the digits' network in {activation_bits} bits")
    network = bitfold.Network.from_tflite(content)
    if activation_bits == 8:
        assert network.evaluate(pixels[1400:], labels[1400:]) > 0.8


def _with_relu(layer: layers.Layer) -> layers.Layer:
    """Return a layer anew, with another activation in place of hard_silu."""
    settings = layer.get_config()
    if settings.get("activation") == "hard_silu":
        settings["activation"] = "relu"
    return type(layer).from_config(settings)


def _compare(content: bytes, images: np.ndarray, what: str) -> None:
    """Compare on pictures, stored as the network stores them."""
    port = bitfold.Network.from_tflite(content).inputs[0]
    ends = np.iinfo(port.dtype)
    stored = np.rint(images / port.scale) + port.zero_point
    comparing.assert_equals_witness(
        content, [stored.clip(ends.min, ends.max).astype(port.dtype)], what
    )
