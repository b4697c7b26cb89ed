# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Computes the parts of a study that are not finished."""

from __future__ import annotations

import hashlib
import json
import os
from collections.abc import Iterator
from typing import Any

import numpy as np

from bitfold._frame.library import VERSION
from bitfold.network import Network, evaluation
from bitfold.studies.data import Data, Shard
from bitfold.studies.metrics import Metric
from bitfold.studies.passes import Plan, Runner, Task
from bitfold.studies.resuming import Parts
from bitfold.studies.tallies import Tally


def measure(
    plan: Plan, data: Data, resume: str | os.PathLike[str] | None
) -> tuple[dict[int | None, Tally], Any]:
    """Compute all parts that are not finished.

    Args:
        plan: what the study is.
        data: its data.
        resume: a file of finished parts, or None.

    Returns:
        What was counted by setting, None for full width, and a label and an output of the network's
        kind for `Metric.result`.
    """
    parts = Parts(resume, _fingerprint(plan, data))
    settings = [None, *range(len(plan.settings))]
    total = None if data.images is None else data.images * len(settings)
    example = None
    runners: dict[int | None, Runner] = {}
    with evaluation.progress("study", total) as advance:
        for setting, shard in _order(data, settings):
            if setting is None:
                if parts.needs_digests:
                    parts.check(shard.index, shard.digest())
                if plan.has_metric and example is None:
                    example = _example(plan.network, shard)
            task = Task(setting, shard.index)
            if parts.is_done(task):
                advance(shard.images)
                continue
            if setting not in runners:
                if data.is_indexed:
                    runners.clear()  # of other settings: their graphs are needed no more
                runners[setting] = Runner(plan, setting)
            parts.add(task, runners[setting].run(shard, advance))
    return parts.tallies, example


def _order(data: Data, settings: list[int | None]) -> Iterator[tuple[int | None, Shard]]:
    """Yield settings with shards: arrays are gone through again and again, datasets once."""
    if data.is_indexed:
        yield from ((setting, shard) for setting in settings for shard in data.shards())
    else:
        yield from ((setting, shard) for shard in data.shards() for setting in settings)


def _example(network: Network, shard: Shard) -> tuple[Any, Any]:
    """Return a label and an output of a network's kind."""
    _, labels = shard.batches[0]
    output = network.outputs[0]
    return np.asarray(labels)[:1], np.zeros((1, *output.shape[1:]), np.float32)


def _fingerprint(plan: Plan, data: Data) -> dict[str, str]:
    """Return what tells a study from others, but for the data, which are told shard by shard."""
    own = {layer.name: repr(layer.arithmetic) for layer in plan.network.layers}
    settings = [(setting.name, repr(setting.arithmetic)) for setting in plan.settings]
    return {
        "the network": hashlib.sha256(plan.network.model_file).hexdigest(),
        "its own arithmetic": hashlib.sha256(json.dumps(own).encode()).hexdigest(),
        "the arithmetics": json.dumps(settings),
        "the metric": Metric(plan.metric).description if plan.has_metric else "none",
        "the images whose partial sums are looked at": str(plan.sample),
        "the number of images": str(data.images),
        "the batch size": str(data.batch_size),
        "the version": VERSION,
    }
