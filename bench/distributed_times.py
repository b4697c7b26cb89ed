# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Times studies by workers: two of them beside one, and a task beside its work.

Workers are processes of one thread, spawned ones and Dask's. What is timed is a study at full width
and in one arithmetic, of images in files, when each worker has its graphs. Beside it one worker
computes the same shards in a loop.

Dask's workers have the allocator's own thresholds, as docs/distributed.md tells people to set them.
"""

from __future__ import annotations

import contextlib
import functools
import multiprocessing
import os
import pathlib
import tempfile
import time
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import Executor, wait
from dataclasses import dataclass

import numpy as np
import tensorflow as tf

import bitfold
import network_models
from bitfold.network.shards import dask_cluster, executing
from bitfold.network.shards.data import Data, ShardReference
from bitfold.network.shards.processes import Processes
from bitfold.network.shards.work import Task
from bitfold.studies.passes import Plan
from bitfold.studies.settings import settings_of
from timing import use_threads

try:
    import dask
    from distributed import LocalCluster
except ImportError:
    LocalCluster = None


@dataclass(frozen=True)
class Work:
    """A study.

    Attributes:
        network: its name.
        images: how many; a file has some of them, and is named as often as it takes.
        file_images: how many of them a file has.
        shard_size: how many are a shard; None for the default.
    """

    network: str
    images: int
    file_images: int
    shard_size: int | None = None

    def __str__(self) -> str:
        """Return what it is, in words."""
        size = f"shards of {self.shard_size:,}" if self.shard_size else "the default shard"
        return f"{self.network}, {self.images:,} images, {size}"


WORKS = (Work("mobilenet_v2", 2048, 64), Work("fashion", 81_920, 8192, 20_480))
ARITHMETIC = bitfold.Arithmetic(accumulator_size=18)
# Full width, and the arithmetic.
KEYS = (None, 0)
TURNS = 2
# Tasks that do nothing, to see how many an engine bears.
EMPTY_TASKS = 2000
PROCESSES, DASK = "spawned processes", "Dask"
# Otherwise Dask has its workers give back memory to the system with each tensor that they free.
ALLOCATOR = {"MALLOC_TRIM_THRESHOLD_": 1 << 30, "MALLOC_MMAP_THRESHOLD_": 32 << 20}


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
        loop_processor_seconds: of all processes, in the loop.
        one_processor_seconds: of all processes, by one worker.
        tasks_per_second: how many tasks that do nothing the engine brings to two workers.
    """

    work: str
    engine: str
    tasks: int
    loop_seconds: float
    one_seconds: float
    two_seconds: float
    loop_processor_seconds: float
    one_processor_seconds: float
    tasks_per_second: float

    @property
    def speed_up(self) -> float:
        """How many times as fast two workers are as one."""
        return self.one_seconds / self.two_seconds

    @property
    def overhead(self) -> float:
        """What one worker takes more than its work, as a share of this."""
        return self.one_seconds / self.loop_seconds - 1

    @property
    def processor_seconds(self) -> float:
        """What a task costs beside its work, in all processes together."""
        return (self.one_processor_seconds - self.loop_processor_seconds) / self.tasks


def measure(_: Executor, __: Executor, budget: float) -> list[DistributedTimes]:
    """Time the engines that are installed."""
    engines = {PROCESSES: _processes} | ({DASK: _dask} if LocalCluster else {})
    found = []
    with tempfile.TemporaryDirectory() as folder:
        references = [_references(work, pathlib.Path(folder)) for work in WORKS]
        for engine, started in engines.items():
            # One after the other: an idle cluster takes some of a core, too.
            with started(1) as one:
                by_one = [_by_one(*each, one) for each in zip(WORKS, references, strict=True)]
            with started(2) as two:
                by_two = [_by_two(*each, two) for each in zip(WORKS, references, strict=True)]
                rate = _rate(two)
            for work, shards, single, double in zip(WORKS, references, by_one, by_two, strict=True):
                (loop, loop_processor), (alone, alone_processor) = single
                found.append(
                    DistributedTimes(
                        str(work), engine, len(KEYS) * len(shards), loop, alone, double,
                        loop_processor, alone_processor, rate,
                    )
                )  # fmt: skip
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
        dask.config.set({"distributed.nanny.pre-spawn-environ": ALLOCATOR}),
        LocalCluster(n_workers=count, threads_per_worker=1, dashboard_address=None) as cluster,
        cluster.get_client() as client,
    ):
        client.run(_use_one_thread)  # the loop is no task of a study, which would see to it
        yield client.get_executor()


