# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The float network: architecture and training."""

from __future__ import annotations

import tensorflow as tf

from pictures import CLASSES, Dataset

BATCH = 32


def build() -> tf.keras.Model:
    """Build the network: [n, 8, 8, 1] pixels from 0 to 1 to [n, 10] class scores.

    conv1 -> conv2 -> conv3, whose result is added to conv1's activations, then conv4 with stride 2
    and a dense layer.
    """
    layers = tf.keras.layers
    inputs = layers.Input((8, 8, 1), name="image")
    x = layers.Conv2D(16, 3, padding="same", activation="relu", name="conv1")(inputs)
    y = layers.Conv2D(16, 3, padding="same", activation="relu", name="conv2")(x)
    y = layers.Conv2D(16, 3, padding="same", name="conv3")(y)
    x = layers.ReLU(name="add_relu")(layers.Add(name="add")([y, x]))
    x = layers.Conv2D(32, 3, strides=2, padding="same", activation="relu", name="conv4")(x)
    return tf.keras.Model(inputs, layers.Dense(CLASSES, name="dense")(layers.Flatten()(x)))


def train(digits: Dataset, seed: int, epochs: int) -> tf.keras.Model:
    """Train a network from scratch; the same seed and epochs give the same weights."""
    tf.keras.utils.set_random_seed(seed)
    tf.config.experimental.enable_op_determinism()
    network = build()
    steps = epochs * -(-len(digits.train_labels) // BATCH)
    schedule = tf.keras.optimizers.schedules.CosineDecay(3e-3, steps)
    network.compile(
        optimizer=tf.keras.optimizers.Adam(schedule),
        loss=tf.keras.losses.SparseCategoricalCrossentropy(from_logits=True),
    )
    network.fit(
        digits.train_images, digits.train_labels, batch_size=BATCH, epochs=epochs, verbose=0
    )
    return network
