# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The measurements: each unit against float, and the encoder with units emulated."""

from __future__ import annotations

from dataclasses import asdict, dataclass

import numpy as np

import encoder
from console import Report
from encoder import Encoder, FloatUnits
from units import KINDS, BitfoldUnits, Recorder, Site, prepare

WIDTHS = {8: KINDS, 16: ("norm", "gelu")}
"""The kinds of unit by the bits of their data; softmax has 8 bits always."""

STEPS = sum(2 + len(kinds) for kinds in WIDTHS.values())
"""Reports of `run_study`, for a progress bar."""


@dataclass(frozen=True)
class UnitResult:
    """One kind of unit over all its sites, on the float encoder's activations.

    values: results compared.
    step: real value of one step of the result, the widest of the sites.
    largest, mean: errors against the float function of the same quantised inputs.
    largest_whole, mean_whole: errors against the float function of the float inputs.
    bound: the error that the tables state for these inputs, the largest of the sites.
    """

    kind: str
    bits: int
    sites: int
    values: int
    step: float
    largest: float
    mean: float
    bound: float
    largest_whole: float
    mean_whole: float


@dataclass(frozen=True)
class RunResult:
    """The encoder with some kinds of unit emulated.

    agreement: share of images with the float encoder's class.
    """

    kinds: tuple[str, ...]
    bits: int
    accuracy: float
    agreement: float


@dataclass(frozen=True)
class Study:
    """Everything measured; `sites` and `inputs` serve the picture, by bits and by site."""

    float_accuracy: float
    units: list[UnitResult]
    runs: list[RunResult]
    sites: dict[int, dict[str, Site]]
    inputs: dict[str, np.ndarray]

    def as_dict(self) -> dict[str, object]:
        """Numbers only, for JSON."""
        return {
            "float_accuracy": self.float_accuracy,
            "units": [asdict(result) for result in self.units],
            "runs": [asdict(result) for result in self.runs],
        }


def run_study(
    network: Encoder,
    train_images: np.ndarray,
    images: np.ndarray,
    labels: np.ndarray,
    report: Report,
) -> Study:
    """Measure over float32 images [n, 8, 8, 1]; scales come from the training images."""
    calibration, recorder = Recorder(), Recorder()
    encoder.predict(network, train_images, calibration)
    expected = encoder.predict(network, images, recorder)
    results, runs, prepared = [], [], {}
    for bits, measured in WIDTHS.items():
        sites = prepared[bits] = prepare(calibration.inputs, bits)
        results += [_measure_unit(kind, bits, sites, recorder.inputs) for kind in measured]
        report(f"{bits} bits: units against float measured", 1)
        for kinds in (*((kind,) for kind in measured), KINDS):
            predictions = encoder.predict(network, images, BitfoldUnits(sites, kinds))
            result = RunResult(
                kinds, bits, _share(predictions == labels), _share(predictions == expected)
            )
            runs.append(result)
            report(f"{bits} bits, {', '.join(kinds)} emulated: {result.accuracy:.2%}", 1)
    return Study(_share(expected == labels), results, runs, prepared, recorder.inputs)


def float_result(site: Site, name: str, x: np.ndarray) -> np.ndarray:
    """The float function of a site for real inputs."""
    return getattr(FloatUnits(), site.kind)(name, x).numpy()


def _share(right: np.ndarray) -> float:
    return float(np.mean(right))


def _measure_unit(
    kind: str, bits: int, sites: dict[str, Site], inputs: dict[str, np.ndarray]
) -> UnitResult:
    """Compare one kind of unit with its function at every site."""
    errors, whole, bounds, steps = [], [], [], []
    for name, site in sites.items():
        if site.kind != kind:
            continue
        x = site.quantise(inputs[name])
        result = site.run(x)
        errors.append(np.abs(result - float_result(site, name, x * site.input_scale)).ravel())
        whole.append(np.abs(result - float_result(site, name, inputs[name])).ravel())
        bounds.append(site.bound(x))
        steps.append(site.table.output_scale)
    error, error_whole = np.concatenate(errors), np.concatenate(whole)
    return UnitResult(
        kind, bits, len(errors), error.size, max(steps), float(error.max()), float(error.mean()),
        max(bounds), float(error_whole.max()), float(error_whole.mean()),
    )  # fmt: skip