def _use_one_thread() -> None:
    with contextlib.suppress(RuntimeError):  # it computes already
        use_threads(1)
    tf.zeros([]).numpy()


def _rate(executor: Executor) -> float:
    """Return how many tasks a second are done that do nothing."""
    begin = time.perf_counter()
    if dask_cluster.is_executor(executor):
        wait(dask_cluster.submitted(executor, _nothing, [(i,) for i in range(EMPTY_TASKS)]))
    else:
        wait([executor.submit(_nothing, i) for i in range(EMPTY_TASKS)])
    return EMPTY_TASKS / (time.perf_counter() - begin)


def _nothing(_: int) -> None:
    pass


def _references(work: Work, folder: pathlib.Path) -> list[ShardReference]:
    """Write the images of a study; return its shards."""
    network = network_models.network(work.network)
    x, y = folder / f"{work.network}_x.npy", folder / f"{work.network}_y.npy"
    np.save(x, network_models.images(work.network, work.file_images))
    np.save(y, np.arange(work.images) % network.outputs[0].shape[-1])
    for i in range(work.images // work.file_images):
        x.with_name(f"{work.network}_x{i:03}.npy").symlink_to(x)
    data = bitfold.data.npy(folder / f"{work.network}_x[0-9]*.npy", y)
    return Data(data, None, network.batch_size(), shard_size=work.shard_size).references()


def _by_one(work: Work, references: Sequence[ShardReference], one: Executor) -> tuple:
    """Return seconds and seconds of all processors, of the loop and of the study."""
    calls = [
        lambda: one.submit(_computed, work.network, references, time.perf_counter()).result(),
        lambda: _study(work, references, one),
    ]
    for call in calls:
        call()
    turns = [[_timed(call) for call in calls] for _ in range(TURNS)]
    return tuple(tuple(map(min, zip(*times, strict=True))) for times in zip(*turns, strict=True))


def _by_two(work: Work, references: Sequence[ShardReference], two: Executor) -> float:
    """Return the seconds of a study."""
    _study(work, references, two)
    return min(_timed(lambda: _study(work, references, two))[0] for _ in range(TURNS))


def _timed(call: Callable[[], object]) -> tuple[float, float]:
    """Return seconds, and those of all processors in this process and its children."""
    begin, processors = time.perf_counter(), _processor_seconds()
    call()
    return time.perf_counter() - begin, _processor_seconds() - processors


def _processor_seconds() -> float:
    taken = time.process_time()
    for child in multiprocessing.active_children():
        fields = pathlib.Path(f"/proc/{child.pid}/stat").read_text().rpartition(")")[2].split()
        taken += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    return taken


def _study(work: Work, references: Sequence[ShardReference], executor: Executor) -> None:
    tasks = [Task(key, reference) for key in KEYS for reference in references]
    for _ in executing.computed(_plan(work.network), tasks, executor, lambda images: None):
        pass


@functools.cache
def _plan(name: str) -> Plan:
    """Return one plan for all turns: workers know it again, and keep its graphs."""
    network = network_models.network(name)
    return Plan(network, settings_of(network, [ARITHMETIC]), None, has_metric=True)


def _computed(name: str, references: Sequence[ShardReference], _: float) -> None:
    """Compute all shards here.

    The last argument differs between calls, or Dask would take the result of the first.
    """
    for run in _runners(name):
        for reference in references:
            run(reference.load(), lambda images: None)


@functools.cache
def _runners(name: str) -> list[Callable]:
    return [_plan(name).runner(key) for key in KEYS]
