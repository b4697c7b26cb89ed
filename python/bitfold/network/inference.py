# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What callers ask of a program: a batch in, its outputs, its tensors or its sums out."""

from __future__ import annotations

from collections.abc import Callable, Mapping, Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.network import values
from bitfold.network.execution import HOST, Observe, Program, Scalars
from bitfold.network.graph import Tensor
from bitfold.network.operators import SummingStep


class Inference:
    """The calls of a network. Each kind of call is a graph, traced when it is first asked for."""

    def __init__(self, program: Program, input_names: Sequence[str]) -> None:
        """Take the program, and what callers name its inputs."""
        self._program = program
        self._input_names = tuple(input_names)
        self._graphs: dict[str, Callable] = {}

    def outputs(self, x: Any) -> list[tf.Tensor]:
        """Compute a batch, what `Network.__call__` takes; of floats real numbers, else stored."""
        images = self._images(x)
        if values.is_real(images, self._program.assembly.inputs):
            return self._graph("real", self._real)(*self._quantised(images))
        return self._graph("stored", self._stored)(*images)

    def trace(self, x: Any) -> dict[int, np.ndarray]:
        """Return what every operator writes, as `Network.trace` does."""
        return self._arrays("trace", self._traced, x)

    def accumulators(self, x: Any) -> dict[int, np.ndarray]:
        """Return the sums before requantisation, as `Network.accumulators` does."""
        return self._arrays("accumulators", self._summed, x)

    def observed(self, observe: Observe) -> Callable[..., Any]:
        """Return a call in which somebody computes the sums, as `Network.observed` does."""
        graphs: dict[bool, tuple[Callable, Scalars]] = {}

        def call(x: Any, states: Mapping[str, Any]) -> tuple[Any, dict[str, Any]]:
            images = self._images(x)
            is_real = values.is_real(images, self._program.assembly.inputs)
            if is_real not in graphs:
                graphs[is_real] = self._observing(observe, states, is_real)
            graph, scalars = graphs[is_real]
            results, seen = graph(self._quantised(images), dict(states))
            return (results[0] if len(results) == 1 else list(results)), scalars.unpacked(*seen)

        return call

    # ---- From callers' values to stored ones -----------------------------------------------------

    def _images(self, x: Any) -> list[tf.Tensor]:
        """Return the inputs as tensors, of floats or of their stored types."""
        tensors = self._program.assembly.inputs
        given = values.as_list(x, self._input_names, [len(tensor.shape) for tensor in tensors])
        with tf.device(HOST):
            images = list(map(values.as_input, given, self._input_names, tensors))
        values.need_equal_batches(images, tensors)
        return images

    def _quantised(self, images: Sequence[tf.Tensor]) -> list[tf.Tensor]:
        with tf.device(HOST):
            return list(map(values.stored, images, self._program.assembly.inputs))

    # ---- Graphs of the stored inputs -------------------------------------------------------------

    @property
    def _signature(self) -> list[tf.TensorSpec]:
        return [
            tf.TensorSpec([None, *tensor.shape[1:]], tensor.dtype)
            for tensor in self._program.assembly.inputs
        ]

    def _graph(self, kind: str, function: Callable) -> Callable:
        """Return the graph of a kind of call."""
        if kind not in self._graphs:
            # Concrete: of a polymorphic one the runtime warns when many networks have traced it.

            def run(*images: tf.Tensor) -> Any:
                with tf.device(HOST):
                    return function(*images)

            traced = tf.function(run, input_signature=self._signature, autograph=False)
            self._graphs[kind] = traced.get_concrete_function()
        return self._graphs[kind]

    def _observing(
        self, observe: Observe, states: Mapping[str, Any], is_real: bool
    ) -> tuple[Callable, Scalars]:
        """Return a graph of `observed`, and how to read what it saw."""
        scalars = Scalars()

        def run(images: Sequence[tf.Tensor], states: Mapping[str, Any]) -> tuple[list, dict]:
            with tf.device(HOST):
                outputs, seen = self._program.observed(images, observe, states)
                if is_real:
                    outputs = list(map(values.real, outputs, self._program.assembly.outputs))
                return outputs, scalars.packed(seen)

        kinds = tf.nest.map_structure(tf.type_spec_from_value, dict(states))
        traced = tf.function(run, input_signature=[self._signature, kinds], autograph=False)
        return traced.get_concrete_function(), scalars

    def _stored(self, *images: tf.Tensor) -> list[tf.Tensor]:
        tensors = self._program.run(images)
        return [tensors[index] for index in self._program.assembly.graph.outputs]

    def _real(self, *images: tf.Tensor) -> list[tf.Tensor]:
        return list(map(values.real, self._stored(*images), self._program.assembly.outputs))

    def _traced(self, *images: tf.Tensor) -> dict[str, tf.Tensor]:
        tensors = self._program.run(images)
        written = (tensor for step in self._program.steps for tensor in step.node.outputs)
        file = self._program.assembly.graph.tensors
        return {
            str(tensor.index): tensors[tensor.index]
            for tensor in written
            if tensor.is_quantised and _has_batch(file[tensor.index])
        }

    def _summed(self, *images: tf.Tensor) -> dict[str, tf.Tensor]:
        sums: dict[str, tf.Tensor] = {}

        def kept(step: SummingStep, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
            found = sums[str(step.node.operator.position)] = step.sums(inputs)
            return step.finish(found)

        self._program.run(images, kept)
        return sums

    def _arrays(self, kind: str, function: Callable, x: Any) -> dict[int, np.ndarray]:
        """Return tensors by number, which a graph has by text, as arrays in order."""
        results = self._graph(kind, function)(*self._quantised(self._images(x)))
        found = {int(place): value.numpy() for place, value in results.items()}
        return dict(sorted(found.items()))


def _has_batch(tensor: Tensor) -> bool:
    """Return whether the first dimension in the file is that of the images."""
    return bool(tensor.shape) and (tensor.shape[0] == 1 or 0 in tensor.unknown)
