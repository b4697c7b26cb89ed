# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Models that were trained in integers: what their layers tell while they are converted.

Such a layer has the class of a `TrainedLayer` among its bases. Called while a model is exported it
computes in real numbers, with fake quantisation nodes of the ranges that it was trained with, and
notes the integers that it was trained with. The converter makes a file of the nodes; here it is
compared with the notes.
"""

from __future__ import annotations

import contextlib
import contextvars
import dataclasses
from collections.abc import Iterator, Sequence
from typing import Any

import numpy as np

from bitfold.network import naming
from bitfold.network.arithmetic import Arithmetic
from bitfold.network.assemble import assemble
from bitfold.network.graph import Graph, Node, Quantisation, Tensor
from bitfold.network.model_file import read
from bitfold.network.model_packer import pack
from bitfold.network.records import Layer
from bitfold.network.rescaling import with_operand_grids


class TrainedLayer:
    """Marks the layers of models that were trained in integers."""


@dataclasses.dataclass(frozen=True, eq=False)
class Trained:
    """The integers that a layer was trained with.

    Attributes:
        name: of the layer.
        kind: of the operator that it becomes, as CONV_2D.
        data: scale and zero point of the data, or of each operand.
        output: scale and zero point of the output.
        arithmetic: what it was trained in.
        filter: int8, in the layout of a model file; None for a layer without one.
        filter_scales: float32, one for each output.
        axis: the dimension of the filter that counts outputs.
        bias: int32, one for each output.
    """

    name: str
    kind: str
    data: tuple[tuple[float, int], ...]
    output: tuple[float, int]
    arithmetic: Arithmetic = dataclasses.field(default_factory=Arithmetic)
    filter: np.ndarray | None = None
    filter_scales: np.ndarray | None = None
    axis: int = 0
    bias: np.ndarray | None = None


_NOTES: contextvars.ContextVar[list[Trained] | None] = contextvars.ContextVar(
    "bitfold_trained", default=None
)


@contextlib.contextmanager
def exporting() -> Iterator[list[Trained]]:
    """Let layers that are called note what they were trained with; yield the notes."""
    notes: list[Trained] = []
    token = _NOTES.set(notes)
    try:
        yield notes
    finally:
        _NOTES.reset(token)


def notes() -> list[Trained] | None:
    """Return where a layer that is called notes itself; None where no model is exported."""
    return _NOTES.get()


def is_trained(model: Any) -> bool:
    """Return whether a Keras model was made to train in integers."""
    return any(isinstance(layer, TrainedLayer) for layer in getattr(model, "layers", ()))


def known_names(model: Any, trained: list[Trained]) -> list[str]:
    """Return what the layers of a model are called, parts of layers among them."""
    return [
        *(layer.name for layer in model.layers),
        *(record.name.split("/")[-1] for record in trained),
    ]


def integers_for_floats(model: Any, layers: Sequence[Layer]) -> list[str]:
    """Return the layers that were trained in floats and that a network computes in integers.

    The converter stores what lies between tensors whose ranges it knows.

    Args:
        model: the Keras model.
        layers: of the network that was made of it.
    """
    floats = [x.name for x in model.layers if not isinstance(x, TrainedLayer)]
    return [
        name
        for name in floats
        if any(
            layer.name.split("/")[0] == name and not layer.is_float and layer.operator != "QUANTIZE"
            for layer in layers
        )
    ]


def as_trained(file: bytes, trained: list[Trained], known: list[str]) -> bytes:
    """Return a converted file with the integers of training, on bits.

    Args:
        file: what the converter wrote.
        trained: what the layers noted.
        known: what `known_names` returned.

    Returns:
        `file` itself where it holds these integers; else the same graph with the filters, scales
        and biases of training in place of those that differ.

    Raises:
        RuntimeError: a layer is not in the file, or its data or its output has another scale or
            zero point there.
    """
    graph = original = read(file)
    for record in trained:
        if record.kind == "CONCATENATION":
            graph = _with_operand_grids(graph, record, known)
    changed = _differences(graph, trained, known)
    if graph is original and not changed:
        return file
    tensors = tuple(changed.get(tensor.index, tensor) for tensor in graph.tensors)
    graph = dataclasses.replace(graph, tensors=tensors)
    # Layers may share a constant, of which there is one in the file.
    left = _differences(graph, trained, known)
    if left:
        which = ", ".join(str(tensor) for tensor in left.values())
        raise RuntimeError(f"the runtime's converter made one constant for several layers: {which}")
    return pack(graph)


def _with_operand_grids(graph: Graph, record: Trained, known: list[str]) -> Graph:
    nodes = assemble(graph).nodes
    node = _found(record, nodes, naming.layer_names(nodes, known))
    operator = graph.operators[node.operator.position]
    found = [(tensor.scale, tensor.zero_point) for tensor in node.inputs]
    if found == list(record.data):
        return graph
    return with_operand_grids(graph, operator, record.name, record.data)


def _differences(graph: Graph, trained: list[Trained], known: list[str]) -> dict[int, Tensor]:
    """Return by index the constants of a graph that differ from those of training."""
    nodes = assemble(graph).nodes
    names = naming.layer_names(nodes, known)
    changed: dict[int, Tensor] = {}
    for record in trained:
        node = _found(record, nodes, names)
        _require_grids(record, node)
        if record.filter is not None:
            changed.update(_differing(record, node, graph))
    return changed


def _found(record: Trained, nodes: list[Node], names: list[str]) -> Node:
    """Return the operator that a layer became."""
    for node, name in zip(nodes, names, strict=True):
        if node.kind == record.kind and name == record.name:
            return node
    there = ", ".join(f"{name} ({node.kind})" for node, name in zip(nodes, names, strict=True))
    raise RuntimeError(
        f"the runtime's converter wrote no {record.kind} for the trained layer {record.name!r}, "
        f"but {there}"
    )


def _require_grids(record: Trained, node: Node) -> None:
    """Raise unless data and output have the scales that they were trained with."""
    data = [t for t in node.inputs if t is not None and not t.is_constant]
    pairs = [("output", [record.output], node.outputs)]
    # Operands of a concatenation are rescaled.
    if node.kind != "CONCATENATION":
        pairs.append(("data", list(record.data), data))
    for what, grids, tensors in pairs:
        found = [(tensor.scale, tensor.zero_point) for tensor in tensors if tensor.is_quantised]
        if sorted(found) != sorted(grids):
            raise RuntimeError(
                f"the runtime's converter gave the {what} of the trained layer {record.name!r} "
                f"the scales and zero points {found}, not {grids}"
            )


def _differing(record: Trained, node: Node, graph: Graph) -> dict[int, Tensor]:
    """Return the constants of a layer that differ from those of training, as training has them."""
    weights, bias = node.inputs[1], node.input(2)
    changed = {}
    scales = np.broadcast_to(weights.quantisation.scales, record.filter_scales.shape)
    if not (
        np.array_equal(weights.data, record.filter) and np.array_equal(scales, record.filter_scales)
    ):
        changed[weights.index] = _replaced(
            graph.tensors[weights.index], record.filter, record.filter_scales, record.axis
        )
    if bias is None:
        if record.bias.any():
            raise RuntimeError(
                f"the runtime's converter wrote no bias for the trained layer {record.name!r}"
            )
    elif not np.array_equal(bias.data, record.bias):
        units = np.float32(np.float64(record.data[0][0]) * record.filter_scales)
        changed[bias.index] = _replaced(graph.tensors[bias.index], record.bias, units, 0)
    return changed


def _replaced(tensor: Tensor, data: np.ndarray, scales: np.ndarray, axis: int) -> Tensor:
    zeros = np.zeros(scales.size, np.int64)
    quantisation = Quantisation(scales.astype(np.float32), zeros, axis)
    return dataclasses.replace(tensor, data=data.reshape(tensor.shape), quantisation=quantisation)
