# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The float network: data, architecture, training and what the quantiser needs from it."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import tensorflow as tf
from sklearn.datasets import load_digits
from sklearn.model_selection import train_test_split

PIXEL_MAX = 16
"""Largest value of a pixel in the data set; pixels are whole numbers from 0 to 16."""

CLASSES = 10
SPLIT_SEED = 0
"""The split into training and test images never changes, whatever --seed says."""


@dataclass(frozen=True)
class Digits:
    """The data set after the split. Images are int32 [n, 8, 8, 1], labels int64 [n]."""

    train_images: np.ndarray
    train_labels: np.ndarray
    test_images: np.ndarray
    test_labels: np.ndarray


def load_data() -> Digits:
    """Load the 1,797 digits and keep a third of every class for the test."""
    digits = load_digits()
    images = digits.images.astype(np.int32)[..., np.newaxis]
    train_images, test_images, train_labels, test_labels = train_test_split(
        images,
        digits.target,
        test_size=1 / 3,
        random_state=SPLIT_SEED,
        stratify=digits.target,
    )
    return Digits(train_images, train_labels, test_images, test_labels)


def to_float(images: np.ndarray) -> np.ndarray:
    """Scale int pixels 0..16 to the float network's input 0..1, same shape."""
    return (images / PIXEL_MAX).astype(np.float32)


def build_network() -> tf.keras.Model:
    """Build the float network: [n, 8, 8, 1] pixels to [n, 1, 1, 10] class scores.

    conv1 -> conv2 -> conv3, whose result is added to conv1's activations, then
    conv4 with stride 2 and a dense layer written as a VALID convolution over
    the whole 4x4 map. The layers named ``act*`` are the tensors that become
    8-bit activations after quantisation.
    """
    layers = tf.keras.layers
    inputs = layers.Input((8, 8, 1))
    act1 = layers.ReLU(name="act1")(_conv("conv1", 16)(inputs))
    act2 = layers.ReLU(name="act2")(_conv("conv2", 16)(act1))
    total = layers.Add(name="add")([_conv("conv3", 16)(act2), act1])
    act3 = layers.ReLU(name="act3")(total)
    act4 = layers.ReLU(name="act4")(_conv("conv4", 32, strides=2)(act3))
    scores = _conv("dense", CLASSES, size=4, padding="valid")(act4)
    return tf.keras.Model(inputs, scores)


def train(digits: Digits, seed: int, epochs: int) -> tf.keras.Model:
    """Train a network from scratch; the same seed and epochs give the same weights."""
    tf.keras.utils.set_random_seed(seed)
    tf.config.experimental.enable_op_determinism()
    network = build_network()
    steps = epochs * -(-len(digits.train_labels) // 32)
    schedule = tf.keras.optimizers.schedules.CosineDecay(3e-3, steps)
    network.compile(
        optimizer=tf.keras.optimizers.Adam(schedule),
        loss=tf.keras.losses.SparseCategoricalCrossentropy(from_logits=True),
    )
    network.fit(
        to_float(digits.train_images),
        digits.train_labels.reshape(-1, 1, 1),
        batch_size=32,
        epochs=epochs,
        verbose=0,
    )
    return network


def predict(network: tf.keras.Model, images: np.ndarray) -> np.ndarray:
    """Class of each int image [n, 8, 8, 1] by the float network, int64 [n]."""
    scores = network(to_float(images), training=False).numpy()
    return scores[:, 0, 0, :].argmax(axis=-1)


def largest_activations(network: tf.keras.Model, images: np.ndarray) -> dict[str, float]:
    """Largest value each ``act*`` layer takes over the given images (float units)."""
    names = [layer.name for layer in network.layers if layer.name.startswith("act")]
    outputs = [network.get_layer(name).output for name in names]
    tensors = tf.keras.Model(network.input, outputs)(to_float(images), training=False)
    return {name: float(tf.reduce_max(tensor)) for name, tensor in zip(names, tensors, strict=True)}


def accuracy(predictions: np.ndarray, labels: np.ndarray) -> float:
    """Share of right predictions, 0..1."""
    return float(np.mean(predictions == labels))


def _conv(
    name: str, channels: int, *, size: int = 3, strides: int = 1, padding: str = "same"
) -> tf.keras.layers.Layer:
    """A convolution with bias and without activation."""
    return tf.keras.layers.Conv2D(channels, size, strides=strides, padding=padding, name=name)
