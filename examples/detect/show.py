# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""What the demonstration shows: tables, summary, picture and JSON."""

from __future__ import annotations

import json
from pathlib import Path

import matplotlib.pyplot as plt
import numpy as np
from matplotlib.axes import Axes
from matplotlib.patches import Rectangle
from rich.console import Console
from rich.table import Table

from bitfold.detection import Detections
from compare import MATCHING_IOU, Agreement, Study
from console import COLOURS, table_style

STAGES = ("proposals", "faces")


def print_agreement(console: Console, study: Study) -> None:
    """Print how the emulated detector with 32-bit accumulators agrees with the float one."""
    table = _table(
        console,
        "Emulated in int8 with 32-bit accumulators, against float",
        f"Matched: pairs with an intersection over union (IoU) of at least {MATCHING_IOU}; the "
        "columns after it are theirs.",
    )
    table.add_column("boxes")
    for heading in (
        "float", "emulated", "matched", "mean IoU", "largest score\ndifference",
        "mean score\ndifference",
    ):  # fmt: skip
        table.add_column(heading, justify="right")
    for stage in STAGES:
        row: Agreement = getattr(study.widths[0], stage)
        table.add_row(
            stage, str(row.float_boxes), str(row.boxes), str(row.matched),
            *map(_number, (row.mean_iou, row.largest_difference, row.mean_difference)),
        )  # fmt: skip
    console.print(table)


def print_widths(console: Console, study: Study) -> None:
    """Print boxes and differing values for every width."""
    table = _table(
        console,
        "Boxes and accumulators by accumulator width",
        "Matched: with the float detector's boxes. Differing: from the 32-bit run, on the same "
        f"pictures.\nValues compared: {study.values['proposal']:,} and "
        f"{study.values['refinement']:,}.",
    )
    table.add_column("accumulator")
    for heading in (
        "proposals", "matched", "faces", "matched", "mean IoU",
        "differing,\nproposal network", "differing,\nrefinement network",
    ):  # fmt: skip
        table.add_column(heading, justify="right")
    first = study.widths[0]
    table.add_row(
        "float", str(first.proposals.float_boxes), "-", str(first.faces.float_boxes), *"----",
        end_section=True,
    )  # fmt: skip
    for result in study.widths:
        proposals, faces = result.proposals, result.faces
        table.add_row(
            f"{result.width} bits", str(proposals.boxes), str(proposals.matched),
            str(faces.boxes), str(faces.matched), _number(faces.mean_iou),
            *(f"{share:.4%}" for share in result.differing.values()),
        )  # fmt: skip
    console.print(table)


def print_summary(console: Console, study: Study) -> None:
    """Say in a few sentences what was done and found."""
    adds = study.multiply_adds
    needed = max(max(bits.values(), default=0) for bits in study.bits_needed.values())
    console.print(
        f"One run takes {adds['proposal'] / 1e6:,.0f} million multiply-adds in the proposal "
        f"network and {adds['refinement'] / 1e6:,.0f} million in the refinement network. {needed} "
        f"bits hold every final sum of the convolutions, {study.decoder_bits} those of the box "
        "decoders, which always have that many.",
        soft_wrap=True,
    )


def write_json(path: Path, settings: dict[str, object], study: Study) -> None:
    """Write every number to a JSON file."""
    content = {"settings": settings, **study.as_dict()}
    path.write_text(json.dumps(content, indent=2) + "\n", encoding="utf-8")


def write_picture(path: Path, photo: np.ndarray, study: Study) -> None:
    """Draw the boxes of both detectors, and the faces that a narrow accumulator sees."""
    emulated, narrow = study.results[32], _first_different(study)
    figure, axes = plt.subplots(1, 3, figsize=(16, 5.6), layout="constrained")
    _draw(axes[0], photo, study.float_result.proposals, "float", COLOURS[1], "-")
    _draw(axes[0], photo, emulated.proposals, "emulated", COLOURS[4], "--")
    axes[0].set_title("Proposals")
    _draw(axes[1], photo, study.float_result.faces, "float", COLOURS[1], "-", label=True)
    _draw(axes[1], photo, emulated.faces, "emulated", COLOURS[4], "--", label=True)
    axes[1].set_title("Faces, 32-bit accumulators")
    _draw(axes[2], photo, study.results[narrow].faces, "emulated", COLOURS[4], "--", label=True)
    axes[2].set_title(f"Faces, {narrow}-bit accumulators")
    for axis in axes:
        axis.legend(loc="lower left", fontsize=9.5)
    figure.savefig(path, dpi=80)
    plt.close(figure)


def _draw(
    axes: Axes, photo: np.ndarray, found: Detections, name: str, colour: str, line: str,
    label: bool = False,
) -> None:  # fmt: skip
    """Draw boxes, with their scores where asked for."""
    axes.imshow(photo)
    axes.set_axis_off()
    axes.set_autoscale_on(False)
    axes.plot([], [], color=colour, linestyle=line, linewidth=2,
              label=f"{name} ({len(found.scores)})")  # fmt: skip
    for (y_min, x_min, y_max, x_max), score in zip(found.boxes, found.scores, strict=True):
        axes.add_patch(Rectangle(
            (x_min, y_min), x_max - x_min, y_max - y_min, fill=False, edgecolor=colour,
            linestyle=line, linewidth=2 if label else 1, clip_on=True,
        ))  # fmt: skip
        if label:
            solid = line == "-"
            axes.text(
                x_min if solid else x_max, y_min, f"{score:.3f}", color="black", fontsize=8,
                ha="left" if solid else "right", va="bottom", clip_on=True,
                bbox={"facecolor": colour, "edgecolor": "none", "pad": 1},
            )  # fmt: skip


def _first_different(study: Study) -> int:
    """The widest accumulator that sees more or fewer faces than 32 bits; else the narrowest."""
    expected = study.widths[0].faces.boxes
    different = [result.width for result in study.widths if result.faces.boxes != expected]
    return different[0] if different else study.widths[-1].width


def _number(value: float | None) -> str:
    return "-" if value is None else f"{value:.3f}"


def _table(console: Console, title: str, caption: str) -> Table:
    """An empty table: plain characters where stdout is no terminal."""
    return Table(title=title, caption=caption, box=table_style(console))
