# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The calls of a Keras model, those of models within it among them."""

from __future__ import annotations

import dataclasses
from collections import Counter
from typing import Any

import keras


@dataclasses.dataclass(frozen=True, eq=False)
class Call:
    """A call of a layer.

    Attributes:
        layer: the layer.
        inputs: the Keras tensors that it is given.
        outputs: the Keras tensors that it gives.
        node: what Keras keeps of the call.
    """

    layer: Any
    inputs: tuple[Any, ...]
    outputs: tuple[Any, ...]
    node: Any


class Calls:
    """The calls of a functional or sequential model, in an order in which they can be made.

    A model that is called once within it is taken apart: its calls stand in its place.

    Attributes:
        model: as a functional one.
        all: the calls.
    """

    def __init__(self, model: Any) -> None:
        """Take the model."""
        self.model = _functional(model) or model
        self._stands_for: dict[int, Any] = {}
        self.all: list[Call] = []
        self._add(self.model)
        self._outputs = {id(self.tensor(t)) for t in keras.tree.flatten(self.model.outputs)}
        self._consumers: dict[int, list[Call]] = {}
        self._producers: dict[int, Call] = {}
        for call in self.all:
            for tensor in call.inputs:
                self._consumers.setdefault(id(tensor), []).append(call)
            for tensor in call.outputs:
                self._producers[id(tensor)] = call
        self._times = Counter(id(call.layer) for call in self.all)

    def _add(self, model: Any) -> None:
        nodes = [
            node
            for depth in sorted(model._nodes_by_depth, reverse=True)
            for node in model._nodes_by_depth[depth]
            if not node.is_input
        ]
        times = Counter(id(node.operation) for node in nodes)
        for node in nodes:
            inputs = tuple(self.tensor(tensor) for tensor in node.input_tensors)
            inner = _functional(node.operation)
            if inner is None or times[id(node.operation)] > 1 or len(inputs) != len(inner.inputs):
                self.all.append(Call(node.operation, inputs, tuple(node.outputs), node))
                continue
            self._stands_for.update(
                {id(t): given for t, given in zip(inner.inputs, inputs, strict=True)}
            )
            self._add(inner)
            self._stands_for.update(
                {
                    id(t): self.tensor(found)
                    for t, found in zip(node.outputs, inner.outputs, strict=True)
                }
            )

    def tensor(self, tensor: Any) -> Any:
        """Return the tensor that a call gives for a tensor at the border of a model within."""
        return self._stands_for.get(id(tensor), tensor)

    def is_output(self, tensor: Any) -> bool:
        """Return whether a tensor is an output of the model."""
        return id(tensor) in self._outputs

    def consumers(self, tensor: Any) -> list[Call]:
        """Return the calls that take a tensor."""
        return self._consumers.get(id(tensor), [])

    def producer(self, tensor: Any) -> Call | None:
        """Return the call that gives a tensor, None for an input of the model."""
        return self._producers.get(id(tensor))

    def is_repeated(self, call: Call) -> bool:
        """Return whether a layer is called more than once."""
        return self._times[id(call.layer)] > 1

    def following(self, call: Call) -> Call | None:
        """Return the one call that takes the output of a call, None where there is another use."""
        tensor = call.outputs[0]
        consumers = self.consumers(tensor)
        if len(consumers) != 1 or self.is_output(tensor) or len(consumers[0].inputs) != 1:
            return None
        return None if self.is_repeated(consumers[0]) else consumers[0]


def _functional(model: Any) -> Any:
    """Return a model whose calls Keras knows, None for another layer."""
    if type(model) is keras.Sequential:
        return model._functional
    is_functional = isinstance(model, keras.Model) and type(model).__name__ == "Functional"
    return model if is_functional else None
