# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""From what was counted to the findings of a study."""

from __future__ import annotations

import dataclasses
import platform
import time
from collections.abc import Iterator, Mapping
from typing import Any

import keras
import numpy as np
import tensorflow as tf

from bitfold._frame.library import VERSION
from bitfold.network import Network, evaluation
from bitfold.network.shards.data import Data
from bitfold.network.shards.metrics import Metric
from bitfold.studies.attribution import attribute
from bitfold.studies.groups import key_of
from bitfold.studies.layers import bits_of_layer
from bitfold.studies.passes import Plan
from bitfold.studies.records import Counts, Findings, LayerCounts, Result
from bitfold.studies.settings import Setting, full_width
from bitfold.studies.tallies import LayerTally, Tally
from bitfold.studies.watching import END_TO_END, summing_steps
from bitfold.studies.wraps import corrected_weights


def found(
    plan: Plan, tallies: Mapping[int | None, Tally], example: Any, title: str | None
) -> Findings:
    """Make records of what was counted; by default the network's size is its title."""
    network = full_width(plan.network)
    whole = tallies.get(None, Tally())
    metric = Metric(plan.metric) if plan.has_metric else None
    steps = summing_steps(network)
    layers, channels = [], {}
    for layer in network.layers:
        if layer.position in steps:
            tally = whole.layers.get(layer.position, LayerTally())
            bits, channels[layer.name] = bits_of_layer(layer, steps[layer.position], tally)
            layers.append(bits)

    def measured(tally: Tally) -> float | None:
        if metric is None or not tally.states:
            return None
        return metric.result(tally.states, example)

    results = [
        Result(
            setting.name,
            setting.arithmetic,
            measured(tallies.get(i, Tally())),
            tuple(_layer_counts(plan.network, setting, whole, tallies.get(i, Tally()))),
        )
        for i, setting in enumerate(plan.settings)
    ]
    return Findings(
        title=f"network of {len(network.layers)} operators" if title is None else title,
        images=whole.images,
        metric_name=None if metric is None else metric.name,
        metric=measured(whole),
        float_metric=None,
        layers=tuple(layers),
        channels=channels,
        results=tuple(results),
        versions={
            "bitfold": VERSION,
            "tensorflow": tf.__version__,
            "keras": keras.__version__,
            "numpy": np.__version__,
            "python": platform.python_version(),
        },
        seconds=sum(tally.seconds for tally in tallies.values()),
        looked_at=None if whole.looked == whole.images else whole.looked,
    )


def attributed(findings: Findings, plan: Plan, data: Data, float_model: Any) -> Findings:
    """Return findings with what each cause adds to the error against a model in floats."""
    begin = time.perf_counter()
    with evaluation.progress("attribution", data.images) as advance:
        found = attribute(
            plan.network,
            {setting.name: setting.arithmetic for setting in plan.settings},
            float_model,
            data.batches(),
            Metric(plan.metric).start if plan.has_metric else None,
            advance,
            {
                result.name
                for result in findings.results
                if not any(layer.end_to_end.wrong for layer in result.layers)
            },
        )
    layers = [
        dataclasses.replace(layer, remarks=(*layer.remarks, "not found in the float model"))
        if layer.name in found.missing
        else layer
        for layer in findings.layers
    ]
    return dataclasses.replace(
        findings,
        float_metric=found.float_metric,
        layers=tuple(layers),
        attributions=found.attributions,
        seconds=findings.seconds + time.perf_counter() - begin,
    )


def _layer_counts(
    network: Network, setting: Setting, whole: Tally, tally: Tally
) -> Iterator[LayerCounts]:
    """Yield what became of the sums of each layer in a setting."""
    narrow = network.with_arithmetic(setting.arithmetic)
    steps = summing_steps(narrow)
    for layer in narrow.layers:
        if layer.position not in steps:
            continue
        alone = whole.layers.get(layer.position, LayerTally())
        end_to_end = tally.layers.get(layer.position, LayerTally())
        step = steps[layer.position]
        is_stored = step.weights_tensor is not None
        yield LayerCounts(
            layer.position,
            layer.name,
            layer.arithmetic,
            alone.counts.get(key_of(layer.arithmetic), _nothing(alone)),
            end_to_end.counts.get(END_TO_END, _nothing(end_to_end)),
            corrected_weights(step) if is_stored else 0,
            tally.lines.get(layer.name, 0),
        )


def _nothing(tally: LayerTally) -> Counts:
    """Return the counts of an arithmetic that no sum leaves."""
    return Counts(tally.sums, looked_at=tally.looked_at)
