# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Runs a network's steps over a batch, with the runtime's ops: eagerly or into a graph."""

from __future__ import annotations

import functools
from collections import Counter
from collections.abc import Callable, Iterator, Mapping, Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold._frame import warning_lines
from bitfold.network.assemble import Assembly
from bitfold.network.operators import Step, SummingStep

# Where networks run: no layer has a kernel for another device, to which the runtime would move what
# stands between them, weights and all, at every call.
HOST = "CPU:0"

# From a step with an accumulator and its inputs to its outputs.
Summing = Callable[[SummingStep, Sequence[tf.Tensor | None]], list[tf.Tensor]]
# From these and a state to the outputs and to what was seen.
Observe = Callable[
    [SummingStep, Sequence[tf.Tensor | None], Any], tuple[list[tf.Tensor], Mapping[str, tf.Tensor]]
]


class Seen(Mapping[str, Mapping[str, np.ndarray]]):
    """What was seen of a batch, by the position of an operator and a name.

    Those of one graph can be added up, number by number, before anyone takes them apart.
    """

    def __init__(
        self,
        places: Mapping[str, Sequence[tuple[str, str]]],
        vectors: Mapping[str, np.ndarray],
        others: Mapping[str, Mapping[str, np.ndarray]],
    ) -> None:
        """Take where each number of the vectors belongs, by type, these, and all else."""
        self._places, self._vectors, self._others = places, vectors, others

    def __add__(self, other: Seen) -> Seen:
        """Return the sums of what was seen in both."""
        vectors = {dtype: vector + other._vectors[dtype] for dtype, vector in self._vectors.items()}
        others = {
            position: {name: value + other._others[position][name] for name, value in of.items()}
            for position, of in self._others.items()
        }
        return Seen(self._places, vectors, others)

    @functools.cached_property
    def _values(self) -> dict[str, dict[str, np.ndarray]]:
        values = {position: dict(of) for position, of in self._others.items()}
        for dtype, vector in self._vectors.items():
            for (position, name), value in zip(self._places[dtype], vector, strict=True):
                values[position][name] = value
        return values

    def __getitem__(self, position: str) -> Mapping[str, np.ndarray]:
        """Return what was seen of an operator."""
        return self._values[position]

    def __iter__(self) -> Iterator[str]:
        """Go through the positions."""
        return iter(self._others)

    def __len__(self) -> int:
        """Return how many operators were looked at."""
        return len(self._others)


class Scalars:
    """Brings single numbers that were seen out of a graph, all of one type in one tensor.

    A graph takes microseconds for each tensor that it returns.
    """

    def __init__(self) -> None:
        """Know nothing of a graph yet."""
        self._places: dict[str, list[tuple[str, str]]] = {}

    def packed(self, seen: Mapping[str, Mapping[str, tf.Tensor]]) -> tuple[dict, dict]:
        """Return vectors by type, and what else was seen; to be called once, for one graph."""
        numbers: dict[str, list[tf.Tensor]] = {}
        others: dict[str, dict[str, tf.Tensor]] = {}
        for position, values in seen.items():
            others[position] = {}
            for name, value in values.items():
                if value.shape.rank == 0:
                    numbers.setdefault(value.dtype.name, []).append(value)
                    self._places.setdefault(value.dtype.name, []).append((position, name))
                else:
                    others[position][name] = value
        return {dtype: tf.stack(of_type) for dtype, of_type in numbers.items()}, others

    def unpacked(
        self, vectors: Mapping[str, tf.Tensor], others: Mapping[str, Mapping[str, tf.Tensor]]
    ) -> Seen:
        """Return what was seen, as numbers."""
        return Seen(
            self._places,
            {dtype: vector.numpy() for dtype, vector in vectors.items()},
            {
                position: {name: value.numpy() for name, value in values.items()}
                for position, values in others.items()
            },
        )


