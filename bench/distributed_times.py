# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Times studies by workers: two of them beside one, and a task beside its work.

Workers are processes of one thread, spawned ones and Dask's. What is timed is a study at full width
and in one arithmetic, of shards of the default size, when each worker has its graphs. Beside it one
worker computes the same shards in a loop, from arrays that it has.
"""

from __future__ import annotations

import contextlib
import functools
import pathlib
import tempfile
import time
from collections.abc import Iterator
from concurrent.futures import Executor, wait
from dataclasses import dataclass

import numpy as np
import tensorflow as tf

import bitfold
import network_models
from bitfold.network.shards import executing
from bitfold.network.shards.data import Data
from bitfold.network.shards.processes import Processes
from bitfold.network.shards.work import Task
from bitfold.studies.passes import Plan
from bitfold.studies.settings import settings_of
from timing import use_threads

try:
    from distributed import LocalCluster
except ImportError:
    LocalCluster = None

# Networks, with how many images: of the small one in files, of the large one in memory.
WORK = (("fashion", 8192), ("mobilenet_v2", 52))
ARITHMETIC = bitfold.Arithmetic(accumulator_size=18)
# Full width, and the arithmetic.
KEYS = (None, 0)
TURNS = 3
# Tasks that do nothing, to see how many an engine bears.
EMPTY_TASKS = 2000
PROCESSES, DASK = "spawned processes", "Dask"


@dataclass(frozen=True)
class DistributedTimes:
    """Seconds of a study.

    Attributes:
        work: what is studied, in words.
        engine: who brings tasks to workers.
        tasks: of how many tasks the study is.
        loop_seconds: of one worker that computes all shards by itself.
        one_seconds: of one worker.
        two_seconds: of two.
        tasks_per_second: how many tasks that do nothing the engine brings to two workers.
    """

    work: str
    engine: str
    tasks: int
    loop_seconds: float
    one_seconds: float
    two_seconds: float
    tasks_per_second: float

    @property
    def speed_up(self) -> float:
        """How many times as fast two workers are as one."""
        return self.one_seconds / self.two_seconds

    @property
    def overhead(self) -> float:
        """What one worker takes more than its work, as a share of this."""
        return self.one_seconds / self.loop_seconds - 1


def measure(_: Executor, __: Executor, budget: float) -> list[DistributedTimes]:
    """Time the engines that are installed."""
    engines = {PROCESSES: _processes} | ({DASK: _dask} if LocalCluster else {})
    found = []
    with tempfile.TemporaryDirectory() as folder:
        for engine, started in engines.items():
            with started(1) as one, started(2) as two:
                rate = _rate(two)
                for name, images in WORK:
                    times = _times(name, images, pathlib.Path(folder), one, two)
                    found.append(DistributedTimes(*times[:1], engine, *times[1:], rate))
    return found


@contextlib.contextmanager
def _processes(count: int) -> Iterator[Executor]:
    with Processes(count) as executor:
        # One alone would take both cores.
        wait([executor.submit(_use_one_thread) for _ in range(4 * count)])
        yield executor


@contextlib.contextmanager
def _dask(count: int) -> Iterator[Executor]:
    with (
        LocalCluster(count, threads_per_worker=1, dashboard_address=":0") as cluster,
        cluster.get_client() as client,
    ):
        yield client.get_executor()


def _use_one_thread() -> None:
    with contextlib.suppress(RuntimeError):  # it computes already
        use_threads(1)
    tf.zeros([]).numpy()


def _rate(executor: Executor) -> float:
    """Return how many tasks a second are done that do nothing."""
    begin = time.perf_counter()
    wait([executor.submit(_nothing, i) for i in range(EMPTY_TASKS)])
    return EMPTY_TASKS / (time.perf_counter() - begin)


def _nothing(_: int) -> None:
    pass


def _times(
    name: str, images: int, folder: pathlib.Path, one: Executor, two: Executor
) -> tuple[str, int, float, float, float]:
    """Return what a study is of, its tasks, and its seconds in a loop, by one and by two."""
    x, y = _data(name, images)
    where = "memory"
    if name == "fashion":
        where = "files"
        np.save(folder / "x.npy", x)
        np.save(folder / "y.npy", y)
        x, y = bitfold.data.npy(folder / "x.npy", folder / "y.npy"), None
    network = network_models.network(name)
    references = Data(x, y, network.batch_size()).references()
    # One plan for all turns: workers know it again, and keep its graphs.
    plan = _plan(name)
    tasks = [Task(key, reference) for key in KEYS for reference in references]

    def study(executor: Executor) -> float:
        begin = time.perf_counter()
        for _ in executing.computed(plan, tasks, executor, lambda images: None):
            pass
        return time.perf_counter() - begin

    calls = {
        "loop": lambda: one.submit(_computed, name, images, time.perf_counter()).result(),
        "one": lambda: study(one),
        "two": lambda: study(two),
    }
    for call in calls.values():
        call()
    taken = {name: [] for name in calls}
    for _ in range(TURNS):
        for turn, call in calls.items():
            taken[turn].append(call())
    work = f"{name}, {images:,} images in {where}"
    return work, len(tasks), *(min(times) for times in taken.values())


def _data(name: str, images: int) -> tuple[np.ndarray, np.ndarray]:
    outputs = network_models.network(name).outputs[0].shape[-1]
    return network_models.images(name, images), np.arange(images) % outputs


def _plan(name: str) -> Plan:
    network = network_models.network(name)
    return Plan(network, settings_of(network, [ARITHMETIC]), None, has_metric=True)


def _computed(name: str, images: int, _: float) -> float:
    """Return the seconds that this process takes for all tasks by itself.

    The last argument differs between calls, or Dask would take the result of the first.
    """
    shards, runners = _kept(name, images)
    begin = time.perf_counter()
    for run in runners:
        for shard in shards:
            run(shard, lambda images: None)
    return time.perf_counter() - begin


@functools.cache
def _kept(name: str, images: int) -> tuple:
    """Return the shards, read, and what computes them."""
    data = Data(*_data(name, images), network_models.network(name).batch_size())
    plan = _plan(name)
    return list(data.shards()), [plan.runner(key) for key in KEYS]
