# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The metric of a network over data that an executor's workers compute."""

from __future__ import annotations

import contextlib
import dataclasses
import functools
from collections.abc import Callable
from concurrent.futures import Executor
from typing import Any

import tensorflow as tf

from bitfold.network import evaluation
from bitfold.network.shards import executing
from bitfold.network.shards.data import Data, Shard
from bitfold.network.shards.metrics import Metric, State, example_of
from bitfold.network.shards.work import Run, Task

# From the bytes of a model and the names of its layers to a network.
Load = Callable[[], Any]


def evaluate(network: Any, load: Load, data: Data, metric: Any, executor: Executor) -> float:
    """Return the metric of a network.

    Args:
        network: a `bitfold.Network`.
        load: what makes it anew in a worker, in whatever arithmetic.
        data: with labels.
        metric: what `Network.evaluate` takes.
        executor: of the workers.
    """
    if not data.has_labels:
        raise ValueError("Need labels y with arrays x")
    references = data.references()
    executing.check(executor, references)
    measured = Metric(metric)
    key = tuple((layer.name, layer.arithmetic) for layer in network.layers)
    tasks = (Task(key, reference) for reference in references)
    states: dict[int, State] = {}
    with (
        evaluation.progress("evaluate", data.images) as advance,
        contextlib.closing(
            executing.computed(Evaluation(load, metric), tasks, executor, advance)
        ) as results,
    ):
        for task, state in results:
            states[task.shard.index] = state
    example = example_of(network.outputs[0], references[0].load()) if references else None
    return measured.result(states, example)


@dataclasses.dataclass(frozen=True)
class Evaluation:
    """What workers are told: the same for a network in whatever arithmetic.

    Attributes:
        load: makes the network.
        metric: what `Network.evaluate` takes.
    """

    load: Load
    metric: Any

    @functools.cached_property
    def network(self) -> Any:
        """The network, made once in each process."""
        return self.load()

    def runner(self, key: tuple[tuple[str, Any], ...]) -> Run:
        """Return what computes shards in the arithmetic that a key has for each layer."""
        network = self.network.with_arithmetic(dict(key))
        metric = Metric(self.metric)

        def run(shard: Shard, advance: Callable[[int], None]) -> State:
            counted = metric.start()
            for images, labels in shard.batches:
                outputs = network(images)
                if not tf.is_tensor(outputs):
                    raise ValueError("Need a network of one output for a metric")
                evaluation.update(counted, labels, outputs)
                advance(len(outputs))
            return metric.state(counted)

        return run

    def called(self, key: Any) -> str:
        """Return what the work is called."""
        return "evaluation"
