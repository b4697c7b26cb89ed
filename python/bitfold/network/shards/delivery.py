# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""How a work and small data get to workers: once, not with each task.

Processes of this machine read files; a cluster has its own way to copy what a task depends on.
"""

from __future__ import annotations

import concurrent.futures
import contextlib
import dataclasses
import pathlib
import pickle
import tempfile
from collections.abc import Iterator
from concurrent.futures import Executor
from typing import Any

from bitfold.network.shards import dask_cluster, workers
from bitfold.network.shards.data import Shard, ShardReference
from bitfold.network.shards.work import Work


class Delivery:
    """What stands for a work and for shards among the arguments of a task.

    Attributes:
        parcel: stands for the work.
    """

    def __init__(self, executor: Executor, parcel: workers.Parcel, folder: pathlib.Path) -> None:
        """Take a work and a folder that lives as long as the tasks."""
        self._executor, self._folder = executor, folder
        self._shards: dict[int, Any] = {}
        if dask_cluster.is_executor(executor):
            self.parcel = dask_cluster.shared(executor, parcel, everywhere=True)
        else:
            path = folder / "work"
            path.write_bytes(parcel.content)
            self.parcel = dataclasses.replace(parcel, content=path)

    def shard(self, reference: ShardReference) -> Any:
        """Return what stands for a shard: itself where it holds no data."""
        is_thread = isinstance(self._executor, concurrent.futures.ThreadPoolExecutor)
        if is_thread or not reference.part.held_bytes:
            return reference
        if reference.index not in self._shards:
            self._shards[reference.index] = self._sent(reference)
        return self._shards[reference.index]

    def _sent(self, reference: ShardReference) -> Any:
        if dask_cluster.is_executor(self._executor):
            return dask_cluster.shared(self._executor, reference)
        path = self._folder / f"shard{reference.index}"
        path.write_bytes(pickle.dumps(reference))
        return _Filed(path)


@dataclasses.dataclass(frozen=True)
class _Filed:
    """A shard whose data are in a file for the time being."""

    path: pathlib.Path

    def load(self) -> Shard:
        """Read the shard."""
        return pickle.loads(self.path.read_bytes()).load()


@contextlib.contextmanager
def delivered(work: Work, executor: Executor) -> Iterator[Delivery]:
    """Deliver a work for the time that its tasks take.

    Raises:
        OSError: where no temporary files can be written.
        TypeError: for a work that cannot be pickled.
    """
    try:
        content = pickle.dumps(work)
    except Exception as error:  # whatever it is made of says so in its own way
        raise TypeError(
            "Need a metric that can be sent to workers, as a name or a function of a module, got "
            f"{error}"
        ) from error
    parcel = workers.parcel(content, getattr(executor, "_max_workers", None))
    with tempfile.TemporaryDirectory(prefix="bitfold-", ignore_cleanup_errors=True) as folder:
        try:
            yield Delivery(executor, parcel, pathlib.Path(folder))
        finally:
            workers.forget(parcel.digest)
