# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Dask as the engine for several machines: the one place that knows it.

It is asked for by those who have it; nobody else needs it.
"""

from __future__ import annotations

import contextlib
import sys
import warnings
from collections.abc import Callable, Iterator, Sequence
from concurrent.futures import Executor, Future
from typing import Any

# What Dask says of a task that brings a network or data along, which is what is meant.
_LARGE = "Sending large graph"


@contextlib.contextmanager
def connected(address: str) -> Iterator[Executor]:
    """Connect to a scheduler, and yield its executor.

    Raises:
        ImportError: where Dask is not installed.
        OSError: where nobody answers at the address.
        ValueError: for an address that is none.
    """
    try:
        from distributed import Client
    except ImportError as error:
        raise ImportError(
            f"Need Dask for a scheduler, got {error}; pip install 'bitfold[distributed]'"
        ) from None
    with Client(address, set_as_default=False) as client:
        yield client.get_executor()


def is_executor(executor: Executor) -> bool:
    """Return whether Dask made an executor."""
    module = sys.modules.get("distributed.cfexecutor")
    return module is not None and isinstance(executor, module.ClientExecutor)


def threads(executor: Executor) -> int:
    """Return how many threads the workers of a cluster have by now."""
    return sum(executor._client.nthreads().values())


def submitted(
    executor: Executor, function: Callable, calls: Sequence[tuple[Any, ...]]
) -> list[Future]:
    """Have a function called with each of several arguments, which are sent in one message.

    Nothing is taken for known: a call that is tried again is computed again.
    """
    keywords = executor._kwargs | {"pure": False}
    futures = executor._client.map(function, *zip(*calls, strict=True), **keywords)
    return [executor._wrap_future(future) for future in futures]


def shared(executor: Executor, value: Any, *, everywhere: bool = False) -> Any:
    """Return what stands for a value as an argument: each worker gets it once.

    It lives with those who have it as their result, and is made anew where all of them are gone.
    Scattered data would be lost with them, and tasks would wait for them without end.

    Args:
        executor: of a cluster.
        value: what tasks take.
        everywhere: whether all workers that are there get it now, and not when they need it. Few
            tasks go to those who have what they need, and the others stand idle until they steal
            some, which takes seconds where a worker is busy.
    """
    with warnings.catch_warnings():
        warnings.filterwarnings("ignore", _LARGE)
        future = executor._client.submit(_same, value, pure=False)
    if everywhere:
        with contextlib.suppress(ValueError):  # a worker is gone by then: the rest as they need it
            executor._client.replicate([future])
    return future


def threads_of_worker() -> int | None:
    """Return how many threads Dask gives this worker; None where this is none of its workers."""
    module = sys.modules.get("distributed.worker")
    if module is None:
        return None
    try:
        return module.get_worker().state.nthreads
    except ValueError:
        return None


def _same(value: Any) -> Any:
    return value
