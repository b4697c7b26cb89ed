# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The measurements: accumulator widths, shifts and the half-precision accumulator."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import asdict, dataclass

import numpy as np

import emulate
from emulate import Arithmetic, Trace
from model import accuracy
from quantise import QuantisedNetwork

WIDTHS = tuple(range(8, 25))
"""Accumulator widths under test, bits."""

SHIFTS = tuple(range(0, 13))
"""Shifts under test, bits."""

HALF_SHIFTS = tuple(range(0, 7))
"""The same with the half-precision accumulator; its divisor, 2**shift, must stay below 128."""

BITS_SHORT = 4
"""The shift study takes an accumulator this many bits narrower than the network needs."""

RUNS = 1 + 2 * len(WIDTHS) + 2 * len(SHIFTS) + len(HALF_SHIFTS)
"""Runs of the network in the whole study, for a progress bar."""

Report = Callable[[str, int], None]
"""Told what came out, with a line of text, and how many runs that took."""


@dataclass(frozen=True)
class WidthResult:
    """One accumulator width.

    accuracy: share of right predictions with this width everywhere.
    differing: by layer, how many values differ from the 32-bit run.
    wrapped_share: by layer, share of values that differ from the 32-bit run
        when the layer gets that run's own inputs.
    """

    width: int
    accuracy: float
    differing: dict[str, int]
    wrapped_share: dict[str, float]


@dataclass(frozen=True)
class ShiftResult:
    """Accuracy with one shift, for one accumulator ("narrow", "wide" or "half")."""

    accumulator: str
    shift: int
    accuracy: float


@dataclass(frozen=True)
class Study:
    """Everything measured on the operations.

    bits_needed: by layer, narrowest accumulator that holds every final sum of the wide run.
    values: by layer, how many output values the layer has over all images.
    multiply_adds: of the convolutions in one run over one image.
    narrow_width: accumulator width of the shift study, bits.
    """

    wide_accuracy: float
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
    network: QuantisedNetwork, images: np.ndarray, labels: np.ndarray, report: Report
) -> Study:
    """Run every measurement over int32 images [n, 8, 8, 1] with labels [n]."""
    wide = emulate.run(network, images, Arithmetic())
    wide_accuracy = accuracy(wide.predictions, labels)
    report(f"32-bit accumulators: accuracy {wide_accuracy:.2%}", 1)
    bits_needed = {name: _bits_needed(wide.sums[name]) for name in emulate.SUM_NAMES}
    widths = [_measure_width(network, images, labels, wide, bits, report) for bits in WIDTHS]
    narrow_width = max(bits_needed.values()) - BITS_SHORT
    shifts = _measure_shifts(network, images, labels, narrow_width, report)
    values = {name: wide.sums[name].size for name in emulate.SUM_NAMES}
    return Study(
        wide_accuracy=wide_accuracy,
        bits_needed=bits_needed,
        values=values,
        multiply_adds=_multiply_adds(network, wide),
        widths=widths,
        narrow_width=narrow_width,
        shifts=shifts,
    )


def _measure_width(
    network: QuantisedNetwork,
    images: np.ndarray,
    labels: np.ndarray,
    wide: Trace,
    width: int,
    report: Report,
) -> WidthResult:
    """Run the network at one width, first end to end, then layer by layer."""
    arithmetic = Arithmetic(accumulator_size=width)
    whole = emulate.run(network, images, arithmetic)
    result = accuracy(whole.predictions, labels)
    alone = emulate.run(network, images, arithmetic, inputs_from=wide)
    differing = _count_differing(whole, wide)
    wrapped = _count_differing(alone, wide)
    shares = {name: wrapped[name] / wide.sums[name].size for name in wrapped}
    report(f"{width}-bit accumulators: accuracy {result:.2%}", 2)
    return WidthResult(width, result, differing, shares)


def _measure_shifts(
    network: QuantisedNetwork,
    images: np.ndarray,
    labels: np.ndarray,
    narrow_width: int,
    report: Report,
) -> list[ShiftResult]:
    """Accuracy over the shifts for narrow, wide and half-precision accumulators."""
    cases = [("narrow", Arithmetic(narrow_width, shift)) for shift in SHIFTS]
    cases += [("wide", Arithmetic(shift=shift)) for shift in SHIFTS]
    cases += [("half", Arithmetic(shift=shift, half=True)) for shift in HALF_SHIFTS]
    labels_of = {"narrow": f"{narrow_width}-bit", "wide": "32-bit", "half": "half-precision"}
    results = []
    for name, arithmetic in cases:
        predictions = emulate.run(network, images, arithmetic).predictions
        result = ShiftResult(name, arithmetic.shift, accuracy(predictions, labels))
        results.append(result)
        report(
            f"{labels_of[name]} accumulators, addends divided by 2^{result.shift}: "
            f"accuracy {result.accuracy:.2%}",
            1,
        )
    return results


def _count_differing(trace: Trace, wide: Trace) -> dict[str, int]:
    """By layer, how many accumulators are not what they are in the wide run."""
    return {
        name: int(np.count_nonzero(trace.sums[name] != wide.sums[name]))
        for name in emulate.SUM_NAMES
    }


def _multiply_adds(network: QuantisedNetwork, trace: Trace) -> int:
    """Multiply-adds of all convolutions for one image (padding counted as data)."""
    total = 0
    for name, layer in network.layers.items():
        _, height, width, _ = trace.sums[name].shape
        total += layer.filters.size * height * width
    return total


def _bits_needed(sums: np.ndarray) -> int:
    """Narrowest two's complement width that holds every value of an int32 array."""
    largest = max(int(sums.max()), -1 - int(sums.min()), 0)
    return largest.bit_length() + 1
