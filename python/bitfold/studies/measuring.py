# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Has the parts of a study computed that are not finished."""

from __future__ import annotations

import contextlib
import hashlib
import json
import os
from collections.abc import Callable, Iterator
from concurrent.futures import Executor
from typing import Any

from bitfold._frame.library import VERSION
from bitfold.network import evaluation
from bitfold.network.shards import executing
from bitfold.network.shards.data import Data, Shard, ShardReference
from bitfold.network.shards.metrics import Metric, example_of
from bitfold.network.shards.work import Task
from bitfold.studies.passes import Plan
from bitfold.studies.resuming import Parts
from bitfold.studies.tallies import Tally


def measure(
    plan: Plan,
    data: Data,
    *,
    resume: str | os.PathLike[str] | None = None,
    executor: Executor | None = None,
) -> tuple[dict[int | None, Tally], Any]:
    """Compute all parts that are not finished.

    Args:
        plan: what the study is.
        data: its data.
        resume: a file of finished parts, or None.
        executor: who computes; None for this process.

    Returns:
        What was counted by setting, None for full width, and a label and an output of the network's
        kind for `Metric.result`.
    """
    if executor is not None:
        executing.check(executor, data.references())
    with Parts(resume, _fingerprint(plan, data)) as parts:
        total = None if data.images is None else data.images * (1 + len(plan.settings))
        with evaluation.progress("study", total) as advance:
            tasks = _Unfinished(plan, data, parts, advance)
            keeps_runners = not data.is_indexed
            results = executing.computed(
                plan, tasks, executor, advance, keeps_runners=keeps_runners
            )
            with contextlib.closing(results):
                for task, tally in results:
                    parts.add(task.key, task.shard.index, tally)
        return parts.tallies, tasks.example


class _Unfinished:
    """The tasks of a study that are not finished.

    Attributes:
        example: a label and an output, from the first shard on, where there is a metric.
    """

    def __init__(self, plan: Plan, data: Data, parts: Parts, advance: Callable) -> None:
        """Take what the study is of, and who takes how many images more are done."""
        self._plan, self._data, self._parts, self._advance = plan, data, parts, advance
        self.example: Any = None

    def __iter__(self) -> Iterator[Task]:
        """Yield them; look at each shard before the first task that is about it."""
        for setting, shard in self._all():
            if setting is None:
                if self._parts.needs_digests:
                    self._parts.check(shard.index, shard.digest())
                if self._plan.has_metric and self.example is None:
                    self.example = example_of(self._plan.network.outputs[0], shard.load())
            if self._parts.is_done(setting, shard.index):
                self._advance(shard.images)
            else:
                yield Task(setting, shard)

    def _all(self) -> Iterator[tuple[int | None, Shard | ShardReference]]:
        """Yield settings with shards: arrays and files again and again, datasets once."""
        settings = [None, *range(len(self._plan.settings))]
        if self._data.is_indexed:
            references = self._data.references()
            yield from ((setting, shard) for setting in settings for shard in references)
        else:
            yield from ((setting, shard) for shard in self._data.shards() for setting in settings)


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
        "the shard size": str(data.shard_size),
        "the version": VERSION,
    }
