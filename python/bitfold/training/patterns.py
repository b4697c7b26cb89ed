# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Which calls of a Keras model become one layer in integers, as the converter fuses them."""

from __future__ import annotations

import dataclasses
from collections.abc import Iterator
from typing import Any

import keras
from keras import layers

from bitfold.training import activations
from bitfold.training.products import PRODUCTS

# Layers that move elements or take the largest of some: the same on integers.
MOVES = (
    layers.Cropping2D,
    layers.Flatten,
    layers.GlobalMaxPooling2D,
    layers.MaxPooling2D,
    layers.Permute,
    layers.Reshape,
    layers.ZeroPadding2D,
)
# Layers that change elements in training alone.
NOISES = (
    layers.Dropout,
    layers.GaussianDropout,
    layers.GaussianNoise,
    layers.SpatialDropout2D,
)
SUMS = (layers.Add, layers.Subtract)


@dataclasses.dataclass(frozen=True, eq=False)
class Group:
    """Calls that become one layer.

    Attributes:
        kind: "weighted", "sum", "mean", "average", "move", "noise" or "float".
        nodes: the calls, in order.
        activation: that is fused.
        reason: why it stays in floats; "" where it does not.
    """

    kind: str
    nodes: tuple[Any, ...]
    activation: str = "linear"
    reason: str = ""

    @property
    def layer(self) -> Any:
        """The Keras layer of the first call."""
        return self.nodes[0].operation

    @property
    def inputs(self) -> list[Any]:
        """The tensors of the first call."""
        return list(self.nodes[0].input_tensors)

    @property
    def outputs(self) -> list[Any]:
        """The tensors of the last call."""
        return list(self.nodes[-1].outputs)


class Calls:
    """The calls of a functional model."""

    def __init__(self, model: Any) -> None:
        """Take a functional model."""
        self.nodes = [
            node
            for depth in sorted(model._nodes_by_depth, reverse=True)
            for node in model._nodes_by_depth[depth]
            if not node.is_input
        ]
        self._outputs = {id(tensor) for tensor in keras.tree.flatten(model.outputs)}
        self._consumers: dict[int, list[Any]] = {}
        for node in self.nodes:
            for tensor in node.input_tensors:
                self._consumers.setdefault(id(tensor), []).append(node)
        operations = [id(node.operation) for node in self.nodes]
        self._repeated = {key for key in operations if operations.count(key) > 1}

    def is_output(self, tensor: Any) -> bool:
        """Return whether a tensor is an output of the model."""
        return id(tensor) in self._outputs

    def consumers(self, tensor: Any) -> list[Any]:
        """Return the calls that take a tensor."""
        return self._consumers.get(id(tensor), [])

    def groups(self) -> Iterator[Group]:
        """Yield the model's calls in groups, in an order in which they can be made."""
        taken: set[int] = set()
        for node in self.nodes:
            if id(node) in taken:
                continue
            group = self._group(node)
            taken.update(id(part) for part in group.nodes)
            yield group

    def _group(self, node: Any) -> Group:
        layer = node.operation
        if type(layer) in PRODUCTS:
            return self._weighted(node)
        if type(layer) in SUMS:
            return self._sum(node)
        if type(layer) is layers.GlobalAveragePooling2D and _is_last(layer):
            return Group("mean", (node,))
        if type(layer) is layers.AveragePooling2D and _is_last(layer):
            return Group("average", (node,))
        if type(layer) in MOVES and _is_last(layer):
            return Group("move", (node,))
        if type(layer) in NOISES:
            return Group("noise", (node,))
        return Group("float", (node,), reason=f"{type(layer).__name__} is computed in floats")

    def _weighted(self, node: Any) -> Group:
        layer = node.operation
        reason = _weighted_problem(layer, node)
        if id(layer) in self._repeated:
            reason = "the layer is called more than once"
        own = activations.of_function(layer.activation)
        if own is None:
            name = getattr(layer.activation, "__name__", layer.activation)
            reason = reason or f"its activation {name} is not fused"
        if reason:
            return Group("float", (node,), reason=reason)
        nodes = [node]
        if own == "linear":
            following = self._following(nodes[-1])
            if following is not None and _is_folded(following.operation):
                nodes.append(following)
        if own == "linear":
            return self._activated("weighted", nodes)
        return Group("weighted", tuple(nodes), own)

    def _sum(self, node: Any) -> Group:
        shapes = {tuple(tensor.shape[1:]) for tensor in node.input_tensors}
        if len(node.input_tensors) != 2 or len(shapes) != 1:
            return Group("float", (node,), reason="a sum in integers is one of two equal shapes")
        return self._activated("sum", [node])

    def _activated(self, kind: str, nodes: list[Any]) -> Group:
        """Return a group with the activation that follows."""
        following = self._following(nodes[-1])
        name = None if following is None else activations.name_of(following.operation)
        if name is None:
            return Group(kind, tuple(nodes))
        return Group(kind, (*nodes, following), name)

    def _following(self, node: Any) -> Any:
        """Return the one call that takes the output of a call, None where there is another use."""
        tensor = node.outputs[0]
        consumers = self.consumers(tensor)
        if len(consumers) != 1 or self.is_output(tensor) or len(consumers[0].input_tensors) != 1:
            return None
        return None if id(consumers[0].operation) in self._repeated else consumers[0]


def _is_last(layer: keras.layers.Layer) -> bool:
    """Return whether channels come last."""
    return getattr(layer, "data_format", None) in (None, "channels_last")


def _is_folded(layer: keras.layers.Layer) -> bool:
    return type(layer) is layers.BatchNormalization and layer.axis in (-1, 3, (-1,), [-1], (3,))


def _weighted_problem(layer: keras.layers.Layer, node: Any) -> str:
    """Return why a layer with weights stays in floats, "" where it does not."""
    if not _is_last(layer):
        return "its channels come first"
    if getattr(layer, "groups", 1) != 1:
        return "its channels are in groups"
    if isinstance(layer, layers.Dense) and len(node.input_tensors[0].shape) != 2:
        return "its data has more than one dimension beside the batch"
    if getattr(layer, "lora_rank", None) or getattr(layer, "quantization_mode", None):
        return "its kernel is not a plain one"
    if isinstance(layer, layers.DepthwiseConv2D) and len(set(layer.strides)) > 1:
        return "its strides differ, which the stock op does not compute"
    return ""
