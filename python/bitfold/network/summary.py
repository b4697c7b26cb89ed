# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A network as a table for people."""

from __future__ import annotations

import sys
from typing import TYPE_CHECKING, TextIO

from rich.console import Console
from rich.table import Table

if TYPE_CHECKING:
    from bitfold.network.network import Network
    from bitfold.network.records import Layer, Port

# Wide enough for what a layer says, where the output is not a terminal.
_WIDTH = 120


def print_summary(network: Network, file: TextIO | None = None) -> None:
    """Print inputs, layers and outputs."""
    file = sys.stdout if file is None else file
    # In a notebook, too, lines go to the file, not to the page.
    console = Console(file=file, highlight=False, soft_wrap=False, force_jupyter=False)
    if not console.is_terminal:
        console.width = _WIDTH
    for title, ports in (("input", network.inputs), ("output", network.outputs)):
        for port in ports:
            console.print(f"{title} {port.name!r}: {_port(port)}", markup=False)
    console.print(_table(network))
    total = sum(layer.multiply_adds for layer in network.layers)
    console.print(f"{len(network.layers)} operators, {total:,} multiply-adds for one image")
    if any(layer.is_float for layer in network.layers):
        console.print("Operators in float32 are computed by the stock ops.")


def _table(network: Network) -> Table:
    table = Table(box=None, pad_edge=False)
    for heading, justify in (
        ("position", "right"),
        ("layer", "left"),
        ("operator", "left"),
        ("output", "left"),
        ("multiply-adds", "right"),
        ("arithmetic", "left"),
    ):
        table.add_column(heading, justify=justify, overflow="fold")
    for layer in network.layers:
        table.add_row(
            str(layer.position),
            layer.name,
            layer.operator,
            " ".join(_dimensions(shape) for shape in layer.output_shapes),
            f"{layer.multiply_adds:,}" if layer.has_accumulator else "",
            _arithmetic(layer),
        )
    return table


def _arithmetic(layer: Layer) -> str:
    if layer.is_float:
        return "float32, stock op"
    text = repr(layer.arithmetic).removeprefix("Arithmetic(").removesuffix(")")
    if text:
        return text
    return "exact" if layer.has_accumulator else ""


def _dimensions(shape: tuple[int, ...]) -> str:
    return "x".join(map(str, shape))


def _port(port: Port) -> str:
    text = f"{port.dtype.name} {_dimensions(port.shape)}"
    if port.scale is not None:
        text += f", scale {port.scale:.6g}, zero point {port.zero_point}"
    return text
