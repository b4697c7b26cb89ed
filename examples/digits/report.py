# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""What the study shows: table, picture and JSON."""

from __future__ import annotations

import json
from pathlib import Path

import matplotlib.pyplot as plt
from matplotlib.axes import Axes
from rich.console import Console
from rich.table import Table

from console import COLOURS, MARKERS, table_style
from study import HALF_SHIFTS, SHIFTS, Study


def print_width_table(console: Console, study: Study, float_accuracy: float) -> None:
    """Print accuracy and differing values for every width."""
    table = Table(
        title="Sums that differ from the exact run, by layer and accumulator width",
        caption="Bits needed: narrowest accumulator that holds every final sum of the exact run.",
        box=table_style(console),
    )
    table.add_column("accumulator")
    table.add_column("accuracy", justify="right")
    for name in study.values:
        table.add_column(name, justify="right")
    blank = ["-"] * len(study.values)
    table.add_row("float network", f"{float_accuracy:.2%}", *blank)
    table.add_row("exact", f"{study.exact_accuracy:.2%}", *["0"] * len(blank), end_section=True)
    for result in reversed(study.widths):
        counts = [f"{count:,}" for count in result.differing.values()]
        table.add_row(f"{result.width} bits", f"{result.accuracy:.2%}", *counts)
    table.add_section()
    table.add_row("all values", "", *[f"{count:,}" for count in study.values.values()])
    table.add_row("bits needed", "", *[str(bits) for bits in study.bits_needed.values()])
    console.print(table)


def print_shift_table(console: Console, study: Study) -> None:
    """Print accuracy for every shift and accumulator."""
    table = Table(
        title="Accuracy by shift (addends divided by 2^shift)",
        min_width=50,
        box=table_style(console),
    )
    accuracies = {(s.accumulator, s.shift): s.accuracy for s in study.shifts}
    for heading in ("shift", f"{study.narrow_width} bits", "32 bits", "half precision"):
        table.add_column(heading, justify="right")
    for shift in SHIFTS:
        cells = [f"{accuracies['narrow', shift]:.2%}", f"{accuracies['wide', shift]:.2%}"]
        cells.append(f"{accuracies['half', shift]:.2%}" if shift in HALF_SHIFTS else "-")
        table.add_row(str(shift), *cells)
    console.print(table)


def print_summary(console: Console, study: Study, float_accuracy: float, images: int) -> None:
    """Say in a few sentences what was done and found."""
    enough = _narrowest_harmless(study)
    narrow = {s.shift: s.accuracy for s in study.shifts if s.accumulator == "narrow"}
    target = min(study.exact_accuracy, max(narrow.values()))
    best = min(shift for shift, accuracy in narrow.items() if accuracy >= target)
    console.print(
        f"The float network gets {float_accuracy:.2%} of the {images} test images right; the "
        f"network of whole numbers gets {study.exact_accuracy:.2%} with exact "
        f"sums, and no fewer with {enough} bits or more. "
        f"With {study.narrow_width}-bit accumulators it gets {narrow[0]:.2%}, and "
        f"{narrow[best]:.2%} once every addend is shifted right by {best} bits.",
        soft_wrap=True,
    )


def write_json(path: Path, settings: dict[str, object], study: Study, accuracy: float) -> None:
    """Write every number of the study to a JSON file."""
    content = {"settings": settings, "float_accuracy": accuracy, **study.as_dict()}
    path.write_text(json.dumps(content, indent=2) + "\n", encoding="utf-8")


def write_plot(path: Path, study: Study, float_accuracy: float) -> None:
    """Draw the three panels of the study into a PNG file."""
    with plt.rc_context({"font.size": 11, "axes.grid": True, "grid.alpha": 0.3}):
        figure, axes = plt.subplots(1, 3, figsize=(16, 5.6), layout="constrained")
        _plot_accuracy(axes[0], study, float_accuracy)
        _plot_beyond(axes[1], study)
        _plot_shifts(axes[2], study, float_accuracy)
        for axis in axes:
            axis.spines[["top", "right"]].set_visible(False)
        figure.savefig(path, dpi=110)
        plt.close(figure)


