# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The pictures with a row for each layer: wrong sums, bits, attribution, what a search chose."""

from __future__ import annotations

import bisect
import itertools
import math
from collections.abc import Sequence
from typing import TYPE_CHECKING

from bitfold.studies import drawing, words
from bitfold.studies.drawing import HEAT, NARROW, SERIES, Canvas, KeyEntry, Picture, Size, colour
from bitfold.studies.records import (
    Attribution,
    Counts,
    Findings,
    LayerCounts,
    Narrowest,
    Result,
)

if TYPE_CHECKING:
    from matplotlib.axes import Axes
    from matplotlib.figure import Figure

_BOUNDS = (0.0001, 0.001, 0.01, 0.1, 0.5)
_SHARES = ("up to 0.01%", "up to 0.1%", "up to 1%", "up to 10%", "up to 50%", "more")
# Beyond so many rows values stand above them, too.
_MANY_ROWS = 24
_CELL = 46.0  # the widest column of a map
_TOP, _BOTTOM = 26.0, 40.0
_NO_ERROR, _NO_SIGNAL = words.decibels(math.inf), words.decibels(-math.inf)


# ---- Wrong sums ----------------------------------------------------------------------------------


def wrong_sums(key: str, columns: Sequence[tuple[str, Result]], axis: str) -> Picture | None:
    """Draw a map of layers by arithmetics, coloured by the share of wrong sums.

    Args:
        key: what tells it from other maps of the page.
        columns: what each column is called, and its result.
        axis: what the columns are.

    Returns:
        Two maps side by side: what layers do alone, and end to end. None without layers.
    """
    names = [layer.name for layer in columns[0][1].layers] if columns else []
    if not names:
        return None

    def draw(figure: Figure, size: Size) -> None:
        top = 24 + (20 if len(names) > _MANY_ROWS else 0)
        canvas = Canvas(figure, size, top + len(names) * size.row + _BOTTOM)
        room = drawing.label_width(names, size)
        gap, left = 18, room + 12
        width = min((size.width - left - gap - 6) / 2, _CELL * len(columns))
        for index, title in enumerate(("alone", "end to end")):
            begin = left + index * (width + gap)
            axes = canvas.axes(begin, top, width, len(names) * size.row)
            drawing.draw_rows(canvas, axes, names if not index else [""] * len(names), room)
            _draw_map(axes, columns, is_alone=not index)
            _set_columns(axes, [name for name, _ in columns], width, size.font, len(names))
            axes.set_xlabel(axis)
            canvas.text(begin + width / 2, 10, title, role="ink", align="center", weight="bold")

    none = KeyEntry("none", "heat-0", "box")
    shares = [KeyEntry(text, role, "box") for text, role in zip(_SHARES, HEAT, strict=True)]
    return drawing.both_sizes(key, draw, [none, *shares])


def _draw_map(axes: Axes, columns: Sequence[tuple[str, Result]], is_alone: bool) -> None:
    """Fill a cell for each layer and column, all cells of a colour as one shape."""
    results = [{layer.name: layer for layer in result.layers} for _, result in columns]
    axes.set_xlim(-0.5, len(results) - 0.5)
    cells: dict[str, list[tuple[int, int, int]]] = {}
    for row, name in enumerate(results[0]):
        heats = [_heat(layers.get(name), is_alone) for layers in results]
        column = 0
        for role, run in itertools.groupby(heats):
            end = column + len(list(run))
            cells.setdefault(role, []).append((row, column, end))
            column = end
    for role in sorted(cells):
        drawing.fill_cells(axes, cells[role], role)
    seams = [[i - 0.5 for i in range(len(of) + 1)] for of in (results[0], results)]
    drawing.draw_lines(axes, *seams, edgecolor=colour("surface"), linewidth=1.6, zorder=3)


def _heat(layer: LayerCounts | None, is_alone: bool) -> str:
    """Return the role of a cell's colour."""
    counts = Counts() if layer is None else layer.alone if is_alone else layer.end_to_end
    if not counts.wrong:
        return "heat-0"
    return HEAT[bisect.bisect_left(_BOUNDS, counts.wrong_share)]