class Program:
    """The steps of a network in their order.

    Attributes:
        assembly: what the steps were made of.
        steps: in their order.
    """

    def __init__(self, assembly: Assembly, steps: Sequence[Step], names: Sequence[str]) -> None:
        """Take the steps, and what the layer of each is called."""
        self.assembly = assembly
        self.steps = tuple(steps)
        # What the names of all nodes begin with: there the lines that ops would print count.
        self._scope = warning_lines.counting_scope("network")
        # What those of a step go on with, and the layer's name.
        self._layers = {
            _scope(step.node.operator.position, name): name
            for step, name in zip(steps, names, strict=True)
        }

    def run(
        self, images: Sequence[tf.Tensor], summing: Summing | None = None
    ) -> dict[int, tf.Tensor]:
        """Compute every tensor of a batch.

        Args:
            images: for each input of the network stored elements, [B * d0, ...].
            summing: what computes the steps with an accumulator, and may look at them; by default
                these themselves.

        Returns:
            The tensors by index.
        """
        tensors = dict(zip(self.assembly.graph.inputs, images, strict=True))
        for step, scope in zip(self.steps, self._layers, strict=True):
            with tf.name_scope(f"{self._scope}/{scope}/"):
                inputs = [self._value(tensor, tensors) for tensor in step.node.inputs]
                if summing is not None and isinstance(step, SummingStep):
                    outputs = summing(step, inputs)
                else:
                    outputs = self._outputs(step, inputs)
            for tensor, value in zip(step.node.outputs, outputs, strict=True):
                value.set_shape([None, *tensor.shape[1:]])
                tensors[tensor.index] = value
        return tensors

    def observed(
        self, images: Sequence[tf.Tensor], observe: Observe, states: Mapping[str, Any]
    ) -> tuple[list[tf.Tensor], dict[str, Mapping[str, tf.Tensor]]]:
        """Compute a batch while somebody computes the steps with an accumulator, and looks on.

        Args:
            images: as for `run`.
            observe: who does.
            states: what it is given, by the position of the operator as text.

        Returns:
            The outputs, stored, and what was seen by the position.
        """
        seen: dict[str, Mapping[str, tf.Tensor]] = {}

        def watched(step: SummingStep, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
            position = str(step.node.operator.position)
            outputs, seen[position] = observe(step, inputs, states.get(position))
            return outputs

        tensors = self.run(images, watched)
        return [tensors[index] for index in self.assembly.graph.outputs], seen

    def warnings(self) -> dict[str, dict[str, int]]:
        """Return by layer how many lines of each kind its ops would have printed."""
        found: dict[str, Counter[str]] = {}
        for (_, node), counts in warning_lines.counts_below(self._scope).items():
            name = self._layers.get(node.split("/", 1)[0], node)
            found.setdefault(name, Counter()).update(counts)
        return {name: dict(counts) for name, counts in found.items()}

    @staticmethod
    def _value(tensor, tensors: Mapping[int, tf.Tensor]) -> tf.Tensor | None:
        if tensor is None:
            return None
        return tf.constant(tensor.data) if tensor.is_constant else tensors[tensor.index]

    @staticmethod
    def _outputs(step: Step, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        if step.stacks:
            return step.run(inputs)
        return one_by_one(step.run, step.node, inputs)


def _scope(position: int, name: str) -> str:
    """Return a name for a layer's nodes in a graph, made of the letters that these allow."""
    letters = "".join(letter if letter.isalnum() and letter.isascii() else "_" for letter in name)
    return f"layer{position}_{letters}"


def one_by_one(
    run: Callable[..., list[tf.Tensor]], node, inputs: Sequence[tf.Tensor | None]
) -> list[tf.Tensor]:
    """Run a step for each image of a batch by itself, and stack the results."""
    varying = [
        i for i, tensor in enumerate(node.inputs) if tensor is not None and not tensor.is_constant
    ]
    single = [tf.reshape(inputs[i], [-1, *node.inputs[i].shape]) for i in varying]

    def run_one(image: Sequence[tf.Tensor]) -> tuple[tf.Tensor, ...]:
        values = list(inputs)
        for i, value in zip(varying, image, strict=True):
            values[i] = value
        return tuple(run(values))

    signature = tuple(tf.TensorSpec(tensor.shape, tensor.dtype) for tensor in node.outputs)
    results = tf.map_fn(run_one, tuple(single), fn_output_signature=signature)
    return [
        tf.reshape(result, [-1, *tensor.shape[1:]])
        for result, tensor in zip(results, node.outputs, strict=True)
    ]