def _plot_accuracy(axes: Axes, study: Study, float_accuracy: float) -> None:
    """Accuracy over the accumulator's width."""
    _draw_baselines(axes, study, float_accuracy)
    widths = [result.width for result in study.widths]
    values = [100 * result.accuracy for result in study.widths]
    axes.plot(widths, values, color=COLOURS[0], marker="o", label="accumulator of that width")
    needed = max(study.bits_needed.values())
    axes.axvline(needed, color=COLOURS[5], linestyle=":",
                 label=f"{needed} bits hold every final sum")  # fmt: skip
    axes.set(title="Accuracy by accumulator width\n(no shift)", xlabel="accumulator width [bits]")
    _finish_accuracy_axis(axes, widths[::2], "center left")


def _plot_beyond(axes: Axes, study: Study) -> None:
    """Share of sums that do not fit by layer over the accumulator's width."""
    widths = [result.width for result in study.widths]
    for name, colour, marker in zip(study.values, COLOURS, MARKERS, strict=False):
        shares = [100 * result.beyond[name] or float("nan") for result in study.widths]
        label = f"{name} ({study.bits_needed[name]} bits hold all)"
        axes.plot(widths, shares, color=colour, marker=marker, markersize=5, label=label)
    axes.set_yscale("log")
    axes.yaxis.set_major_formatter("{x:g}")
    axes.set_ylim(top=200)
    axes.set_xlim(widths[0] - 0.8, widths[-1] + 0.8)
    axes.set_xticks(widths[::2])
    axes.set(
        title="Sums that do not fit, by layer\n(exact run)",
        xlabel="accumulator width [bits]",
        ylabel="share of sums that do not fit [%] (zero not drawn)",
    )
    axes.legend(loc="lower left", fontsize=9.5)


def _plot_shifts(axes: Axes, study: Study, float_accuracy: float) -> None:
    """Accuracy over the shift for the three accumulators."""
    _draw_baselines(axes, study, float_accuracy)
    styles = {
        "wide": ("32-bit accumulator (rounding only)", COLOURS[1], "s", 10, "-"),
        "narrow": (f"{study.narrow_width}-bit accumulator", COLOURS[0], "o", 6, "-"),
        "half": ("half-precision accumulator", COLOURS[5], "x", 9, ":"),
    }
    for key, (label, colour, marker, size, line) in styles.items():
        points = [(s.shift, 100 * s.accuracy) for s in study.shifts if s.accumulator == key]
        axes.plot(*zip(*points, strict=True), color=colour, marker=marker, markersize=size,
                  markeredgewidth=2, markerfacecolor="none" if key == "wide" else colour,
                  linestyle=line, label=label)  # fmt: skip
    shifts = sorted({result.shift for result in study.shifts})
    axes.set(title="Accuracy by shift\n(every addend divided by 2^shift)", xlabel="shift [bits]")
    _finish_accuracy_axis(axes, shifts[::2], "lower right")


def _draw_baselines(axes: Axes, study: Study, float_accuracy: float) -> None:
    """Horizontal lines for the float network and exact sums."""
    axes.axhline(100 * study.exact_accuracy, color="silver", linewidth=4, zorder=1,
                 label=f"exact sums ({study.exact_accuracy:.1%})")  # fmt: skip
    axes.axhline(100 * float_accuracy, color="black", linestyle="--", linewidth=1, zorder=1.5,
                 label=f"float network ({float_accuracy:.1%})")  # fmt: skip


def _finish_accuracy_axis(axes: Axes, ticks: list[int], legend: str) -> None:
    """The parts that both accuracy panels share."""
    axes.set_xticks(ticks)
    axes.set_ylim(0, 104)
    axes.set_ylabel("test accuracy [%]")
    axes.legend(loc=legend, fontsize=9.5)


def _narrowest_harmless(study: Study) -> int:
    """Narrowest width such that it and all wider ones are as accurate as exact sums."""
    narrowest = 32
    for result in reversed(study.widths):
        if result.accuracy < study.exact_accuracy:
            break
        narrowest = result.width
    return narrowest
