# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The measurements: accumulator widths, shifts and the half-precision accumulator."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import asdict, dataclass

import numpy as np
import tensorflow as tf

import bitfold
from bitfold import Arithmetic
from bits import bits_needed, share_beyond
from console import Report

SHIFTS = tuple(range(0, 13))
"""Shifts under test, bits."""

HALF_SHIFTS = tuple(range(0, 7))
"""The same with the half-precision accumulator, which takes no larger ones."""

BITS_SHORT = 4
"""The shift study takes an accumulator this many bits narrower than the network needs."""

RUNS = 1 + 2 * len(SHIFTS) + len(HALF_SHIFTS)
"""Steps of the study besides one for each width, for a progress bar."""

Sums = dict[str, np.ndarray]


@dataclass(frozen=True)
class WidthResult:
    """One accumulator width.

    accuracy: share of right predictions with this width everywhere.
    differing: by layer, how many sums differ from the exact ones.
    beyond: by layer, share of the exact sums that the accumulator does not hold.
    """

    width: int
    accuracy: float
    differing: dict[str, int]
    beyond: dict[str, float]


@dataclass(frozen=True)
class ShiftResult:
    """Accuracy with one shift, for one accumulator ("narrow", "wide" or "half")."""

    accumulator: str
    shift: int
    accuracy: float


@dataclass(frozen=True)
class Study:
    """Everything measured.

    bits_needed: by layer, narrowest accumulator that holds every final sum.
    values: by layer, how many sums the layer has over all images.
    multiply_adds: of one image in one run.
    narrow_width: accumulator width of the shift study, bits.
    """

    exact_accuracy: float
    bits_needed: dict[str, int]
    values: dict[str, int]
    multiply_adds: int
    widths: list[WidthResult]
    narrow_width: int
    shifts: list[ShiftResult]

    def as_dict(self) -> dict[str, object]:
        """Plain dictionaries and lists, for JSON."""
        return asdict(self)


def run_study(
    model: tf.keras.Model,
    calibration: np.ndarray,
    images: np.ndarray,
    labels: np.ndarray,
    widths: Sequence[int],
    report: Report,
) -> Study:
    """Import a Keras model and run every measurement over images [n, 8, 8, 1], labels [n]."""
    network = bitfold.Network.from_keras(model, calibration=calibration)
    sums = _sums(network, images)
    exact_accuracy = network.evaluate(images, labels)
    report(f"Exact: accuracy {exact_accuracy:.2%}", 1)
    needed = {name: bits_needed(values) for name, values in sums.items()}
    narrow_width = max(needed.values()) - BITS_SHORT
    return Study(
        exact_accuracy=exact_accuracy,
        bits_needed=needed,
        values={name: values.size for name, values in sums.items()},
        multiply_adds=sum(layer.multiply_adds for layer in network.layers),
        widths=[_measure_width(network, images, labels, sums, width, report) for width in widths],
        narrow_width=narrow_width,
        shifts=_measure_shifts(network, images, labels, narrow_width, report),
    )


def _measure_width(
    network: bitfold.Network,
    images: np.ndarray,
    labels: np.ndarray,
    exact: Sums,
    width: int,
    report: Report,
) -> WidthResult:
    """Run the network at one width."""
    arithmetic = Arithmetic(accumulator_size=width)
    narrow = network.with_arithmetic(arithmetic)
    sums = _sums(narrow, images)
    differing = {name: int(np.count_nonzero(sums[name] != exact[name])) for name in exact}
    beyond = {name: share_beyond(values, width) for name, values in exact.items()}
    accuracy = narrow.evaluate(images, labels)
    report(f"{arithmetic}: accuracy {accuracy:.2%}", 1)
    return WidthResult(width, accuracy, differing, beyond)


def _measure_shifts(
    network: bitfold.Network,
    images: np.ndarray,
    labels: np.ndarray,
    narrow_width: int,
    report: Report,
) -> list[ShiftResult]:
    """Accuracy over the shifts for narrow, wide and half-precision accumulators."""
    cases = [("narrow", Arithmetic(narrow_width, shift)) for shift in SHIFTS]
    cases += [("wide", Arithmetic(32, shift)) for shift in SHIFTS]
    cases += [("half", Arithmetic(mult_shift=s, use_fp16_acc=True)) for s in HALF_SHIFTS]
    results = []
    for accumulator, arithmetic in cases:
        accuracy = network.with_arithmetic(arithmetic).evaluate(images, labels)
        results.append(ShiftResult(accumulator, arithmetic.mult_shift, accuracy))
        report(f"{arithmetic}: accuracy {accuracy:.2%}", 1)
    return results


def _sums(network: bitfold.Network, images: np.ndarray) -> Sums:
    """The sums of each layer by its name."""
    names = {layer.position: layer.name for layer in network.layers}
    return {names[position]: sums for position, sums in network.accumulators(images).items()}
