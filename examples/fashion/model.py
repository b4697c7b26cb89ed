# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The float network: architecture, training, and the file that keeps trained weights."""

from __future__ import annotations

import hashlib
from pathlib import Path

import tensorflow as tf

from console import Report
from pictures import CLASSES, Dataset

CHANNELS = 24
BATCH = 128
LEARNING_RATE = 6e-3
EPOCHS = {"Fashion-MNIST": 6, "digits": 60}
"""The digits are a fiftieth of the clothes."""


def build(shape: tuple[int, int, int]) -> tf.keras.Model:
    """Build the network: [n, h, w, 1] pixels from 0 to 1 to [n, 10] class scores.

    A convolution and four depthwise separable blocks, then the mean of each channel and a dense
    layer. The convolution and the second block have a stride of 2; the others add their input.
    """
    layers = tf.keras.layers
    inputs = layers.Input(shape, name="image")
    x = layers.Conv2D(CHANNELS, 3, strides=2, padding="same", use_bias=False, name="first")(inputs)
    x = _normalised(x, "first", relu=True)
    x = _separable_block(x, "block1", CHANNELS)
    x = _separable_block(x, "block2", 2 * CHANNELS, strides=2)
    x = _separable_block(x, "block3", 2 * CHANNELS)
    x = _separable_block(x, "block4", 2 * CHANNELS)
    x = layers.GlobalAveragePooling2D(name="mean")(x)
    return tf.keras.Model(inputs, layers.Dense(CLASSES, name="scores")(x))


def train(dataset: Dataset, seed: int, epochs: int, folder: Path, report: Report) -> tf.keras.Model:
    """Return the trained network; what was trained before, with the same numbers, is read again."""
    tf.keras.utils.set_random_seed(seed)
    network = build(dataset.train_images.shape[1:])
    kept = folder / f"{_digest(network, dataset, seed, epochs)}.weights.h5"
    if kept.is_file():
        network.load_weights(kept)
        report(f"Weights from {kept}", epochs)
        return network
    tf.config.experimental.enable_op_determinism()
    steps = epochs * -(-len(dataset.train_labels) // BATCH)
    schedule = tf.keras.optimizers.schedules.CosineDecay(LEARNING_RATE, steps)
    network.compile(
        optimizer=tf.keras.optimizers.Adam(schedule),
        loss=tf.keras.losses.SparseCategoricalCrossentropy(from_logits=True),
        metrics=["accuracy"],
    )

    def finished(epoch: int, logs: dict[str, float]) -> None:
        report(f"Epoch {epoch + 1} of {epochs}: training accuracy {logs['accuracy']:.2%}", 1)

    network.fit(
        dataset.train_images, dataset.train_labels, batch_size=BATCH, epochs=epochs, verbose=0,
        callbacks=[tf.keras.callbacks.LambdaCallback(on_epoch_end=finished)],
    )  # fmt: skip
    folder.mkdir(parents=True, exist_ok=True)
    network.save_weights(kept)
    return network


def _separable_block(x: tf.Tensor, name: str, channels: int, strides: int = 1) -> tf.Tensor:
    """Filter each channel alone, then mix the channels; where shapes allow, add the input."""
    layers = tf.keras.layers
    y = layers.DepthwiseConv2D(
        3, strides=strides, padding="same", use_bias=False, name=f"{name}_depthwise"
    )(x)
    y = _normalised(y, f"{name}_depthwise", relu=True)
    y = layers.Conv2D(channels, 1, use_bias=False, name=f"{name}_pointwise")(y)
    y = _normalised(y, f"{name}_pointwise", relu=strides > 1)
    return layers.ReLU(name=name)(layers.Add(name=f"{name}_add")([x, y])) if strides == 1 else y


def _normalised(x: tf.Tensor, name: str, relu: bool) -> tf.Tensor:
    """Batch normalisation, which the converter folds into the filters, and a ReLU if asked for."""
    x = tf.keras.layers.BatchNormalization(momentum=0.9, name=f"{name}_normalised")(x)
    return tf.keras.layers.ReLU(name=f"{name}_relu")(x) if relu else x


def _digest(network: tf.keras.Model, dataset: Dataset, seed: int, epochs: int) -> str:
    """Name all that the trained weights depend on."""
    training = (dataset.name, len(dataset.train_labels), seed, epochs, BATCH, LEARNING_RATE)
    what = (network.to_json(), *training)
    return hashlib.sha256(repr(what).encode()).hexdigest()[:16]
