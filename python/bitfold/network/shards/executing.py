# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Has tasks computed, in this process or by the workers of an executor.

The executor is the engine: it has the queue and the connections, and it knows what to do when a
worker is gone. What is left is to keep it busy without handing over everything at once, to send the
work to each worker once, and to try a shard again.
"""

from __future__ import annotations

import concurrent.futures
import pickle
import queue
from collections.abc import Callable, Iterable, Iterator, Sequence
from concurrent.futures import Executor
from typing import Any

from bitfold.network.errors import WorkerError
from bitfold.network.shards import dask_cluster, workers
from bitfold.network.shards.data import ShardReference
from bitfold.network.shards.delivery import Delivery, delivered
from bitfold.network.shards.processes import Processes
from bitfold.network.shards.work import Failure, Run, Task, Work

# With so many failures of a shard the work ends.
_MOST_FAILURES = 3
# Of data in memory all that may be sent.
_MOST_SENT = 256 << 20
# Tasks that are handed over before they are computed: for each worker where their number is known.
_AHEAD = 2
_AHEAD_OF_ALL = 1000
# Processes are told of shards in the standard way, which knows functions by their names alone.
_POOLS = (concurrent.futures.ProcessPoolExecutor, Processes)


def check(executor: Any, references: Sequence[ShardReference]) -> None:
    """Refuse what cannot compute, and data that are too large to be sent.

    Raises:
        TypeError: for no executor.
        ValueError: for an executor whose workers would hang, and for large data in memory.
    """
    if not isinstance(executor, Executor):
        hint = "; of a Dask client take get_executor()" if hasattr(executor, "get_executor") else ""
        raise TypeError(f"Need a concurrent.futures.Executor, got {executor!r}{hint}")
    if isinstance(executor, concurrent.futures.ThreadPoolExecutor):
        return
    context = getattr(executor, "_mp_context", None)
    if context is not None and context.get_start_method() == "fork":
        raise ValueError(
            "Need worker processes that are spawned, got forks, which hang where the runtime has "
            "computed before; give ProcessPoolExecutor mp_context="
            "multiprocessing.get_context('spawn')"
        )
    held = sum(reference.part.held_bytes for reference in references)
    if held > _MOST_SENT:
        raise ValueError(
            f"Need data by reference for workers, as files that they read themselves, got "
            f"{held >> 20} MB in memory; at most {_MOST_SENT >> 20} MB are sent"
        )
    if isinstance(executor, _POOLS) and references:
        _check_pickle(references[0])


def _check_pickle(reference: ShardReference) -> None:
    try:
        pickle.dumps(reference)
    except Exception as error:  # whatever it is made of says so in its own way
        raise ValueError(
            "Need data that worker processes can be told of, with functions of a module and no "
            f"lambdas, got {error}"
        ) from error


def computed(
    work: Work,
    tasks: Iterable[Task],
    executor: Executor | None,
    advance: Callable[[int], None],
    *,
    keeps_runners: bool = False,
) -> Iterator[tuple[Task, Any]]:
    """Compute tasks, in any order.

    Args:
        work: what is to be done.
        tasks: what of; they are taken as they can be computed.
        executor: who computes them; None for this process. `check` has seen it.
        advance: takes how many images more are done.
        keeps_runners: whether keys come again after others; in this process alone.

    Yields:
        A task with what was found.

    Raises:
        WorkerError: for a shard that cannot be computed, and workers that are gone. In this process
            errors come as they are.
    """
    if executor is None:
        yield from _computed_here(work, tasks, advance, keeps_runners)
        return
    with delivered(work, executor) as delivery:
        flow = _Flow(work, executor, delivery)
        try:
            for task, found in flow.results(iter(tasks)):
                advance(task.shard.images)
                yield task, found
        finally:
            flow.cancel()


def _computed_here(
    work: Work, tasks: Iterable[Task], advance: Callable[[int], None], keeps_runners: bool
) -> Iterator[tuple[Task, Any]]:
    runners: dict[Any, Run] = {}
    for task in tasks:
        if task.key not in runners:
            if not keeps_runners:
                runners.clear()  # their graphs are needed no more
            runners[task.key] = work.runner(task.key)
        yield task, runners[task.key](task.shard.load(), advance)


class _Flow:
    """Tasks on their way through an executor."""

    def __init__(self, work: Work, executor: Executor, delivery: Delivery) -> None:
        """Take who computes, and how the work gets there."""
        self._work, self._executor, self._delivery = work, executor, delivery
        self._ahead = _ahead(executor)
        # How often each has failed.
        self._underway: dict[concurrent.futures.Future, tuple[Task, int]] = {}
        self._done: queue.SimpleQueue[concurrent.futures.Future] = queue.SimpleQueue()

    def results(self, tasks: Iterator[Task]) -> Iterator[tuple[Task, Any]]:
        """Yield tasks with what was found, as they come."""
        while True:
            while len(self._underway) < self._ahead and (task := next(tasks, None)) is not None:
                self._submit(task, 0)
            if not self._underway:
                return
            future = self._done.get()
            task, failures = self._underway.pop(future)
            found = _outcome(future)
            if not isinstance(found, Failure):
                yield task, found
            elif found.is_final or failures + 1 == _MOST_FAILURES:
                raise self._error(task, found)
            else:
                self._submit(task, failures + 1)

    def cancel(self) -> None:
        """Take back what no worker has begun; what they have begun nobody waits for."""
        for future in list(self._underway):
            future.cancel()

    def _submit(self, task: Task, failures: int) -> None:
        # What a worker had that is gone now comes with the task.
        shard = task.shard if failures else self._delivery.shard(task.shard)
        try:
            future = self._executor.submit(workers.compute, self._delivery.parcel, task.key, shard)
        except Exception as error:  # of whatever kind: it is broken, shut down or disconnected
            raise WorkerError(
                f"Need an executor that takes work, got {type(error).__name__}: {error}. A new one "
                "goes on with the finished shards, where they are kept by resume"
            ) from error
        self._underway[future] = task, failures
        future.add_done_callback(self._done.put)

    def _error(self, task: Task, failure: Failure) -> WorkerError:
        where = f"shard {task.shard.index}, {self._work.called(task.key)}"
        if failure.is_final:
            return WorkerError(f"{failure.worker}, {where}: {failure.text}")
        return WorkerError(
            f"Need a shard that can be computed, got {_MOST_FAILURES} failures of {where}; the "
            f"last, {failure.worker}: {failure.text}"
        )


def _ahead(executor: Executor) -> int:
    """Return how many tasks are handed over at once: more may join a cluster than it has by now."""
    count = getattr(executor, "_max_workers", None)
    if count is not None:
        return _AHEAD * count
    threads = dask_cluster.threads(executor) if dask_cluster.is_executor(executor) else 0
    return max(_AHEAD_OF_ALL, _AHEAD * threads)


def _outcome(future: concurrent.futures.Future) -> Any:
    """Return what a worker found, or what kept it or the executor from it."""
    try:
        return future.result()
    except concurrent.futures.CancelledError:
        return Failure("executor", "the executor gave it up")
    except Exception as error:
        return Failure("executor", f"{type(error).__name__}: {error}")
