# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""A small transformer encoder for 8x8 digits whose numeric units can be exchanged."""

from __future__ import annotations

from collections.abc import Callable
from typing import Protocol

import numpy as np
import tensorflow as tf

from pictures import CLASSES, Dataset

BLOCKS = 2
WIDTH = 32
HEADS = 2
HIDDEN = 64
PATCH = 2
TOKENS = (8 // PATCH) ** 2
EPSILON = 1e-3
"""Added to the variance in every layer normalisation."""

SITES = (
    *(f"{unit} {block}" for block in range(1, BLOCKS + 1)
      for unit in ("norm a", "softmax", "norm b", "gelu")),
    "norm out",
)  # fmt: skip
"""Where the encoder uses a unit, in order of execution: its kind, then its place."""


class Units(Protocol):
    """What computes the three functions; `site` is the place in the encoder."""

    def softmax(self, site: str, x: tf.Tensor) -> tf.Tensor:
        """Softmax along the last axis."""

    def norm(self, site: str, x: tf.Tensor) -> tf.Tensor:
        """Layer normalisation along the last axis, without gain and bias."""

    def gelu(self, site: str, x: tf.Tensor) -> tf.Tensor:
        """GELU with the error function."""


class FloatUnits:
    """TensorFlow's functions in single precision."""

    def softmax(self, site: str, x: tf.Tensor) -> tf.Tensor:
        """See `Units`."""
        return tf.nn.softmax(x)

    def norm(self, site: str, x: tf.Tensor) -> tf.Tensor:
        """See `Units`."""
        mean, variance = tf.nn.moments(x, axes=[-1], keepdims=True)
        return (x - mean) / tf.sqrt(variance + EPSILON)

    def gelu(self, site: str, x: tf.Tensor) -> tf.Tensor:
        """See `Units`."""
        return tf.nn.gelu(x)


class Encoder(tf.keras.Model):
    """Patches of 2x2 pixels, two blocks of attention and dense layers, the mean, ten scores.

    Each block adds attention(norm(x)) and dense(gelu(dense(norm(x)))) to its input.
    """

    def __init__(self) -> None:
        """Make the layers; their weights follow with the first call."""
        super().__init__()
        dense = tf.keras.layers.Dense
        self.embed = dense(WIDTH)
        self.place = self.add_weight(shape=(TOKENS, WIDTH), initializer="random_normal")
        self.query_key_value = [dense(3 * WIDTH) for _ in range(BLOCKS)]
        self.mix = [dense(WIDTH) for _ in range(BLOCKS)]
        self.widen = [dense(HIDDEN) for _ in range(BLOCKS)]
        self.narrow = [dense(WIDTH) for _ in range(BLOCKS)]
        self.score = dense(CLASSES)

    def call(self, images: tf.Tensor) -> tf.Tensor:
        """Scores [n, 10] of float images [n, 8, 8, 1], in float."""
        return self.scores(images, FloatUnits())

    def scores(self, images: tf.Tensor, units: Units) -> tf.Tensor:
        """Scores [n, 10] of float images [n, 8, 8, 1] with the given units."""
        patches = tf.nn.space_to_depth(images, PATCH)
        x = self.embed(tf.reshape(patches, [-1, TOKENS, PATCH * PATCH])) + self.place
        for block in range(BLOCKS):
            name = str(block + 1)
            x += self._attend(block, units.norm(f"norm a {name}", x), units)
            hidden = self.widen[block](units.norm(f"norm b {name}", x))
            x += self.narrow[block](units.gelu(f"gelu {name}", hidden))
        return self.score(tf.reduce_mean(units.norm("norm out", x), axis=1))

    def _attend(self, block: int, x: tf.Tensor, units: Units) -> tf.Tensor:
        """Attention of all tokens to each other, [n, tokens, width] to the same."""
        size = WIDTH // HEADS
        parts = tf.reshape(self.query_key_value[block](x), [-1, TOKENS, 3, HEADS, size])
        query, key, value = tf.unstack(tf.transpose(parts, [2, 0, 3, 1, 4]))
        scores = tf.matmul(query, key, transpose_b=True) / size**0.5
        mixed = tf.matmul(units.softmax(f"softmax {block + 1}", scores), value)
        return self.mix[block](tf.reshape(tf.transpose(mixed, [0, 2, 1, 3]), [-1, TOKENS, WIDTH]))


def train(digits: Dataset, seed: int, epochs: int, finished: Callable[[int], None]) -> Encoder:
    """Train from scratch and call `finished` after each epoch; a seed gives the same weights."""
    tf.keras.utils.set_random_seed(seed)
    tf.config.experimental.enable_op_determinism()
    encoder = Encoder()
    steps = epochs * -(-len(digits.train_labels) // 32)
    schedule = tf.keras.optimizers.schedules.CosineDecay(3e-3, steps)
    encoder.compile(
        optimizer=tf.keras.optimizers.Adam(schedule),
        loss=tf.keras.losses.SparseCategoricalCrossentropy(from_logits=True),
    )
    encoder.fit(
        digits.train_images, digits.train_labels, batch_size=32, epochs=epochs,
        verbose=0,
        callbacks=[tf.keras.callbacks.LambdaCallback(on_epoch_end=lambda n, _: finished(n + 1))],
    )  # fmt: skip
    return encoder


def predict(encoder: Encoder, images: np.ndarray, units: Units) -> np.ndarray:
    """Class of each float image [n, 8, 8, 1], int64 [n]."""
    return encoder.scores(images, units).numpy().argmax(axis=-1)
