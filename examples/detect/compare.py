# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The measurements: the emulated detector against the float one, and by accumulator width."""

from __future__ import annotations

from dataclasses import asdict, dataclass

import numpy as np

import integers
from bitfold.detection import Detections
from bits import bits_needed
from cascade import Level, Result, detect, make_pyramid
from console import Report
from floats import FloatArithmetic
from integers import EmulatedArithmetic, IntegerNetwork, quantise
from networks import Network

WIDTHS = tuple(range(20, 11, -1))
"""Accumulators that are compared with those of 32 bits."""

MATCHING_IOU = 0.5

CALIBRATION_FACE = 24
"""The smallest face in the photographs that the scales come from, for windows enough."""

Sums = list[dict[str, np.ndarray]]


@dataclass(frozen=True)
class Agreement:
    """Boxes of one stage beside those of the float detector.

    matched: pairs with an IoU of at least `MATCHING_IOU`, each box in one pair.
    mean_iou, largest_difference, mean_difference: of these pairs and their scores; None without.
    """

    boxes: int
    float_boxes: int
    matched: int
    mean_iou: float | None
    largest_difference: float | None
    mean_difference: float | None


@dataclass(frozen=True)
class WidthResult:
    """One run of the emulated detector.

    differing: by network, the share of accumulators that differ from the 32-bit run's. The
        refinement network is given the cut-outs of that run for this.
    """

    width: int
    proposals: Agreement
    faces: Agreement
    differing: dict[str, float]


@dataclass(frozen=True)
class Study:
    """Everything measured; `float_result` and `results` serve the picture, the latter by width.

    values: by network, the accumulators that `WidthResult.differing` counts.
    bits_needed: by network and layer, the narrowest accumulator that holds every final sum.
    """

    multiply_adds: dict[str, int]
    values: dict[str, int]
    bits_needed: dict[str, dict[str, int]]
    decoder_bits: int
    widths: list[WidthResult]
    float_result: Result
    results: dict[int, Result]

    def as_dict(self) -> dict[str, object]:
        """Numbers only, for JSON."""
        return {
            "multiply_adds": self.multiply_adds,
            "values": self.values,
            "bits_needed": self.bits_needed,
            "decoder_bits": self.decoder_bits,
            "widths": [asdict(result) for result in self.widths],
            "float": _faces(self.float_result),
            "faces": {str(width): _faces(result) for width, result in self.results.items()},
        }


def run_study(
    networks: tuple[Network, Network],
    photo: np.ndarray,
    calibration: list[np.ndarray],
    smallest_face: int,
    report: Report,
) -> Study:
    """Detect faces in a photograph, uint8 [h, w, 3], in every arithmetic."""
    report("Float networks", 0)
    scales = FloatArithmetic(*networks)
    for image in calibration:
        detect(scales, make_pyramid(scales.resize, image, CALIBRATION_FACE))
    rounded = [quantise(network, _largest(scales, network)) for network in networks]
    in_float = FloatArithmetic(*networks)
    expected = detect(in_float, make_pyramid(in_float.resize, photo, smallest_face))
    report(f"Float: {_summary(expected)}", 1)

    results, widths = {}, []
    wide = EmulatedArithmetic(*rounded)
    pyramid = make_pyramid(wide.resize, photo, smallest_face)
    for width in (32, *WIDTHS):
        arithmetic = EmulatedArithmetic(*rounded, width) if width < 32 else wide
        found = results[width] = detect(arithmetic, pyramid)
        differing = {
            "proposal": _differing(arithmetic.sums["proposal"], wide.sums["proposal"]),
            "refinement": _refinement_differing(rounded[1], width, results[32], wide),
        }
        widths.append(
            WidthResult(
                width, agreement(found.proposals, expected.proposals),
                agreement(found.faces, expected.faces), differing,
            )
        )  # fmt: skip
        report(f"{width}-bit accumulators: {_summary(found)}", 1)
    return Study(
        multiply_adds=_multiply_adds(networks, pyramid, len(results[32].crops)),
        values={name: _count(sums) for name, sums in wide.sums.items()},
        bits_needed={name: _bits_needed(sums) for name, sums in wide.sums.items()},
        decoder_bits=wide.decoder_bits,
        widths=widths,
        float_result=expected,
        results=results,
    )


def agreement(found: Detections, expected: Detections) -> Agreement:
    """Pair boxes with each other, the best pairs first."""
    overlaps = _overlaps(found.boxes, expected.boxes)
    pairs = []
    while overlaps.size and (best := overlaps.max()) >= MATCHING_IOU:
        i, j = np.unravel_index(overlaps.argmax(), overlaps.shape)
        overlaps[i], overlaps[:, j] = 0, 0
        pairs.append((best, abs(float(found.scores[i]) - float(expected.scores[j]))))
    counts = (len(found.scores), len(expected.scores), len(pairs))
    if not pairs:
        return Agreement(*counts, None, None, None)
    ious, differences = np.array(pairs).T
    return Agreement(
        *counts, float(ious.mean()), float(differences.max()), float(differences.mean())
    )


def _overlaps(a: np.ndarray, b: np.ndarray) -> np.ndarray:
    """Intersection over union of all pairs."""
    first, second = a[:, np.newaxis], b[np.newaxis]
    low, high = np.maximum(first, second)[..., :2], np.minimum(first, second)[..., 2:]
    common = np.clip(high - low, 0, None).prod(axis=-1)
    areas = [(x[..., 2:] - x[..., :2]).prod(axis=-1) for x in (first, second)]
    return common / (areas[0] + areas[1] - common)


def _largest(arithmetic: FloatArithmetic, network: Network) -> dict[str, np.ndarray]:
    """Largest magnitude of each channel over all runs, by layer."""
    runs = arithmetic.records[network.name]
    return {
        layer.name: np.max([np.abs(run[layer.name]).max(axis=(0, 1, 2)) for run in runs], axis=0)
        for layer in network.layers
    }


def _multiply_adds(
    networks: tuple[Network, Network], pyramid: list[Level], crops: int
) -> dict[str, int]:
    proposal, refinement = networks
    return {
        "proposal": sum(proposal.multiply_adds(*level.image.shape[:2]) for level in pyramid[1:]),
        "refinement": crops * refinement.multiply_adds(refinement.window, refinement.window),
    }


def _refinement_differing(
    network: IntegerNetwork, width: int, result: Result, wide: EmulatedArithmetic
) -> float:
    if not wide.sums["refinement"]:
        return 0.0
    sums = integers.run_network(network, result.crops, width)
    return _differing([sums], wide.sums["refinement"])


def _differing(sums: Sums, expected: Sums) -> float:
    """Share of accumulators that differ."""
    pairs = zip(sums, expected, strict=True)
    count = sum(int((run[name] != other[name]).sum()) for run, other in pairs for name in run)
    return count / _count(expected)


def _count(sums: Sums) -> int:
    return sum(values.size for run in sums for values in run.values())


def _bits_needed(sums: Sums) -> dict[str, int]:
    """Bits with the sign, by layer."""
    bits: dict[str, int] = {}
    for run in sums:
        for name, values in run.items():
            bits[name] = max(bits.get(name, 0), bits_needed(values))
    return bits


def _faces(result: Result) -> dict[str, list]:
    return {"boxes": result.faces.boxes.tolist(), "scores": result.faces.scores.tolist()}


def _summary(result: Result) -> str:
    return f"proposals {len(result.proposals.scores)}, faces {len(result.faces.scores)}"
