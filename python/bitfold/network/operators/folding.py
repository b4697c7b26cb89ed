# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What depends on no data is computed at import: the arithmetic on shapes, constants moved about.

Converters write the sizes of a batch that they do not know as operators on the shapes of tensors.
A network computes an image by itself, so these sizes are known.
"""

from __future__ import annotations

import math
from collections.abc import Callable, Iterator

import numpy as np

from bitfold.network.graph import Node

_TYPES = ("int32", "int64", "bool")
# The arithmetic on shapes is about a few numbers; the results of so many are still small.
_MOST_OPERANDS = 1024
_MOST_RESULTS = 1 << 20


def _axis(node: Node, rank: int, name: str = "axis") -> int:
    axis = int(node.option(name, 0) or 0)
    return axis + rank if axis < 0 else axis


def _shape(node: Node) -> list[np.ndarray]:
    return [np.array(node.inputs[0].shape, node.outputs[0].dtype)]


def _elementwise(function: Callable) -> Callable[[Node], list[np.ndarray]]:
    def fold(node: Node) -> list[np.ndarray]:
        return [function(*(tensor.data for tensor in node.inputs))]

    return fold


def _reduced(function: Callable) -> Callable[[Node], list[np.ndarray]]:
    def fold(node: Node) -> list[np.ndarray]:
        data, axes = node.inputs[0].data, node.inputs[1].data
        axes = tuple(int(axis) for axis in np.reshape(axes, -1))
        keep = bool(node.option("keep_dims"))
        return [np.asarray(function(data, axis=axes, keepdims=keep), data.dtype)]

    return fold


def _gather(node: Node) -> list[np.ndarray]:
    data, indices = node.inputs[0].data, node.inputs[1].data
    axis = _axis(node, data.ndim)
    return [np.take(data, indices, axis=axis)]


def _pack(node: Node) -> list[np.ndarray]:
    arrays = [tensor.data for tensor in node.inputs]
    return [np.stack(arrays, _axis(node, arrays[0].ndim + 1))]


def _unpack(node: Node) -> list[np.ndarray]:
    data = node.inputs[0].data
    axis = _axis(node, data.ndim)
    return [np.take(data, i, axis=axis) for i in range(data.shape[axis])]


def _concatenate(node: Node) -> list[np.ndarray]:
    arrays = [tensor.data for tensor in node.inputs]
    return [np.concatenate(arrays, _axis(node, arrays[0].ndim))]


def _cast(node: Node) -> list[np.ndarray]:
    return [node.inputs[0].data.astype(node.outputs[0].dtype)]


def _fill(node: Node) -> list[np.ndarray]:
    return [np.full(tuple(node.inputs[0].data), node.inputs[1].data)]


def _range(node: Node) -> list[np.ndarray]:
    start, limit, delta = (int(np.reshape(tensor.data, ())) for tensor in node.inputs)
    return [np.arange(start, limit, delta, dtype=node.outputs[0].dtype)]


def _select(node: Node) -> list[np.ndarray]:
    return [np.where(*(tensor.data for tensor in node.inputs))]


# What is folded on whole numbers, and how.
FOLDS: dict[str, Callable[[Node], list[np.ndarray]]] = {
    "ADD": _elementwise(np.add),
    "CAST": _cast,
    "CONCATENATION": _concatenate,
    "EQUAL": _elementwise(np.equal),
    "FILL": _fill,
    "FLOOR_DIV": _elementwise(np.floor_divide),
    "GATHER": _gather,
    "GREATER": _elementwise(np.greater),
    "GREATER_EQUAL": _elementwise(np.greater_equal),
    "LESS": _elementwise(np.less),
    "LESS_EQUAL": _elementwise(np.less_equal),
    "MAXIMUM": _elementwise(np.maximum),
    "MINIMUM": _elementwise(np.minimum),
    "MUL": _elementwise(np.multiply),
    "NOT_EQUAL": _elementwise(np.not_equal),
    "PACK": _pack,
    "RANGE": _range,
    "REDUCE_MAX": _reduced(np.max),
    "REDUCE_MIN": _reduced(np.min),
    "REDUCE_PROD": _reduced(np.prod),
    "SELECT": _select,
    "SELECT_V2": _select,
    "SHAPE": _shape,
    "SUB": _elementwise(np.subtract),
    "SUM": _reduced(np.sum),
    "UNPACK": _unpack,
}


def folds(node: Node) -> bool:
    """Return whether an operator is arithmetic on shapes whose operands are known."""
    if node.kind == "SHAPE":
        return len(node.inputs) == len(node.outputs) == 1 and node.inputs[0] is not None
    return node.kind in FOLDS and all(
        tensor is not None and tensor.is_constant and tensor.dtype.name in _TYPES
        for tensor in node.inputs
    )


def problems(node: Node) -> Iterator[str]:
    """Yield why an operator that folds would take more than such arithmetic needs."""
    if node.kind == "SHAPE":
        return
    # What has no elements can be long all the same, and with it the result of a reduction.
    long = [t for t in node.inputs if math.prod(max(n, 1) for n in t.shape) > _MOST_OPERANDS]
    yield from (f"need at most {_MOST_OPERANDS} elements, got {tensor}" for tensor in long)
    results = 0 if long else _results(node)
    if results > _MOST_RESULTS:
        yield f"need at most {_MOST_RESULTS} elements as a result, got {results:.0f}"


def _results(node: Node) -> float:
    """Return how many elements the results have; 0 where the operands' sizes bound it."""
    if node.kind == "FILL" and len(node.inputs) == 2:
        return np.prod(node.inputs[0].data, dtype=np.float64)
    if node.kind == "RANGE" and len(node.inputs) == 3:
        start, limit, delta = (float(tensor.data.reshape(-1)[0]) for tensor in node.inputs)
        return (limit - start) / delta if delta else np.inf
    if node.kind in ("CONCATENATION", "PACK"):
        return sum(tensor.data.size for tensor in node.inputs)
    if node.kind in ("SELECT", "SELECT_V2"):
        return math.prod(np.broadcast_shapes(*(tensor.shape for tensor in node.inputs)))
    return 0


def fold(node: Node) -> list[np.ndarray]:
    """Return the outputs.

    Raises:
        ValueError, TypeError, IndexError, OverflowError: for operands that do not fit together.
    """
    with np.errstate(all="ignore"):
        return FOLDS[node.kind](node)