def _set_columns(axes: Axes, names: Sequence[str], width: float, font: float, rows: int) -> None:
    """Name as many columns as there is room for."""
    widest = max(drawing.text_width(name, font) for name in names) + 5
    step = max(1, math.ceil(widest * len(names) / width))
    places = range(0, len(names), step)
    axes.set_xticks(places, [names[place] for place in places])
    axes.tick_params(labeltop=rows > _MANY_ROWS)


# ---- Marks along rows ----------------------------------------------------------------------------


def bits(findings: Findings) -> Picture | None:
    """Draw the bits of each layer; None without layers."""
    layers = findings.layers
    if not layers:
        return None
    entries = [
        KeyEntry("needed by the sums seen", SERIES[0], "circle"),
        KeyEntry("on the way", SERIES[1], "tick"),
        KeyEntry("proven, inputs as seen", SERIES[2], "diamond", is_hollow=True),
        KeyEntry("proven, any input", SERIES[3], "square", is_hollow=True),
    ]
    values = [
        [layer.needed for layer in layers],
        [layer.on_the_way for layer in layers],
        [layer.proven_for_range for layer in layers],
        [layer.proven for layer in layers],
    ]
    return _rows_of_bits("bits", [layer.name for layer in layers], entries, values)


def chosen(key: str, findings: Findings, search: Narrowest) -> Picture | None:
    """Draw what a search chose beside what is needed and proven; None without layers."""
    if not search.choices:
        return None
    known = {layer.name: layer for layer in findings.layers}
    entries = [
        KeyEntry("chosen by proof", SERIES[0], "circle"),
        KeyEntry("chosen by measurement", SERIES[5], "diamond"),
        KeyEntry("needed by the sums seen", SERIES[1], "tick"),
        KeyEntry("proven, any input", SERIES[3], "square", is_hollow=True),
    ]
    layers = [known.get(choice.name) for choice in search.choices]
    values = [
        [choice.width if choice.is_proven else None for choice in search.choices],
        [None if choice.is_proven else choice.width for choice in search.choices],
        [layer.needed if layer else None for layer in layers],
        [layer.proven if layer else None for layer in layers],
    ]
    notes = [f"shift {choice.shift}" if choice.shift else "" for choice in search.choices]
    return _rows_of_bits(key, [choice.name for choice in search.choices], entries, values, notes)


def _rows_of_bits(
    key: str,
    names: Sequence[str],
    entries: Sequence[KeyEntry],
    values: Sequence[Sequence[int | None]],
    notes: Sequence[str] = (),
) -> Picture:
    """Draw marks for bits along a row for each name, and notes at the right."""
    seen = [value for of_entry in values for value in of_entry if value is not None]

    def draw(figure: Figure, size: Size) -> None:
        many = len(names) > _MANY_ROWS
        top = _TOP if many else 4
        canvas = Canvas(figure, size, top + len(names) * size.row + _BOTTOM)
        room = drawing.label_width(names, size)
        noted = max((drawing.text_width(note, size.font) for note in notes), default=0)
        side = noted + 8 if noted else 0
        width = size.width - room - 24 - side
        axes = canvas.axes(room + 12, top, width, len(names) * size.row)
        drawing.draw_rows(canvas, axes, names, room)
        low, high = min(seen), max(seen)
        axes.set_xlim(low - 0.7, high + 0.7)
        ticks = drawing.whole_ticks(low, high, 6 if size is NARROW else 16)
        axes.set_xticks(ticks)
        _draw_grid(axes, len(names), ticks)
        _draw_spans(axes, values)
        # What is hollow and large lies below.
        for order, (entry, of_entry) in enumerate(reversed([*zip(entries, values, strict=True)])):
            places = [(x, y) for y, x in enumerate(of_entry) if x is not None]
            if places:
                drawing.draw_marks(axes, places, entry, zorder=2 + order)
        for y, note in enumerate(notes):
            if note:
                canvas.text(size.width - 4, top + (y + 0.5) * size.row, note, align="right")
        axes.set_xlabel("bits")
        axes.tick_params(labeltop=many)

    return drawing.both_sizes(key, draw, entries)


