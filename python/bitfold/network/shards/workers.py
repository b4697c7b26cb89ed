# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What runs in a worker: a shard of a work that is read once in each process.

A worker is a process that somebody else has started, with as many threads that compute shards as
they like. Each thread has runners of its own, which know what they have seen.
"""

from __future__ import annotations

import contextlib
import dataclasses
import hashlib
import os
import pathlib
import pickle
import socket
import threading
from collections import OrderedDict
from collections.abc import Callable, Hashable
from typing import Any

import tensorflow as tf

from bitfold._frame.library import VERSION
from bitfold.network.shards import dask_cluster
from bitfold.network.shards.data import ShardReference
from bitfold.network.shards.work import Failure, Run, Work

# How many works a process keeps, of a study and of the evaluations that follow it, and how many
# runners a thread keeps: that of the key in work and that of the next.
_WORKS = _RUNNERS = 2


@dataclasses.dataclass(frozen=True)
class Parcel:
    """A work on its way to workers, and what these need to take it.

    Attributes:
        digest: what tells it from others.
        content: its bytes, or the path of a file that has them.
        versions: that workers must have, too.
        sender: the name of the process that has made it.
        processes: how many workers share the machine; None where the sender does not know.
    """

    digest: str
    content: bytes | pathlib.Path
    versions: tuple[tuple[str, str], ...]
    sender: str
    processes: int | None

    def work(self) -> Work:
        """Return the work.

        Raises:
            OSError: for a file that this machine cannot read.
        """
        content = self.content
        return pickle.loads(content if isinstance(content, bytes) else content.read_bytes())


def parcel(content: bytes, processes: int | None) -> Parcel:
    """Return a pickled work as a parcel."""
    digest = hashlib.blake2b(content, digest_size=16).hexdigest()
    return Parcel(digest, content, _versions(), _name(), processes)


def compute(parcel: Parcel, key: Hashable, shard: ShardReference) -> Any:
    """Compute a shard; return what was found, or a `Failure`."""
    try:
        versions = _versions()
        if versions != parcel.versions:
            text = f"Need {_listed(parcel.versions)} as where the work begins, got"
            return Failure(_name(), f"{text} {_listed(versions)}", is_final=True)
        if parcel.sender != _name():
            _limit_threads(parcel.processes)
        run = _runners.get((parcel.digest, key), lambda: _work(parcel).runner(key))
        return run(shard.load(), lambda images: None)
    except Exception as error:
        return Failure(_name(), f"{type(error).__name__}: {error}")


def forget(digest: str) -> None:
    """Let go of a work that is done, in the process that it began in."""
    with _lock:
        _works.pop(digest)


class _Last:
    """The values that were asked for last."""

    def __init__(self, most: int) -> None:
        self._most = most
        self._values: OrderedDict[Hashable, Any] = OrderedDict()

    def get(self, key: Hashable, make: Callable[[], Any]) -> Any:
        """Return the value of a key, made where it is not kept."""
        if key not in self._values:
            while len(self._values) >= self._most:
                self._values.popitem(last=False)
            self._values[key] = make()
        self._values.move_to_end(key)
        return self._values[key]

    def pop(self, key: Hashable) -> None:
        """Keep a value no longer."""
        self._values.pop(key, None)


class _OfThread(threading.local):
    """The runners of a thread."""

    def __init__(self) -> None:
        self._runners = _Last(_RUNNERS)

    def get(self, key: Hashable, make: Callable[[], Run]) -> Run:
        """Return the runner of a key."""
        return self._runners.get(key, make)


_lock = threading.Lock()
_works = _Last(_WORKS)
_runners = _OfThread()
_limited = threading.Event()


def _work(parcel: Parcel) -> Work:
    with _lock:
        return _works.get(parcel.digest, parcel.work)


def _versions() -> tuple[tuple[str, str], ...]:
    """Return what decides on bits, or on what a pickled work means."""
    return ("bitfold", VERSION), ("tensorflow", tf.__version__)


def _listed(versions: tuple[tuple[str, str], ...]) -> str:
    return " and ".join(f"{name} {version}" for name, version in versions)


def _name() -> str:
    return f"process {os.getpid()} on {socket.gethostname()}"


def _limit_threads(processes: int | None) -> None:
    """Give this process its share of the machine's cores, once, before the runtime takes all."""
    if _limited.is_set():
        return
    _limited.set()
    cores = len(os.sched_getaffinity(0))
    count = dask_cluster.threads_of_worker() or max(1, cores // (processes or cores))
    for limit in (
        tf.config.threading.set_intra_op_parallelism_threads,
        tf.config.threading.set_inter_op_parallelism_threads,
    ):
        with contextlib.suppress(RuntimeError):  # it computes already
            limit(min(count, cores))
