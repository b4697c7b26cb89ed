# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The measurements: accuracy by accumulator width and shift, and the sums of each layer."""

from __future__ import annotations

import dataclasses
from collections.abc import Sequence
from dataclasses import asdict, dataclass

import numpy as np
import tensorflow as tf

import bitfold
from bits import bits_needed, share_beyond
from console import Report


@dataclass(frozen=True)
class Setting:
    """What holds at every width.

    shift: of every addend, bits.
    depthwise_bits: the least accumulator of the depthwise layers.
    """

    shift: int
    depthwise_bits: int = 0

    @property
    def title(self) -> str:
        """A column's heading."""
        title = f"shift {self.shift}" if self.shift else "no shift"
        least = f", depthwise {self.depthwise_bits} bits at least" if self.depthwise_bits else ""
        return title + least


SETTINGS = (Setting(0), Setting(2), Setting(4, depthwise_bits=16))
"""The depthwise unit reads weights as numbers of half the accumulator's width: int8 takes 16."""

CALIBRATION = 500
"""Training images whose ranges the converter takes for the scales."""

LOOKED_AT = 1000
"""Test images whose sums are kept and counted; those of all would take gigabytes."""

FOLD_BITS_SHORT = 3
"""The picture of a wrap takes an accumulator this many bits narrower than the layer needs."""

RUNS = 2
"""Steps of the study besides one for each width and setting, for a progress bar."""


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

    widths: accumulator widths under test, bits.
    accuracies: by setting and width, share of right predictions.
    """

    exact_accuracy: float
    multiply_adds: int
    widths: tuple[int, ...]
    accuracies: dict[Setting, dict[int, float]]
    layers: list[Layer]
    fold: Fold

    def as_dict(self) -> dict[str, object]:
        """Plain dictionaries and lists, for JSON."""
        return {
            "exact_accuracy": self.exact_accuracy,
            "multiply_adds": self.multiply_adds,
            "accuracies": {s.title: by_width for s, by_width in self.accuracies.items()},
            "layers": [asdict(layer) for layer in self.layers],
        }


def run_study(
    model: tf.keras.Model,
    calibration: np.ndarray,
    images: np.ndarray,
    labels: np.ndarray,
    widths: Sequence[int],
    report: Report,
) -> Study:
    """Import a Keras model and measure it over images [n, h, w, 1] with labels [n]."""
    network = bitfold.Network.from_keras(model, calibration=calibration[:CALIBRATION])
    exact = network.evaluate(images, labels)
    report(f"Exact: accuracy {exact:.2%}", 1)

    accuracies: dict[Setting, dict[int, float]] = {setting: {} for setting in SETTINGS}
    for setting in SETTINGS:
        for width in widths:
            accuracy = _narrowed(network, setting, width).evaluate(images, labels)
            accuracies[setting][width] = accuracy
            report(f"{width} bits, {setting.title}: accuracy {accuracy:.2%}", 1)

    sums = network.accumulators(images[:LOOKED_AT])
    summing = [layer for layer in network.layers if layer.has_accumulator]
    layers = [_layer(layer, sums[layer.position], widths) for layer in summing]
    report("Sums counted", 1)
    widest = max(layers, key=lambda layer: layer.bits_needed)
    return Study(
        exact_accuracy=exact,
        multiply_adds=sum(layer.multiply_adds for layer in network.layers),
        widths=tuple(widths),
        accuracies=accuracies,
        layers=layers,
        fold=_fold(network, widest, sums, images),
    )


def _narrowed(network: bitfold.Network, setting: Setting, width: int) -> bitfold.Network:
    """The network at one width, its depthwise layers perhaps at another."""
    arithmetic = bitfold.Arithmetic(accumulator_size=width, mult_shift=setting.shift)
    narrow = network.with_arithmetic(arithmetic)
    if width >= setting.depthwise_bits:
        return narrow
    wider = dataclasses.replace(arithmetic, accumulator_size=setting.depthwise_bits)
    return narrow.with_arithmetic({"DEPTHWISE_CONV_2D": wider})


def _layer(layer: bitfold.network.Layer, sums: np.ndarray, widths: Sequence[int]) -> Layer:
    """Count what each width holds of a layer's sums."""
    beyond = {width: share_beyond(sums, width) for width in widths}
    return Layer(layer.position, layer.name, layer.operator, sums.size, bits_needed(sums), beyond)


def _fold(
    network: bitfold.Network, layer: Layer, sums: dict[int, np.ndarray], images: np.ndarray
) -> Fold:
    """Narrow one layer alone, so that it has the inputs that it has at full width."""
    width = layer.bits_needed - FOLD_BITS_SHORT
    narrow = network.with_arithmetic({layer.name: bitfold.Arithmetic(accumulator_size=width)})
    folded = narrow.accumulators(images[:LOOKED_AT])[layer.position]
    return Fold(layer.name, width, sums[layer.position], folded)