def _draw_grid(axes: Axes, rows: int, ticks: Sequence[float]) -> None:
    drawing.draw_lines(axes, range(rows), ticks, edgecolor=colour("grid"), lw=0.8, zorder=0.5)


def _draw_spans(axes: Axes, values: Sequence[Sequence[int | None]]) -> None:
    """Join the first mark of each row with its last."""
    for y, row in enumerate(zip(*values, strict=True)):
        present = [value for value in row if value is not None]
        if min(present) < max(present):
            axes.plot([min(present), max(present)], [y, y], color=colour("rail"), lw=3.5, zorder=1)


# ---- Attribution ---------------------------------------------------------------------------------


def attribution(key: str, findings: Findings, found: Attribution) -> Picture | None:
    """Draw the signal-to-error ratio by layer, a curve for each cause; None without any."""
    names = [layer.name for layer in findings.layers]
    known = {
        value
        for cause in found.causes
        for name, value in cause.signal_to_error.items()
        if name in names and not math.isnan(value)
    }
    if not known:
        return None
    finite = [value for value in known if math.isfinite(value)] or [0.0]
    marks = ("circle", "square", "up", "diamond", "down", "cross")
    entries = [
        KeyEntry(cause.name, SERIES[i % len(SERIES)], marks[i % len(marks)], "solid")
        for i, cause in enumerate(found.causes)
    ]

    def draw(figure: Figure, size: Size) -> None:
        many = len(names) > _MANY_ROWS
        top = _TOP if many else 4
        canvas = Canvas(figure, size, top + len(names) * size.row + _BOTTOM)
        room = drawing.label_width(names, size)
        side = drawing.text_width(_NO_ERROR, size.font) / 2 if math.inf in known else 8
        width = size.width - room - 16 - side
        axes = canvas.axes(room + 12, top, width, len(names) * size.row)
        drawing.draw_rows(canvas, axes, names, room)
        _set_decibels(axes, finite, known, 5 if size is NARROW else 9)
        _draw_grid(axes, len(names), axes.get_xticks())
        low, high = axes.get_xlim()
        for cause, entry in zip(found.causes, entries, strict=True):
            values = [cause.signal_to_error.get(name, math.nan) for name in names]
            # Without an error the ratio is infinite: such marks stand on the edge.
            places = [min(max(value, low), high) if value == value else value for value in values]
            style = drawing.mark_style(entry.role, entry.mark, size=5.5)
            axes.plot(places, range(len(names)), lw=1, alpha=0.9, clip_on=False, **style)
        axes.set_xlabel("signal to error [dB]")
        axes.tick_params(labeltop=many)

    return drawing.both_sizes(key, draw, entries)


def _set_decibels(axes: Axes, finite: Sequence[float], known: set[float], most: int) -> None:
    """Set the range of an axis of decibels, with a place for what is infinite at its ends."""
    from matplotlib.ticker import MaxNLocator

    low, high = min(finite), max(finite)
    pad = max(1.0, 0.06 * (high - low))
    ticks = [t for t in MaxNLocator(most, steps=[1, 2, 5, 10]).tick_values(low - pad, high + pad)]
    low, high = min(ticks[0], low - pad), max(ticks[-1], high + pad)
    labels = [f"{tick:g}" for tick in ticks]
    room = 1.2 * (ticks[1] - ticks[0])
    if math.inf in known:
        high += room
        ticks, labels = [*ticks, high], [*labels, _NO_ERROR]
    if -math.inf in known:
        low -= room
        ticks, labels = [low, *ticks], [_NO_SIGNAL, *labels]
    axes.set_xlim(low, high)
    axes.set_xticks(ticks, labels)
