# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Draws the speed of the long chains from the figures of bench/run.py.

.venv/bin/python bench/plot.py build/bench/bench.json build/bench/layers.png
"""

from __future__ import annotations

import json
import pathlib
import sys

import matplotlib.pyplot as plt
from matplotlib.axes import Axes

COLOURS = {"int32": "#0072b2", "float": "#d55e00"}


def draw(axes: Axes, rows: list[dict], values: list[float], title: str, other: str) -> None:
    """Draw a bar for each row on a logarithmic axis, from 1, the other's speed, on."""
    colours = [COLOURS[row["name"].split("/")[1]] for row in rows]
    axes.barh(range(len(rows)), [value - 1 for value in values], left=1, color=colours)
    for y, value in enumerate(values):
        text = f"{value:.0f}" if value >= 10 else f"{value:.2f}"
        side = "left" if value >= 1 else "right"
        axes.annotate(
            text, (value, y), (4 if value >= 1 else -4, 0),
            textcoords="offset points", ha=side, va="center", fontsize=9,
        )  # fmt: skip
    axes.axvline(1, color="black", linewidth=1)
    axes.set_xscale("log")
    axes.set(title=title, xlabel=f"times the speed of {other}")
    axes.set_xlim(min(*values, 1) / 2, max(values) * 2)
    axes.set_ylim(len(rows) - 0.4, -0.6)
    axes.xaxis.set_major_formatter("{x:g}")
    axes.spines[["top", "right"]].set_visible(False)


def main() -> None:
    """Read the figures, write the picture."""
    source, target = map(pathlib.Path, sys.argv[1:3])
    rows = [row for row in json.loads(source.read_text())["rows"] if row["our_layer_seconds"]]
    if not rows:
        return
    size = (15, 1.5 + 0.32 * len(rows))
    figure, (left, right) = plt.subplots(1, 2, figsize=size, sharey=True, layout="constrained")
    to_stock = [row["stock_layer_seconds"] / row["our_layer_seconds"] for row in rows]
    draw(
        left,
        rows,
        to_stock,
        "Against the stock float op",
        "the stock op, among 16 layers in a graph",
    )
    definition = [row["speed_to_definition"] for row in rows]
    draw(right, rows, definition, "Against one step after the other", "the scalar definition")
    left.set_yticks(range(len(rows)), [row["name"].replace("/", ", ") for row in rows])
    handles = [plt.Rectangle((0, 0), 1, 1, color=colour) for colour in COLOURS.values()]
    figure.legend(handles, COLOURS, loc="outside lower center", ncols=2, frameon=False)
    figure.savefig(target, dpi=100)


if __name__ == "__main__":
    main()
