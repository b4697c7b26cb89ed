# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Gives the operands of a concatenation the grids that they were trained with.

The runtime's concatenation has one grid, and its converter lets the layers before it store their
outputs in that one. Where they were trained with others these are put back, and operands are
rescaled by a QUANTIZE of their own before they lie behind one another.
"""

from __future__ import annotations

import dataclasses
from collections.abc import Sequence

import numpy as np

from bitfold.network.graph import Graph, Operator, Quantisation, Tensor

# Operators whose output has the grid of their data.
_KEEPING = (
    "AVERAGE_POOL_2D",
    "MAX_POOL_2D",
    "MIRROR_PAD",
    "PAD",
    "REDUCE_MAX",
    "RESHAPE",
    "STRIDED_SLICE",
    "TRANSPOSE",
)


def with_operand_grids(
    graph: Graph, operator: Operator, name: str, grids: Sequence[tuple[float, int]]
) -> Graph:
    """Return a graph in which the operands of a concatenation have their own grids.

    Args:
        graph: of which `operator` is one.
        operator: the concatenation.
        name: what the layer is called.
        grids: scale and zero point of each operand.
    """
    editor = _Editor(graph)
    inputs = [
        editor.rescaled(index, operator, grid, f"{name}_rescaled")
        for index, grid in zip(operator.inputs, grids, strict=True)
    ]
    return editor.graph(operator, tuple(inputs))


class _Editor:
    """Adds tensors and operators to a graph."""

    def __init__(self, graph: Graph) -> None:
        self._graph = graph
        self._tensors = list(graph.tensors)
        self._added: list[Operator] = []

    def rescaled(self, index: int, operator: Operator, grid: tuple[float, int], name: str) -> int:
        """Return the operand's tensor in the grid of the concatenation."""
        tensor = self._tensors[index]
        producer = self._producer(index)
        if _grid(tensor) == grid or producer is None:
            return index
        if producer.kind == "QUANTIZE" and _grid(self._tensors[producer.inputs[0]]) == grid:
            return index
        self._regrid(index, grid)
        new = dataclasses.replace(
            tensor, index=len(self._tensors), name=f"{_scope(self._output(operator))}/{name}_1/q"
        )
        self._tensors.append(new)
        self._added.append(Operator(0, "QUANTIZE", (index,), (new.index,), {}, 2))
        return new.index

    def graph(self, operator: Operator, inputs: tuple[int, ...]) -> Graph:
        """Return the graph, with other inputs of an operator."""
        operators: list[Operator] = []
        for each in self._graph.operators:
            if each is operator:
                operators += [*self._added, dataclasses.replace(each, inputs=inputs)]
            else:
                operators.append(each)
        numbered = tuple(dataclasses.replace(o, position=i) for i, o in enumerate(operators))
        return dataclasses.replace(self._graph, tensors=tuple(self._tensors), operators=numbered)

    def _regrid(self, index: int, grid: tuple[float, int]) -> None:
        """Give a tensor a grid, and what lies before it as far as the grid is handed on."""
        tensor = self._tensors[index]
        scale, zero_point = grid
        quantisation = Quantisation(np.float32([scale]), np.int64([zero_point]))
        self._tensors[index] = dataclasses.replace(tensor, quantisation=quantisation)
        producer = self._producer(index)
        if producer is not None and producer.kind in _KEEPING:
            self._regrid(producer.inputs[0], grid)

    def _producer(self, index: int) -> Operator | None:
        return next((o for o in self._graph.operators if index in o.outputs), None)

    def _output(self, operator: Operator) -> Tensor:
        return self._tensors[operator.outputs[0]]


def _grid(tensor: Tensor) -> tuple[float, int] | None:
    return (tensor.scale, tensor.zero_point) if tensor.is_quantised else None


def _scope(tensor: Tensor) -> str:
    """Return what the names of a model's tensors begin with."""
    return tensor.name.split(";")[-1].split("/")[0]
