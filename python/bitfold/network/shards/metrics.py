# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Metrics as states that add up: of each shard one, summed in the order of the shards."""

from __future__ import annotations

import json
import math
from collections.abc import Mapping
from typing import Any

import keras
import numpy as np

from bitfold.network import evaluation
from bitfold.network.records import Port
from bitfold.network.shards.data import Shard

State = list[np.ndarray]


class Metric:
    """A metric over shards.

    Attributes:
        name: as "accuracy".
    """

    def __init__(self, metric: Any) -> None:
        """Take what `Network.evaluate` takes."""
        self._given = metric
        made = self._new()
        self.name = "accuracy" if metric_is_accuracy(made) else made.name

    @property
    def description(self) -> str:
        """What tells this metric from others."""
        made = self._new()
        if metric_is_accuracy(made):
            return "accuracy"
        function = getattr(made, "_fn", None)
        config = {} if function is not None else made.get_config()
        named = f"{getattr(function, '__module__', '')}.{getattr(function, '__qualname__', '')}"
        return f"{type(made).__name__} {named} {json.dumps(config, sort_keys=True, default=str)}"

    def start(self) -> Any:
        """Return what has update_state, from no images."""
        return self._new()

    def state(self, metric: Any) -> State:
        """Return what a metric counted.

        Raises:
            ValueError: where that is not a sum over images.
        """
        if metric_is_accuracy(metric):
            return [np.array(metric.state, np.int64)]
        for variable in metric.variables:
            if getattr(variable, "aggregation", "sum") != "sum":
                raise ValueError(
                    f"Need a metric whose variables are sums over images, got {metric.name!r} with "
                    f"{variable.path}"
                )
        return [variable.numpy() for variable in metric.variables]

    def result(self, states: Mapping[int, State], example: tuple[Any, Any]) -> float:
        """Return the metric of all shards; not a number of none.

        Args:
            states: by shard.
            example: a label and an output, which let a metric make its variables.
        """
        if not states:
            return math.nan
        metric = self._new()
        ordered = [states[shard] for shard in sorted(states)]
        if metric_is_accuracy(metric):
            metric.state = sum(state[0] for state in ordered)
            return metric.result()
        evaluation.update(metric, *example)
        for variable, *values in zip(metric.variables, *ordered, strict=True):
            variable.assign(np.sum(values, axis=0, dtype=values[0].dtype))
        return float(metric.result())

    def _new(self) -> Any:
        given = self._given
        if isinstance(given, keras.metrics.Metric):
            # A copy: states of several shards live at once.
            given = given.__class__.from_config(given.get_config())
        return evaluation.metric_of(given)


def example_of(output: Port, shard: Shard) -> tuple[Any, Any]:
    """Return a label and an output of a network's kind."""
    _, labels = next(iter(shard.batches))
    return np.asarray(labels)[:1], np.zeros((1, *output.shape[1:]), np.float32)


def metric_is_accuracy(metric: Any) -> bool:
    """Return whether a metric is the package's own."""
    return isinstance(metric, evaluation.Accuracy)
