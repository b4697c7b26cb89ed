# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Makes the layers in integers, and calls them as a model calls its own."""

from __future__ import annotations

import dataclasses
from collections.abc import Mapping, Sequence
from typing import Any

import keras

from bitfold.training.calls import Call, Calls
from bitfold.training.edges import Dequantised, Quantised
from bitfold.training.functions import EmulatedFunction
from bitfold.training.joins import EmulatedAddition, EmulatedConcatenation, EmulatedProduct
from bitfold.training.patterns import Group
from bitfold.training.pools import (
    EmulatedAverage,
    EmulatedMean,
    EmulatedMove,
    EmulatedNoise,
    InFloats,
)
from bitfold.training.products import SEPARABLE
from bitfold.training.separable import EmulatedSeparable
from bitfold.training.weighted import EmulatedLayer

_WRAPPERS = {"average": EmulatedAverage, "move": EmulatedMove, "noise": EmulatedNoise}
# They compute in floats where what they are given is in floats, and in integers otherwise.
_EITHER = ("move", "noise")


@dataclasses.dataclass
class _Value:
    """What stands for a tensor of the model: integers with their grid, real numbers, or both."""

    name: str
    centred: Any = None
    grid: Any = None
    real: Any = None


class Rewriter:
    """Makes a model in integers of the calls of another."""

    def __init__(
        self,
        calls: Calls,
        groups: Sequence[Group],
        settings: Mapping[str, Mapping[str, Any]],
        ranged: Mapping[str, Any],
    ) -> None:
        """Take the calls, in groups; the settings of layers with weights by name, and of ranges."""
        self._calls = calls
        self._groups = groups
        self._settings = settings
        self._ranged = dict(ranged)
        self._values: dict[int, _Value] = {}
        self._group_of = {id(call): group for group in groups for call in group.calls}
        self._floats: dict[int, Any] = {}
        self._names: set[str] = set()

    def rewritten(self, name: str) -> keras.Model:
        """Return the model."""
        model = self._calls.model
        inputs = []
        for tensor in model.inputs:
            new = keras.Input(batch_shape=tensor.shape, dtype=tensor.dtype, name=tensor.name)
            self._names.add(tensor.name)
            self._values[id(tensor)] = _Value(tensor.name, real=new)
            inputs.append(new)
        for group in self._groups:
            self._add(group)
        outputs = keras.tree.map_structure(
            lambda tensor: self._real(self._calls.tensor(tensor)), model._outputs_struct
        )
        structure = keras.tree.pack_sequence_as(model._inputs_struct, inputs)
        return keras.Model(structure, outputs, name=name)

    # ---- What computes in integers ---------------------------------------------------------------

    def _takes_integers(self, call: Call) -> bool:
        """Return whether a call computes in integers."""
        group = self._group_of[id(call)]
        if group.kind not in _EITHER:
            return group.kind != "float"
        return self._are_given(group.inputs[0]) or self._are_wanted(group.outputs[0])

    def _are_given(self, tensor: Any) -> bool:
        """Return whether a tensor comes from a call that computes in integers in any case."""
        producer = self._calls.producer(tensor)
        group = None if producer is None else self._group_of[id(producer)]
        if group is not None and group.kind in _EITHER:
            return self._are_given(group.inputs[0])
        return group is not None and group.kind != "float"

    def _are_wanted(self, tensor: Any) -> bool:
        """Return whether a tensor goes to a call that computes in integers in any case."""
        groups = [self._group_of[id(call)] for call in self._calls.consumers(tensor)]
        return any(
            self._are_wanted(group.outputs[0]) if group.kind in _EITHER else group.kind != "float"
            for group in groups
        )

    def _wants_integers(self, tensor: Any) -> bool:
        """Return whether anything that takes a tensor computes in integers."""
        return any(map(self._takes_integers, self._calls.consumers(tensor)))

    # ---- Calls -----------------------------------------------------------------------------------

    def _add(self, group: Group) -> None:
        """Call what a group becomes."""
        if not self._takes_integers(group.calls[0]):
            self._add_float(group)
            return
        operands = [self._integers(tensor) for tensor in group.inputs]
        gives_real = not self._wants_integers(group.outputs[0])
        name = self._named(group.layer.name)
        if group.kind == "sum":
            value = self._sum(group, operands, name, gives_real)
        elif group.kind == "weighted" and group.function is not None:
            # An output is called as the layer that gives it.
            is_output = self._calls.is_output(group.outputs[0])
            outer = self._named(f"{name}_{'sums' if is_output else group.function.kind.lower()}")
            inner, outer = (outer, name) if is_output else (name, outer)
            between = self._call(self._weighted(group, inner, False), operands, inner)
            layer = EmulatedFunction(
                group.function, name=outer, gives_real=gives_real, **self._ranged
            )
            value = self._call(layer, [(between.centred, between.grid)], name)
        else:
            value = self._call(self._layer(group, name, gives_real), operands, name)
        self._values[id(group.outputs[0])] = value

    def _call(self, layer: Any, operands: Sequence[tuple[Any, Any]], name: str) -> _Value:
        result = layer(*(part for operand in operands for part in operand))
        if layer.gives_real:
            return _Value(name, real=result)
        return _Value(name, centred=result[0], grid=result[1])

    def _layer(self, group: Group, name: str, gives_real: bool) -> keras.layers.Layer:
        """Make the layer in integers."""
        layer = group.layer
        keywords = {"gives_real": gives_real, "name": name}
        if group.kind in _WRAPPERS:
            return _WRAPPERS[group.kind](_anew(layer), **keywords)
        if group.kind == "weighted":
            return self._weighted(group, name, gives_real)
        keywords |= self._ranged
        if group.kind == "mean":
            return EmulatedMean(keeps_dimensions=layer.keepdims, **keywords)
        if group.kind == "product":
            return EmulatedProduct(activation=group.activation, **keywords)
        if group.kind == "function":
            return EmulatedFunction(group.function, **keywords)
        return EmulatedConcatenation(axis=layer.axis, **keywords)

    def _weighted(self, group: Group, name: str, gives_real: bool) -> keras.layers.Layer:
        """Make a layer with weights."""
        make = EmulatedSeparable if type(group.layer) is SEPARABLE else EmulatedLayer
        return make(
            group.layer,
            group.normalisation,
            activation=group.activation,
            name=name,
            gives_real=gives_real,
            **self._settings[group.layer.name],
            **self._ranged,
        )

    def _sum(
        self, group: Group, operands: list[tuple[Any, Any]], name: str, gives_real: bool
    ) -> _Value:
        """Add tensors up two by two."""
        total, *others = operands
        for i, operand in enumerate(others):
            is_last = i == len(others) - 1
            layer = EmulatedAddition(
                subtracts=type(group.layer) is keras.layers.Subtract,
                activation=group.activation if is_last else "linear",
                name=name if is_last else self._named(f"{name}_{i + 1}"),
                gives_real=gives_real and is_last,
                **self._ranged,
            )
            value = self._call(layer, [total, operand], name)
            total = (value.centred, value.grid)
        return value

    def _add_float(self, group: Group) -> None:
        """Call a layer in floats."""
        call = group.calls[0]
        layer = self._floats.get(id(call.layer))
        if layer is None:
            name = self._named(call.layer.name)
            layer = InFloats(call.layer, name=name) if call.layer.variables else _anew(call.layer)
            self._floats[id(call.layer)] = layer
        given = zip(call.node.input_tensors, call.inputs, strict=True)
        arguments = call.node.arguments.fill_in(
            {id(tensor): self._real(stands_for) for tensor, stands_for in given}
        )
        results = keras.tree.flatten(layer(*arguments[0], **arguments[1]))
        for tensor, result in zip(call.outputs, results, strict=True):
            self._values[id(tensor)] = _Value(layer.name, real=result)

    def _integers(self, tensor: Any) -> tuple[Any, Any]:
        """Return centred integers and the grid that stand for a tensor."""
        value = self._values[id(tensor)]
        if value.centred is None:
            layer = Quantised(name=self._named(f"{value.name}_quantised"), **self._ranged)
            value.centred, value.grid = layer(value.real)
        return value.centred, value.grid

    def _real(self, tensor: Any) -> Any:
        """Return the real numbers that stand for a tensor."""
        value = self._values[id(tensor)]
        if value.real is None:
            layer = Dequantised(name=self._named(f"{value.name}_real"))
            value.real = layer(value.centred, value.grid)
        return value.real

    def _named(self, name: str) -> str:
        """Return a name that no other layer has."""
        unique, number = name, 1
        while unique in self._names:
            number += 1
            unique = f"{name}_{number}"
        self._names.add(unique)
        return unique


def _anew(layer: Any) -> Any:
    """Return a layer without variables anew: the model's own keeps its calls."""
    return type(layer).from_config(layer.get_config())
