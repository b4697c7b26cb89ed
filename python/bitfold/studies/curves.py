# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The picture of a metric by the width of accumulators."""

from __future__ import annotations

import dataclasses
import itertools
import math
from collections.abc import Iterator, Sequence
from typing import TYPE_CHECKING

from bitfold.studies import drawing, sentences, words
from bitfold.studies.drawing import NARROW, SERIES, Canvas, KeyEntry, Picture, Size, colour
from bitfold.studies.records import Findings
from bitfold.studies.series import all_series, is_mixture, mean_width, other_results

if TYPE_CHECKING:
    from matplotlib.axes import Axes
    from matplotlib.figure import Figure

_MARKS = ("circle", "square", "up", "diamond", "down", "cross")
# Results without a width that get a line of their own.
_MOST_LEVELS = 4
_MOST_MIXTURES = 6


@dataclasses.dataclass(frozen=True)
class _Curve:
    """Something to draw: points with marks, or a level without any."""

    text: str
    role: str
    points: tuple[tuple[float, float], ...] = ()
    level: float | None = None
    mark: str = ""
    line: str = ""

    @property
    def values(self) -> list[float]:
        """All heights that are numbers."""
        found = [value for _, value in self.points]
        found += [] if self.level is None else [self.level]
        return [value for value in found if math.isfinite(value)]

    @property
    def entry(self) -> KeyEntry:
        """What the key says of it."""
        return KeyEntry(self.text, self.role, self.mark, self.line)


def accuracy(findings: Findings) -> Picture | None:
    """Draw the metric by width, a curve for each series; None where there is nothing to draw."""
    curves = [*_references(findings), *_curves(findings)]
    if findings.metric is None or not any(curve.points for curve in curves):
        return None

    factor = 100 if words.is_percentage(findings) else 1
    floor = _floor_of_zoom(findings, curves) if factor == 100 else None

    def draw(figure: Figure, size: Size) -> None:
        high, low = (200, 150) if size is NARROW else (280, 180)
        canvas = Canvas(figure, size, high + 70 + (low + 44 if floor is not None else 0))
        name = words.printable(findings.metric_name or "metric")
        title = f"{name} [%]" if factor == 100 else name
        axes = _panel(canvas, curves, factor, (26, high), title)
        axes.margins(y=0.06)
        if floor is not None:
            axes.tick_params(labelbottom=True)
            axes = _panel(canvas, curves, factor, (high + 70, low), f"{title}, near full width")
            top = max(value for curve in curves for value in curve.values)
            axes.axhspan(factor * (findings.metric - sentences.SMALL_LOSS),
                         factor * findings.metric, color=colour("grid"), zorder=0.3)  # fmt: skip
            axes.set_ylim(factor * floor, factor * (top + 0.08 * (top - floor)))
        axes.set_xlabel("accumulator [bits]")

    entries = [curve.entry for curve in curves]
    if floor is not None:
        loss = words.difference(findings, sentences.SMALL_LOSS)
        entries.append(KeyEntry(f"within {loss} of full width", "grid", "box"))
    return drawing.both_sizes("accuracy", draw, entries)


def _panel(
    canvas: Canvas, curves: Sequence[_Curve], factor: float, place: tuple[float, float], title: str
) -> Axes:
    """Draw all curves into axes of a top and a height."""
    top, height = place
    axes = canvas.axes(46, top, canvas.size.width - 62, height)
    axes.grid(color=colour("grid"), linewidth=0.8)
    for curve in curves:
        _draw_curve(axes, curve, factor)
    _set_widths(axes, curves, 6 if canvas.size is NARROW else 16)
    canvas.text(4, top - 14, title)
    return axes


def _floor_of_zoom(findings: Findings, curves: Sequence[_Curve]) -> float | None:
    """Return where a second look at what is near full width begins; None if one is enough."""
    lowest = min(value for curve in curves for value in curve.values)
    floor = findings.metric - 6 * sentences.SMALL_LOSS
    return floor if lowest < floor - 0.05 else None


def _references(findings: Findings) -> Iterator[_Curve]:
    for name, role, line, value in (
        ("full width", "muted", "solid", findings.metric),
        ("float model", "ink", "dashed", findings.float_metric),
    ):
        if value is not None:
            text = f"{name}: {words.metric(findings, value)}"
            yield _Curve(text, role, level=value, line=line)


def _curves(findings: Findings) -> Iterator[_Curve]:
    """Yield what has results, each in a colour and with a mark of its own."""
    styles = zip(itertools.cycle(SERIES), itertools.cycle(_MARKS), strict=False)
    for series in all_series(findings):
        results = zip(series.widths, series.results, strict=True)
        points = tuple((w, r.metric) for w, r in results if r.metric is not None)
        if points:
            role, mark = next(styles)
            yield _Curve(series.name, role, points, mark=mark, line="solid")
    others = [result for result in other_results(findings) if result.metric is not None]
    for result in [result for result in others if not is_mixture(result)][:_MOST_LEVELS]:
        text = f"{words.printable(result.name)}: {words.metric(findings, result.metric)}"
        yield _Curve(text, next(styles)[0], level=result.metric, line="dotted")
    for result in [result for result in others if is_mixture(result)][:_MOST_MIXTURES]:
        width = mean_width(findings.layers, [x.arithmetic.accumulator_size for x in result.layers])
        if width is not None:
            text = f"{words.printable(result.name)}: mean of {width:.1f} bits"
            yield _Curve(text, next(styles)[0], ((width, result.metric),), mark="diamond")
    for search in findings.searches[:_MOST_MIXTURES]:
        chosen = {choice.name: choice.width for choice in search.choices}
        width = mean_width(findings.layers, [chosen.get(layer.name) for layer in findings.layers])
        if width is not None:
            loss = words.difference(findings, search.metric_loss)
            text = f"narrowest within {loss}: mean of {width:.1f} bits"
            yield _Curve(text, next(styles)[0], ((width, search.metric),), mark="star")


def _draw_curve(axes: Axes, curve: _Curve, factor: float) -> None:
    drawn = colour(curve.role)
    if curve.level is not None:
        is_full = curve.line == "solid"
        axes.axhline(factor * curve.level, color=drawn, ls=curve.line, lw=4 if is_full else 1.5,
                     alpha=0.4 if is_full else 1, zorder=1.5)  # fmt: skip
        return
    widths, values = zip(*curve.points, strict=True)
    size = {"star": 13, "diamond": 8}.get(curve.mark, 6.5) if not curve.line else 6.5
    style = drawing.mark_style(curve.role, curve.mark, size=size)
    axes.plot(widths, [factor * value for value in values], ls=curve.line or "none", lw=1.8,
              zorder=2 if curve.line else 3, **style)  # fmt: skip


def _set_widths(axes: Axes, curves: Sequence[_Curve], most: int) -> None:
    """Give the axis of widths whole numbers, `most` of them or fewer."""
    widths = [width for curve in curves for width, _ in curve.points]
    low, high = int(min(widths)), -int(-max(widths) // 1)
    axes.set_xlim(low - 0.5, high + 0.5)
    axes.set_xticks(drawing.whole_ticks(low, high, most))
