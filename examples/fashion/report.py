# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""What the study shows: tables, summary, picture and JSON."""

from __future__ import annotations

import json
import re
from pathlib import Path

import matplotlib.pyplot as plt
import numpy as np
from matplotlib.axes import Axes
from rich.console import Console
from rich.table import Table

from console import COLOURS, MARKERS, table_style
from study import LOOKED_AT, SETTINGS, Study

BINS = 160
_DEPTHWISE = "DEPTHWISE_CONV_2D"


def print_accuracies(console: Console, study: Study, float_accuracy: float) -> None:
    """Print accuracy by width and shift."""
    table = Table(
        title="Accuracy by accumulator width",
        caption="A shift of s bits divides every addend by 2^s before it is added.",
        box=table_style(console),
    )
    table.add_column("accumulator")
    for setting in SETTINGS:
        table.add_column(setting.title.replace(", ", ",\n"), justify="right")
    blank = ["-"] * (len(SETTINGS) - 1)
    table.add_row("float network", f"{float_accuracy:.2%}", *blank)
    table.add_row("exact", f"{study.exact_accuracy:.2%}", *blank, end_section=True)
    for width in reversed(study.widths):
        cells = [f"{study.accuracies[setting][width]:.2%}" for setting in SETTINGS]
        table.add_row(f"{width} bits", *cells)
    console.print(table)


def print_layers(console: Console, study: Study) -> None:
    """Print by layer how many sums a width does not hold."""
    layers = study.layers
    widths = [width for width in reversed(study.widths) if any(x.beyond[width] for x in layers)]
    table = Table(
        title="Sums that an accumulator does not hold, by layer",
        caption="Bits needed: the narrowest accumulator that holds every sum that was seen.",
        box=table_style(console),
    )
    table.add_column("layer")
    for heading in ("sums", "bits\nneeded", *(f"{width} bits" for width in widths)):
        table.add_column(heading, justify="right")
    for layer in layers:
        shares = (layer.beyond[width] for width in widths)
        cells = (f"{share:.2%}" if share else "0" for share in shares)
        table.add_row(layer.name, f"{layer.values:,}", str(layer.bits_needed), *cells)
    console.print(table)


def print_summary(console: Console, study: Study, float_accuracy: float, images: int) -> None:
    """Say in a few sentences what was done and found."""
    needed = max(layer.bits_needed for layer in study.layers)
    plain, *_, best = (study.accuracies[setting] for setting in SETTINGS)
    enough = _narrowest_harmless(study, plain)
    narrower = [f"with {w} it gets {plain[w]:.2%}; " for w in study.widths if w < enough][-1:]
    least = _narrowest_harmless(study, best)
    console.print(
        f"The float network gets {float_accuracy:.2%} of the {images:,} test images right, its "
        f"integers {study.exact_accuracy:.2%}. {needed} bits hold every sum of the "
        f"{min(images, LOOKED_AT):,} images looked at. Down to {enough} bits the network loses at "
        f"most one image in a hundred; {''.join(narrower)}with {SETTINGS[-1].title} it loses no "
        f"more down to {least} bits.",
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
        _plot_layers(axes[1], study)
        _plot_fold(axes[2], study)
        for axis in axes:
            axis.spines[["top", "right"]].set_visible(False)
        figure.savefig(path, dpi=110)
        plt.close(figure)


def _plot_accuracy(axes: Axes, study: Study, float_accuracy: float) -> None:
    """Accuracy over the accumulator's width, a curve for each shift."""
    axes.axhline(100 * study.exact_accuracy, color="silver", linewidth=4, zorder=1,
                 label=f"exact integers ({study.exact_accuracy:.1%})")  # fmt: skip
    axes.axhline(100 * float_accuracy, color="black", linestyle="--", linewidth=1, zorder=1.5,
                 label=f"float network ({float_accuracy:.1%})")  # fmt: skip
    for setting, colour, marker in zip(SETTINGS, COLOURS, MARKERS, strict=False):
        values = [100 * study.accuracies[setting][width] for width in study.widths]
        axes.plot(study.widths, values, color=colour, marker=marker, label=setting.title)
    axes.set(title="Accuracy by accumulator width", xlabel="accumulator width [bits]",
             ylabel="test accuracy [%]", ylim=(0, 104), xticks=study.widths[::2])  # fmt: skip
    axes.legend(loc="lower right", fontsize=9.5)


def _plot_layers(axes: Axes, study: Study) -> None:
    """Share of sums beyond the accumulator by layer; depthwise layers are dashed."""
    names = [re.sub("_(depth|point)wise.*", "", layer.name) for layer in study.layers]
    places = {name: i for i, name in enumerate(dict.fromkeys(names))}
    for layer, name in zip(study.layers, names, strict=True):
        place = places[name] % len(COLOURS)
        shares = [100 * share or float("nan") for share in layer.beyond.values()]
        axes.plot(
            study.widths, shares, color=COLOURS[place], marker=MARKERS[place], markersize=5,
            linestyle="--" if layer.operator == _DEPTHWISE else "-",
            label=f"{layer.name} ({layer.bits_needed} bits hold all)",
        )  # fmt: skip
    axes.set_yscale("log")
    axes.yaxis.set_major_formatter("{x:g}")
    axes.set(title="Sums that do not fit, by layer\n(full-width run)",
             xlabel="accumulator width [bits]", xticks=study.widths[::2],
             ylabel="share of sums that do not fit [%] (zero not drawn)")  # fmt: skip
    axes.legend(loc="upper right", fontsize=9)


def _plot_fold(axes: Axes, study: Study) -> None:
    """What a wrap does to the sums of one layer."""
    fold = study.fold
    limit = 2 ** (fold.width - 1)
    reach = int(np.abs(fold.exact.astype(np.int64)).max())
    edges = np.linspace(-reach, reach, BINS + 1) / 1000
    for sums, colour, label in (
        (fold.exact, COLOURS[0], "exact"),
        (fold.folded, COLOURS[5], f"{fold.width}-bit accumulator"),
    ):
        thousands = sums.ravel() / 1000
        axes.hist(thousands, edges, histtype="step", color=colour, linewidth=1.5, label=label)
    for side in (-limit, limit):
        axes.axvline(side / 1000, color="black", linestyle=":", linewidth=1)
    axes.set_yscale("log")
    axes.set(title=f"What a wrap does to the sums\nof the layer '{fold.layer}'",
             xlabel="sum [thousands]", ylabel="number of sums")  # fmt: skip
    axes.legend(loc="upper right", fontsize=9.5)


def _narrowest_harmless(study: Study, accuracies: dict[int, float]) -> int:
    """Narrowest width such that it and all wider ones lose at most one image in a hundred."""
    narrowest = study.widths[-1]
    for width in reversed(study.widths):
        if accuracies[width] < study.exact_accuracy - 0.01:
            break
        narrowest = width
    return narrowest
