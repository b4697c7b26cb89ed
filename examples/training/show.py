# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""What the demonstration shows: tables, picture and JSON."""

from __future__ import annotations

import dataclasses
import json
from pathlib import Path

import matplotlib.pyplot as plt
from matplotlib.axes import Axes
from rich.console import Console
from rich.table import Table

from console import COLOURS, table_style
from learning import State, Trained

GREY = "#666666"


@dataclasses.dataclass(frozen=True)
class Results:
    """All that was measured.

    Attributes:
        dataset: its name.
        images: how many test images there were.
        float_accuracy: of the float network.
        before: the float network on bits.
        trained: the networks that were trained on, widest accumulator first.
    """

    dataset: str
    images: int
    float_accuracy: float
    before: State
    trained: list[Trained]


def print_accuracies(console: Console, results: Results) -> None:
    """Print accuracies by accumulator width."""
    table = Table(
        title=f"Accuracy on {results.images:,} test images by accumulator width",
        caption=f"The float network: {results.float_accuracy:.2%}.",
        box=table_style(console),
    )
    table.add_column("accumulator")
    table.add_column("trained in floats", justify="right")
    for trained in results.trained:
        table.add_column(f"trained for\n{trained.width} bits", justify="right")
    for width, accuracy in sorted(results.before.accuracy.items(), reverse=True):
        rows = (trained.after.accuracy[width] for trained in results.trained)
        table.add_row(f"{width} bits", f"{accuracy:.2%}", *(f"{row:.2%}" for row in rows))
    console.print(table)


def print_proofs(console: Console, results: Results) -> None:
    """Print what training did at the width that it was for, and the proof."""
    table = Table(
        title="At the accumulator that a network was trained for",
        caption="Bounded: the weights as they were before, with scales that keep sums within the "
        "accumulator.\nProven: bits with which no input can give a wrong sum, the widest layer's.",
        box=table_style(console),
    )
    table.add_column("accumulator")
    for heading in ("before", "bounded", "trained", "to float", "proven\nbefore", "proven", "s"):
        table.add_column(heading, justify="right")
    for trained in results.trained:
        width, after = trained.width, trained.after
        accuracy = after.accuracy[width]
        table.add_row(
            f"{width} bits",
            f"{results.before.accuracy[width]:.2%}",
            f"{trained.bounded:.2%}",
            f"{accuracy:.2%}",
            f"{100 * (accuracy - results.float_accuracy):+.2f}",
            str(max(results.before.proven.values())),
            str(max(after.proven.values())),
            f"{trained.seconds:.0f}",
        )
    console.print(table)


def write_picture(path: Path, results: Results) -> None:
    """Draw accuracies by width, and the bits with which each layer is proven."""
    figure, (left, right) = plt.subplots(
        1, 2, figsize=(12.5, 4.6), layout="constrained", width_ratios=(3, 2)
    )
    _draw_accuracies(left, results)
    _draw_proofs(right, results)
    for axes in (left, right):
        axes.spines[["top", "right"]].set_visible(False)
        axes.grid(axis="y", color="#dddddd")
        axes.set_axisbelow(True)
    figure.legend(
        *left.get_legend_handles_labels(), loc="outside lower center", ncols=4, frameon=False
    )
    figure.savefig(path, dpi=80)
    plt.close(figure)


def _draw_accuracies(axes: Axes, results: Results) -> None:
    """Draw a line for the network before and for each that was trained on."""
    percent = {width: 100 * value for width, value in results.before.accuracy.items()}
    axes.axhline(100 * results.float_accuracy, color="black", linestyle=":", linewidth=1)
    axes.annotate(
        "float", (max(percent), 100 * results.float_accuracy), (0, 4),
        textcoords="offset points", ha="right", fontsize=9,
    )  # fmt: skip
    axes.plot(*_points(percent), color=GREY, marker="o", label="trained in floats")
    for trained, colour in zip(results.trained, COLOURS, strict=False):
        percent = {width: 100 * value for width, value in trained.after.accuracy.items()}
        axes.plot(
            *_points(percent), color=colour, marker="o", markersize=4,
            label=f"then through {trained.width} bits",
        )  # fmt: skip
        axes.plot(trained.width, percent[trained.width], "o", color=colour, markersize=11)
    axes.set(xlabel="accumulator, bits", ylabel="accuracy, %", ylim=(0, 100))
    axes.set_xticks(sorted(results.before.accuracy))
    axes.set_title(f"{results.dataset}, {results.images:,} test images")


def _points(values: dict[int, float]) -> tuple[list[int], list[float]]:
    """Return abscissae and ordinates in order."""
    return sorted(values), [values[width] for width in sorted(values)]


def _draw_proofs(axes: Axes, results: Results) -> None:
    """Draw for each layer the bits that no input can leave."""
    names = list(results.before.proven)
    places = range(len(names))
    axes.plot([results.before.proven[n] for n in names], places, "o", color=GREY)
    for trained, colour in zip(results.trained, COLOURS, strict=False):
        axes.axvline(trained.width, color=colour, linewidth=1)
        axes.plot([trained.after.proven[n] for n in names], places, "o", color=colour)
    axes.set_yticks(places, names)
    axes.invert_yaxis()
    axes.set(xlabel="bits with which no input can give a wrong sum", title="Proven, by layer")


def write_json(path: Path, results: Results) -> None:
    """Write every number to a JSON file."""
    path.write_text(json.dumps(dataclasses.asdict(results), indent=2) + "\n", encoding="utf-8")
