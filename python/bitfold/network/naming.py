# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the layers of a network are called, from the names that converters give to tensors.

A converter names a tensor by the path of the operation that it came from, and by several paths,
joined by semicolons, where it fused operations: ``model_1/relu_1/Relu;model_1/conv_1/convolution``.
A layer with weights is called by the path of its weights, and of several, where a normalisation was
folded into them, by that of the convolution; any other layer by the last path of its output's.
"""

from __future__ import annotations

import re
from collections.abc import Collection, Sequence

from bitfold.network.graph import Node, Tensor

# What Keras calls the operations whose weights a normalisation is folded into.
_CONVOLUTIONS = ("convolution", "depthwise")


def layer_names(nodes: Sequence[Node], known: Collection[str] = ()) -> list[str]:
    """Return a name for each node, all different.

    Args:
        nodes: in the file's order.
        known: the names of the model's layers, where these are known.
    """
    paths = [_path(node) for node in nodes]
    # Exported, every layer of a model gets a suffix that it has not in the model.
    named = [path for path in paths if len(path) > 2]
    is_suffixed = bool(named) and all(path[0].endswith("_1") for path in named)
    found = [
        _name(path, is_suffixed, known) or node.kind.lower()
        for node, path in zip(nodes, paths, strict=True)
    ]
    # The layer itself keeps the name; what a converter wrote around it gets a number.
    order = sorted(range(len(nodes)), key=lambda i: (_weights(nodes[i]) is None, i))
    return _made_different(found, order)


def _path(node: Node) -> list[str]:
    """Return the path of the operation that a node came from, [] where the file lost it."""
    weights = _weights(node)
    names = [node.outputs[0].name] if node.outputs else []
    if weights is not None:
        names.append(weights.name)
    for name in reversed(names):
        paths = [path.split("/") for path in name.split(";")]
        path = next((path for path in paths if path[-1] in _CONVOLUTIONS), paths[-1])
        if len(path) > 1:
            return path
    return []


def _weights(node: Node) -> Tensor | None:
    """Return the weights of a layer; whole numbers beside data are sizes, axes and the like."""
    weights = node.input(1)
    is_weights = weights is not None and weights.is_constant and len(weights.shape) > 1
    return weights if is_weights and weights.dtype.name not in ("int32", "int64") else None


def _name(path: list[str], is_suffixed: bool, known: Collection[str]) -> str:
    layers = path[1:-1] or path[:1]
    if not is_suffixed:
        return "/".join(layers)
    stripped = [_without_suffix(part, known) for part in layers]
    for end in range(len(stripped), 0, -1):
        if stripped[end - 1] in known:
            return "/".join(stripped[:end])
    return "/".join(stripped)


def _without_suffix(part: str, known: Collection[str]) -> str:
    """Return a part of a path as the model calls it.

    The suffix is _1, but where another layer has that name: with "dense" and "dense_1" in a model
    the second becomes "dense_1_2".
    """
    plain = part.removesuffix("_1")
    numberless = re.sub(r"_\d+$", "", part)
    return numberless if plain not in known and numberless in known else plain


def _made_different(names: Sequence[str], order: Sequence[int]) -> list[str]:
    """Number the second and further ones of a name, in an order."""
    result = list(names)
    given, taken, numbers = set(names), set(), dict.fromkeys(names, 1)
    for i in order:
        while result[i] in taken:
            numbers[names[i]] += 1
            numbered = f"{names[i]}_{numbers[names[i]]}"
            result[i] = numbered if numbered not in given else result[i]
        taken.add(result[i])
    return result
