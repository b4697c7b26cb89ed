# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Which tensor of a model in floats a layer of the quantised network stands for.

1. By name: a converter calls the outputs of an operator alike with and without quantisation.
2. By structure, where names differ: the longest sequence of operators that both files have in the
   same order, of one kind, of outputs and weights of one shape, of weights that point the same way.
"""

from __future__ import annotations

import dataclasses
import os
from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np

from bitfold.network import Network, model_file
from bitfold.network.converter import convert_keras_to_floats
from bitfold.network.graph import Graph, Node, Tensor

# The least cosine between weights of 8 bits and what they were rounded from.
_ALIKE = 0.9


@dataclasses.dataclass(frozen=True)
class Partners:
    """The layers of a network with an accumulator, in a model in floats.

    Attributes:
        tensors: by the name of a layer the index of what it writes in the file of the model.
        missing: the names of the layers without a partner.
    """

    tensors: Mapping[str, int]
    missing: tuple[str, ...]


def float_file(model: Any) -> bytes:
    """Return a model in floats as a model file.

    Args:
        model: a Keras model, the path of a model file, or its bytes.

    Raises:
        OSError: for a path that cannot be read.
        TypeError: for a `bitfold.Network`.
        ValueError: for a model that cannot be converted.
    """
    if isinstance(model, Network):
        raise TypeError("Need the model in floats as float_model, got a bitfold.Network")
    if isinstance(model, bytes | bytearray | memoryview):
        return bytes(model)
    if isinstance(model, str | os.PathLike):
        with open(model, "rb") as file:
            return file.read()
    return convert_keras_to_floats(model)


def partners_of(network: Network, floats: Graph) -> Partners:
    """Find the layers with an accumulator in a model in floats."""
    stored = model_file.read(network.model_file)
    layers = [layer for layer in network.layers if layer.has_accumulator]
    nodes = {layer.name: _node(stored, layer.position) for layer in layers}
    # Where images are no rows of their own, they cannot be told apart.
    nodes = {name: node for name, node in nodes.items() if node.outputs[0].shape[:1] == (1,)}
    found = _by_name(nodes, floats)
    taken = set(found.values())
    others = {name: node for name, node in nodes.items() if name not in found}
    free = [
        node
        for node in (_node(floats, operator.position) for operator in floats.operators)
        if node.outputs and node.outputs[0].index not in taken
    ]
    found |= _by_structure(others, free)
    return Partners(
        {layer.name: found[layer.name] for layer in layers if layer.name in found},
        tuple(layer.name for layer in layers if layer.name not in found),
    )


def _node(graph: Graph, position: int) -> Node:
    return Node.of(graph.operators[position], graph.tensors)


def _by_name(nodes: Mapping[str, Node], floats: Graph) -> dict[str, int]:
    """Find the outputs whose name one tensor has that an operator writes, of the same shape."""
    written: dict[str, list[Tensor]] = {}
    for operator in floats.operators:
        for index in operator.outputs:
            tensor = floats.tensors[index]
            written.setdefault(tensor.name, []).append(tensor)
    found = {}
    for name, node in nodes.items():
        same = written.get(node.outputs[0].name, [])
        if len(same) == 1 and _shape(same[0]) == _shape(node.outputs[0]):
            found[name] = same[0].index
    return found


def _by_structure(nodes: Mapping[str, Node], floats: Sequence[Node]) -> dict[str, int]:
    """Find the longest sequence of alike operators."""
    names, stored = list(nodes), list(nodes.values())
    # longest[i][j]: pairs among stored[i:] and floats[j:].
    longest = np.zeros((len(stored) + 1, len(floats) + 1), np.int64)
    alike = np.zeros(longest.shape, bool)
    for i in reversed(range(len(stored))):
        for j in reversed(range(len(floats))):
            alike[i, j] = _are_alike(stored[i], floats[j])
            longest[i, j] = max(
                longest[i + 1, j], longest[i, j + 1], alike[i, j] + longest[i + 1, j + 1]
            )
    found, i, j = {}, 0, 0
    while i < len(stored) and j < len(floats):
        if alike[i, j] and longest[i, j] == 1 + longest[i + 1, j + 1]:
            found[names[i]] = floats[j].outputs[0].index
            i, j = i + 1, j + 1
        elif longest[i + 1, j] >= longest[i, j + 1]:
            i += 1
        else:
            j += 1
    return found


def _are_alike(stored: Node, floats: Node) -> bool:
    """Return whether two operators can be one layer."""
    if stored.kind != floats.kind or _shape(stored.outputs[0]) != _shape(floats.outputs[0]):
        return False
    activation = "fused_activation_function"
    if stored.option(activation) != floats.option(activation):
        return False
    first, second = _weights(stored), _weights(floats)
    if first is None or second is None:
        return first is second
    if first.shape != second.shape:
        return False
    sizes = np.linalg.norm(first) * np.linalg.norm(second)
    return bool(np.vdot(first, second) >= _ALIKE * sizes)


def _weights(node: Node) -> np.ndarray | None:
    """Return an operator's constant weights as real numbers."""
    tensor = node.input(1)
    if tensor is None or not tensor.is_constant:
        return None
    values = tensor.data.astype(np.float64)
    if not tensor.is_quantised or not np.issubdtype(tensor.dtype, np.integer):
        return values
    shape = [1] * values.ndim
    if tensor.quantisation.scales.size > 1:
        shape[tensor.quantisation.axis] = -1
    scales = tensor.quantisation.scales.astype(np.float64).reshape(shape)
    return (values - tensor.quantisation.zero_points.reshape(shape)) * scales


def _shape(tensor: Tensor) -> tuple[int, ...]:
    """Return the shape for an image; of one image or of any number it is the same."""
    return tensor.shape[1:]
