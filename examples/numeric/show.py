# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""What the demonstration shows: tables, summary and JSON."""

from __future__ import annotations

import json
from pathlib import Path

from rich.console import Console
from rich.table import Table

from console import table_style
from measure import Study
from units import KINDS

TITLES = {"softmax": "softmax", "norm": "layer norm", "gelu": "GELU"}


def print_units(console: Console, study: Study) -> None:
    """Print the errors of every unit."""
    table = _table(
        console,
        "Units against float, on the activations of the test images",
        "Same inputs: against the float function of the same quantised inputs, below what the "
        "tables state.\nFloat inputs: against the float function before quantisation.",
    )
    for heading in ("unit", "bits"):
        table.add_column(heading)
    for heading in (
        "results", "step", "largest error,\nsame inputs", "stated\nbound",
        "mean error,\nsame inputs", "largest error,\nfloat inputs", "mean error,\nfloat inputs",
    ):  # fmt: skip
        table.add_column(heading, justify="right")
    for result in study.units:
        table.add_row(
            TITLES[result.kind], str(result.bits), f"{result.values:,}",
            *(f"{number:.3g}" for number in (
                result.step, result.largest, result.bound, result.mean, result.largest_whole,
                result.mean_whole,
            )),
            end_section=result.kind == KINDS[-1],
        )  # fmt: skip
    console.print(table)


def print_runs(console: Console, study: Study) -> None:
    """Print accuracy and agreement of the encoder with units emulated."""
    table = _table(console, "The encoder with units emulated", None)
    table.add_column("emulated")
    table.add_column("bits")
    table.add_column("accuracy", justify="right")
    table.add_column("same class as float", justify="right")
    table.add_row("nothing (float)", "-", f"{study.float_accuracy:.2%}", "-", end_section=True)
    for result in study.runs:
        is_all = result.kinds == KINDS
        table.add_row(
            "all three" if is_all else TITLES[result.kinds[0]],
            "16, softmax 8" if is_all and result.bits == 16 else str(result.bits),
            f"{result.accuracy:.2%}",
            f"{result.agreement:.2%}",
            end_section=is_all,
        )
    console.print(table)


def print_summary(console: Console, study: Study, images: int) -> None:
    """Say in a few sentences what was done and found."""
    narrow, wide = (run for run in study.runs if run.kinds == KINDS)
    console.print(
        "A transformer encoder was trained in float. Its softmax, layer normalisation and GELU "
        "were then computed by Bitfold's units with tables from bitfold.tables; everything else "
        f"stayed in float. The float encoder gets {study.float_accuracy:.2%} of the {images} test "
        f"images right. With all units emulated it gets {narrow.accuracy:.2%} in 8 bits, the same "
        f"class as in float for {narrow.agreement:.2%}; with 16 bits for layer normalisation and "
        f"GELU {wide.accuracy:.2%} and {wide.agreement:.2%}.",
        soft_wrap=True,
    )


def write_json(path: Path, settings: dict[str, object], study: Study) -> None:
    """Write every number to a JSON file."""
    content = {"settings": settings, **study.as_dict()}
    path.write_text(json.dumps(content, indent=2) + "\n", encoding="utf-8")


def _table(console: Console, title: str, caption: str | None) -> Table:
    """An empty table: plain characters where stdout is no terminal."""
    return Table(title=title, caption=caption, box=table_style(console))
