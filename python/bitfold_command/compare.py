# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""`bitfold compare`: two networks on data, or two saved studies."""

from __future__ import annotations

import argparse
import dataclasses
import json
from collections.abc import Sequence
from typing import Any

import numpy as np
from rich.console import Console
from rich.markup import escape
from rich.table import Table

import bitfold
from bitfold.network import evaluation
from bitfold_command import data, files

# Wide enough for names, where the output is no terminal.
_WIDTH = 120


@dataclasses.dataclass
class Difference:
    """How the values of a tensor differ between two networks."""

    name: str
    operator: str
    values: int = 0
    differing: int = 0
    largest: int = 0

    def add(self, a: np.ndarray, b: np.ndarray) -> None:
        """Count the values of a batch."""
        apart = np.abs(a.astype(np.int64) - b.astype(np.int64))
        self.values += apart.size
        self.differing += int(np.count_nonzero(apart))
        self.largest = max(self.largest, int(apart.max(initial=0)))


def run(options: argparse.Namespace) -> int:
    """Print where the two differ; 1 where they do."""
    are_studies = [path.lower().endswith(".json") for path in (options.a, options.b)]
    if all(are_studies):
        rows = _studies(bitfold.Study.load(options.a), bitfold.Study.load(options.b))
        columns = ("what", "in", options.a, options.b)
    elif any(are_studies):
        raise ValueError(f"Need two networks or two studies, got {options.a} and {options.b}")
    else:
        if options.data is None:
            raise ValueError("Need --data to compare networks on")
        rows = _networks(options)
        columns = ("layer", "operator", "values", "differing", "largest difference")
    if options.json:
        print(json.dumps([dict(zip(columns, row, strict=True)) for row in rows], indent=2))
    elif rows:
        _print(columns, rows)
    else:
        print("no difference")
    return 1 if rows else 0


def _print(columns: Sequence[str], rows: Sequence[Sequence[Any]]) -> None:
    console = Console(highlight=False)
    if not console.is_terminal:
        console.width = _WIDTH
    table = Table(box=None, pad_edge=False)
    for i, column in enumerate(columns):
        table.add_column(column, justify="left" if i < 2 else "right", overflow="fold")
    for row in rows:
        table.add_row(
            *(f"{cell:,}" if isinstance(cell, int) else escape(str(cell)) for cell in row)
        )
    console.print(table)


# ---- Networks ----------------------------------------------------------------------------------


def _networks(options: argparse.Namespace) -> list[tuple[Any, ...]]:
    """Return the layers that differ; without equal layers the outputs that do."""
    a, b = files.network(options.a), files.network(options.b)
    shapes = [[(port.shape, port.dtype) for port in network.outputs] for network in (a, b)]
    if shapes[0] != shapes[1]:
        raise ValueError(f"Need networks of equal outputs, got {shapes[0]} and {shapes[1]}")
    x, _ = data.of(options, a)
    size = options.batch_size or min(network.batch_size(None) for network in (a, b))
    alike = [
        [(layer.operator, layer.output_shapes, layer.output_indices) for layer in network.layers]
        for network in (a, b)
    ]
    compare = _layers if alike[0] == alike[1] else _outputs
    found = compare(a, b, x, size)
    return [
        (one.name, one.operator, one.values, one.differing, one.largest)
        for one in found
        if one.differing
    ]


def _layers(a: Any, b: Any, x: Any, size: int) -> list[Difference]:
    found = {
        index: Difference(layer.name, layer.operator)
        for layer in a.layers
        for index in layer.output_indices
    }
    with evaluation.progress("compare", evaluation.count_images(x)) as advance:
        for images in evaluation.batches(x, size):
            first, second = a.trace(images), b.trace(images)
            for index, values in first.items():
                if index in found and index in second:
                    found[index].add(values, second[index])
            advance(evaluation.count_images(images))
    return list(found.values())


def _outputs(a: Any, b: Any, x: Any, size: int) -> list[Difference]:
    found = [Difference(port.name, "output") for port in a.outputs]
    with evaluation.progress("compare", evaluation.count_images(x)) as advance:
        for images in evaluation.batches(x, size):
            for one, left, right in zip(found, _stored(a, images), _stored(b, images), strict=True):
                one.add(left, right)
            advance(evaluation.count_images(images))
    return found


def _stored(network: Any, images: Any) -> list[np.ndarray]:
    """Return the stored outputs."""
    traced = network.trace(images)
    return [traced[port.index] for port in network.outputs]


# ---- Studies -----------------------------------------------------------------------------------


def _studies(a: bitfold.Study, b: bitfold.Study) -> list[tuple[str, str, Any, Any]]:
    """Return the numbers that differ: of the whole, of layers, of arithmetics."""
    left, right = _numbers(a.findings), _numbers(b.findings)
    return [
        (*key, left.get(key, ""), right.get(key, ""))
        for key in dict.fromkeys([*left, *right])
        if left.get(key) != right.get(key)
    ]


def _numbers(findings: Any) -> dict[tuple[str, str], Any]:
    found: dict[tuple[str, str], Any] = {
        ("images", ""): findings.images,
        (findings.metric_name or "metric", "full width"): findings.metric,
    }
    for layer in findings.layers:
        for what in ("needed", "on_the_way", "proven"):
            found[f"bits {what.replace('_', ' ')}", layer.name] = getattr(layer, what)
    for result in findings.results:
        found[findings.metric_name or "metric", result.name] = result.metric
        for layer in result.layers:
            place = f"{layer.name}, {result.name}"
            found["wrong sums alone", place] = layer.alone.wrong
            found["wrong sums end to end", place] = layer.end_to_end.wrong
    for one in findings.searches:
        for choice in one.choices:
            place = f"{choice.name}, metric loss {one.metric_loss:g}"
            found["width chosen", place] = choice.width
            found["shift chosen", place] = choice.shift
    return found
