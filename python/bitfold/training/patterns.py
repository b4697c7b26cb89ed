# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Which calls of a Keras model become one layer in integers, as the converter fuses them."""

from __future__ import annotations

import dataclasses
from typing import Any

import keras
from keras import layers

from bitfold.training import activations
from bitfold.training.calls import Call, Calls
from bitfold.training.functions import Function, function_of_layer, function_of_name
from bitfold.training.products import PRODUCTS, SEPARABLE

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


@dataclasses.dataclass(frozen=True, eq=False)
class Group:
    """Calls that become one layer.

    Attributes:
        kind: "weighted", "sum", "product", "mean", "average", "move", "noise", "concatenation",
            "function" or "float".
        calls: in order.
        activation: that is fused.
        function: that is computed, or that follows a layer with weights; None where there is none.
        reason: why it stays in floats; "" where it does not.
    """

    kind: str
    calls: tuple[Call, ...]
    activation: str = "linear"
    function: Function | None = None
    reason: str = ""

    @property
    def layer(self) -> Any:
        """The Keras layer of the first call."""
        return self.calls[0].layer

    @property
    def inputs(self) -> tuple[Any, ...]:
        """The tensors of the first call."""
        return self.calls[0].inputs

    @property
    def outputs(self) -> tuple[Any, ...]:
        """The tensors of the last call."""
        return self.calls[-1].outputs

    @property
    def normalisation(self) -> Any:
        """The batch normalisation that is folded, or None."""
        found = [call.layer for call in self.calls[1:]]
        return next((x for x in found if isinstance(x, layers.BatchNormalization)), None)


def groups_of(calls: Calls) -> list[Group]:
    """Return a model's calls in groups, in an order in which they can be made."""
    found: list[Group] = []
    taken: set[int] = set()
    for call in calls.all:
        if id(call) not in taken:
            group = _group(calls, call)
            taken.update(map(id, group.calls))
            found.append(group)
    return found


def _group(calls: Calls, call: Call) -> Group:
    layer = call.layer
    kind = type(layer)
    if kind in PRODUCTS or kind is SEPARABLE:
        return _weighted(calls, call)
    function = function_of_layer(layer)
    if function is not None:
        return Group("function", (call,), function=function)
    if kind in (layers.Add, layers.Subtract):
        return _sum(calls, call)
    if kind is layers.Multiply and len(call.inputs) == 2:
        return _activated(calls, "product", [call])
    if kind is layers.Concatenate:
        return Group("concatenation", (call,))
    if _has_channels_last(layer):
        if kind is layers.GlobalAveragePooling2D:
            return Group("mean", (call,))
        if kind is layers.AveragePooling2D:
            return Group("average", (call,))
        if kind in MOVES:
            return Group("move", (call,))
    if kind in NOISES:
        return Group("noise", (call,))
    return Group("float", (call,), reason=f"{kind.__name__} has no form in integers here")


def _weighted(calls: Calls, call: Call) -> Group:
    layer = call.layer
    function = None
    own = activations.of_function(layer.activation)
    if own is None:
        function, own = function_of_name(layer.activation), "linear"
    reason = _weighted_problem(calls, call)
    if not reason and function is None and activations.of_function(layer.activation) is None:
        name = getattr(layer.activation, "__name__", layer.activation)
        reason = f"its activation {name} has no form in integers here"
    if reason:
        return Group("float", (call,), reason=reason)
    if own != "linear" or function is not None:
        return Group("weighted", (call,), own, function)
    found = [call]
    following = calls.following(call)
    if following is not None and _is_folded(following.layer):
        found.append(following)
    return _activated(calls, "weighted", found)


def _sum(calls: Calls, call: Call) -> Group:
    shapes = {tuple(tensor.shape[1:]) for tensor in call.inputs}
    if len(shapes) != 1 or len(call.inputs) < 2:
        return Group("float", (call,), reason="a sum in integers is one of equal shapes")
    return _activated(calls, "sum", [call])


def _activated(calls: Calls, kind: str, found: list[Call]) -> Group:
    """Return a group with the activation that follows."""
    following = calls.following(found[-1])
    name = None if following is None else activations.name_of(following.layer)
    if name is None:
        return Group(kind, tuple(found))
    return Group(kind, (*found, following), name)


def _has_channels_last(layer: keras.layers.Layer) -> bool:
    return getattr(layer, "data_format", None) in (None, "channels_last")


def _is_folded(layer: keras.layers.Layer) -> bool:
    """Return whether a layer is a batch normalisation of the channels, which come last."""
    axis = getattr(layer, "axis", None)
    axis = axis[0] if isinstance(axis, list | tuple) and len(axis) == 1 else axis
    return type(layer) is layers.BatchNormalization and axis in (-1, 3)


def _weighted_problem(calls: Calls, call: Call) -> str:
    """Return why a layer with weights stays in floats, "" where it does not."""
    layer = call.layer
    if calls.is_repeated(call):
        return "it is called more than once"
    if not _has_channels_last(layer):
        return "its channels come first"
    if getattr(layer, "groups", 1) != 1:
        return "its channels are in groups"
    if isinstance(layer, layers.Dense) and len(call.inputs[0].shape) != 2:
        return "its data has more than one dimension beside the batch"
    if getattr(layer, "lora_rank", None) or getattr(layer, "quantization_mode", None):
        return "its kernel is not a plain one"
    if type(layer) not in (layers.Conv2D, layers.Dense) and len(set(layer.strides)) > 1:
        return "its strides differ, which the stock op does not compute"
    return ""
