# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""Trains a network through narrow accumulators, and measures what comes of it."""

from __future__ import annotations

import time
from collections.abc import Mapping, Sequence
from dataclasses import dataclass

import tensorflow as tf

import bitfold
from console import Report
from pictures import Dataset

CALIBRATION = 500
"""Training images whose ranges are taken for the scales."""

BATCH = 128
LEARNING_RATE = 2e-3
"""A third of what the float network was trained with; it falls to zero along half a cosine."""


@dataclass(frozen=True)
class State:
    """A network, measured.

    Attributes:
        accuracy: of the test images, by accumulator width.
        proven: by the name of a layer, the bits with which no input can give a wrong sum.
    """

    accuracy: Mapping[int, float]
    proven: Mapping[str, int]


@dataclass(frozen=True)
class Trained:
    """A network that was trained for an accumulator.

    Attributes:
        width: of the accumulator, proven.
        bounded: the accuracy at this width before training, with scales that keep sums within it.
        after: the network when it was trained.
        seconds: that the training took.
    """

    width: int
    bounded: float
    after: State
    seconds: float


def measure(
    network: bitfold.Network, dataset: Dataset, widths: Sequence[int], report: Report
) -> State:
    """Measure a network with accumulators of each width.

    Args:
        network: on bits.
        dataset: whose test images are taken.
        widths: of the accumulators.
        report: told of every width.
    """
    accuracy = {}
    for width in widths:
        narrow = network.with_arithmetic(bitfold.Arithmetic(width))
        accuracy[width] = narrow.evaluate(dataset.test_images, dataset.test_labels)
        report(f"{width} bits: {accuracy[width]:.2%}", 1)
    layers = bitfold.study(network, dataset.test_images).layers
    return State(accuracy, {layer.name: layer.proven for layer in layers})


def accuracy_of(model: tf.keras.Model, dataset: Dataset) -> float:
    """Return the share of test images that a float network is right about."""
    scores = model.predict(dataset.test_images, batch_size=1000, verbose=0)
    return float((scores.argmax(1) == dataset.test_labels).mean())


def train(
    model: tf.keras.Model,
    dataset: Dataset,
    width: int,
    epochs: int,
    widths: Sequence[int],
    report: Report,
) -> Trained:
    """Train a network so that no input can wrap an accumulator, and measure it.

    Args:
        model: the trained float network. It is trained further.
        dataset: the pictures.
        width: of the accumulators.
        epochs: of the training.
        widths: to measure the network at.
        report: told of every epoch and width.
    """
    emulated = bitfold.training.emulate(
        model,
        bitfold.Arithmetic(width),
        calibration=dataset.train_images[:CALIBRATION],
        proven_width=width,
    )
    bounded = bitfold.Network.from_keras(emulated)
    accuracy_before = bounded.evaluate(dataset.test_images, dataset.test_labels)
    steps = epochs * -(-len(dataset.train_labels) // BATCH)
    schedule = tf.keras.optimizers.schedules.CosineDecay(LEARNING_RATE, steps)
    emulated.compile(
        optimizer=tf.keras.optimizers.Adam(schedule),
        loss=tf.keras.losses.SparseCategoricalCrossentropy(from_logits=True),
        metrics=["accuracy"],
    )

    def finished(epoch: int, logs: dict[str, float]) -> None:
        report(f"{width} bits, epoch {epoch + 1}: training accuracy {logs['accuracy']:.2%}", 1)

    started = time.perf_counter()
    emulated.fit(
        dataset.train_images, dataset.train_labels, batch_size=BATCH, epochs=epochs, verbose=0,
        callbacks=[tf.keras.callbacks.LambdaCallback(on_epoch_end=finished)],
    )  # fmt: skip
    seconds = time.perf_counter() - started
    after = measure(bitfold.Network.from_keras(emulated), dataset, widths, report)
    return Trained(width, accuracy_before, after, seconds)
