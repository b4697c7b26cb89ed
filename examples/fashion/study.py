# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The measurements: accuracy by accumulator width and shift, and the sums of each layer."""

from __future__ import annotations

from dataclasses import asdict, dataclass

import numpy as np
import tensorflow as tf

import bitfold
from bits import bits_needed, share_beyond
from console import Report

WIDTHS = tuple(range(14, 25))
"""Accumulator widths under test, bits."""

SHIFTS = (0, 2, 4)
"""Shifts under test, bits."""

CALIBRATION = 500
"""Training images whose ranges the converter takes for the scales."""

LOOKED_AT = 1000
"""Test images whose sums are kept and counted; those of all would take gigabytes."""

FOLD_BITS_SHORT = 3
"""The picture of a wrap takes an accumulator this many bits narrower than the layer needs."""

RUNS = 2 + len(WIDTHS) * len(SHIFTS)
"""Steps of the whole study, for a progress bar."""


@dataclass(frozen=True)
class Layer:
    """A layer's sums at full width.

    values: how many were seen.
    bits_needed: the narrowest accumulator that holds all of them.
    beyond: by width, the share of sums that the accumulator does not hold.
    """

    position: int
    name: str
    operator: str
    values: int
    bits_needed: int
    beyond: dict[int, float]


@dataclass(frozen=True)
class Fold:
    """The sums of one layer at full width, and in a narrow accumulator on the same inputs."""

    layer: str
    width: int
    exact: np.ndarray
    folded: np.ndarray


@dataclass(frozen=True)
class Study:
    """Everything measured; `fold` serves the picture.

    accuracies: by shift and width, share of right predictions.
    """

    exact_accuracy: float
    multiply_adds: int
    accuracies: dict[int, dict[int, float]]
    layers: list[Layer]
    fold: Fold

    def as_dict(self) -> dict[str, object]:
        """Plain dictionaries and lists, for JSON."""
        return {
            "exact_accuracy": self.exact_accuracy,
            "multiply_adds": self.multiply_adds,
            "accuracies": self.accuracies,
            "layers": [asdict(layer) for layer in self.layers],
        }


def run_study(
    model: tf.keras.Model,
    calibration: np.ndarray,
    images: np.ndarray,
    labels: np.ndarray,
    report: Report,
) -> Study:
    """Import a Keras model and measure it over images [n, h, w, 1] with labels [n]."""
    network = bitfold.Network.from_keras(model, calibration=calibration[:CALIBRATION])
    exact = network.evaluate(images, labels)
    report(f"Exact: accuracy {exact:.2%}", 1)

    accuracies: dict[int, dict[int, float]] = {shift: {} for shift in SHIFTS}
    for shift in SHIFTS:
        for width in WIDTHS:
            arithmetic = bitfold.Arithmetic(accumulator_size=width, mult_shift=shift)
            accuracy = network.with_arithmetic(arithmetic).evaluate(images, labels)
            accuracies[shift][width] = accuracy
            report(f"{arithmetic}: accuracy {accuracy:.2%}", 1)

    sums = network.accumulators(images[:LOOKED_AT])
    layers = [_layer(layer, sums[layer.position]) for layer in network.layers if layer.has_accumulator]
    report("Sums counted", 1)
    widest = max(layers, key=lambda layer: layer.bits_needed)
    return Study(
        exact_accuracy=exact,
        multiply_adds=sum(layer.multiply_adds for layer in network.layers),
        accuracies=accuracies,
        layers=layers,
        fold=_fold(network, widest, sums, images),
    )


def _layer(layer: bitfold.network.Layer, sums: np.ndarray) -> Layer:
    """Count what each width holds of a layer's sums."""
    beyond = {width: share_beyond(sums, width) for width in WIDTHS}
    return Layer(layer.position, layer.name, layer.operator, sums.size, bits_needed(sums), beyond)


def _fold(
    network: bitfold.Network, layer: Layer, sums: dict[int, np.ndarray], images: np.ndarray
) -> Fold:
    """Narrow one layer alone, so that it has the inputs that it has at full width."""
    width = layer.bits_needed - FOLD_BITS_SHORT
    narrow = network.with_arithmetic({layer.name: bitfold.Arithmetic(accumulator_size=width)})
    folded = narrow.accumulators(images[:LOOKED_AT])[layer.position]
    return Fold(layer.name, width, sums[layer.position], folded)
