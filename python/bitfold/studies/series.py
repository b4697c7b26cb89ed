# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Results that differ in their width alone, put together: what curves and maps are drawn of."""

from __future__ import annotations

import dataclasses
from collections.abc import Sequence

from bitfold.network import Arithmetic
from bitfold.studies.records import Counts, Findings, LayerBits, Result

_NO_SHIFT = "no shift"
_UNITS = {
    "requantisation": "requantisation by the unit",
    "softmax": "softmax by the unit",
    "activations": "activations by the unit",
    "additions": "additions by the unit",
    "resize": "resizing by the unit",
    "layer_norm": "layer normalisation by the unit",
}


@dataclasses.dataclass(frozen=True)
class Series:
    """Results of one arithmetic for all layers, at several widths.

    Attributes:
        name: what they have in common, as "shift 2".
        results: the narrowest first.
    """

    name: str
    results: tuple[Result, ...]

    @property
    def widths(self) -> tuple[int, ...]:
        """The width of each result."""
        return tuple(width_of(result) or 0 for result in self.results)


def all_series(findings: Findings) -> tuple[Series, ...]:
    """Return the series of some findings, in the order in which they were asked for."""
    groups: dict[Arithmetic, dict[int, Result]] = {}
    for result in findings.results:
        width = width_of(result)
        if width is not None and isinstance(result.arithmetic, Arithmetic):
            common = dataclasses.replace(result.arithmetic, accumulator_size=None)
            groups.setdefault(common, {})[width] = result
    return tuple(
        Series(
            _NO_SHIFT if common == Arithmetic() else describe(common),
            tuple(result for _, result in sorted(group.items())),
        )
        for common, group in groups.items()
    )


def other_results(findings: Findings) -> tuple[Result, ...]:
    """Return the results without one width for all layers: mixtures, and sums of no width."""
    return tuple(result for result in findings.results if width_of(result) is None)


def width_of(result: Result) -> int | None:
    """Return the width of all accumulators; None where layers differ or sums are exact."""
    arithmetic = result.arithmetic
    return arithmetic.accumulator_size if isinstance(arithmetic, Arithmetic) else None


def is_mixture(result: Result) -> bool:
    """Return whether layers differ."""
    return not isinstance(result.arithmetic, Arithmetic)


def mean_width(layers: Sequence[LayerBits], widths: Sequence[int | None]) -> float | None:
    """Return the mean width of accumulators, each weighted by its multiply-adds.

    Returns:
        None where there is a layer without a width, or no layer.
    """
    known = [width for width in widths if width is not None]
    if not layers or len(known) != len(layers):
        return None
    work = [max(layer.multiply_adds, 1) for layer in layers]
    return sum(w * width for w, width in zip(work, known, strict=True)) / sum(work)


def describe(arithmetic: Arithmetic) -> str:
    """Return an arithmetic in words, as "16 bits, shift 2", or "exact"."""
    words = []
    if arithmetic.accumulator_size is not None:
        words.append(f"{arithmetic.accumulator_size} bits")
    if arithmetic.use_fp16_acc:
        words.append("half precision")
    if arithmetic.mult_shift:
        words.append(f"shift {arithmetic.mult_shift}")
    words += [_UNITS[unit] for unit in arithmetic.units]
    return ", ".join(words) or "exact"


def total(result: Result) -> Counts:
    """Return the counts of all layers, end to end."""
    return sum((layer.end_to_end for layer in result.layers), Counts())
