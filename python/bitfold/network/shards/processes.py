# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Worker processes on this machine."""

from __future__ import annotations

import concurrent.futures
import multiprocessing
import signal
import threading
from collections.abc import Callable
from concurrent.futures.process import BrokenProcessPool
from typing import Any


def ignore_interrupts() -> None:
    """Leave it to the process that the user talks to what an interrupt ends."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)


class Processes(concurrent.futures.Executor):
    """Spawned worker processes; where one of them dies, all are replaced by new ones.

    The standard pool ends with the first process that is killed. What it had in work fails then,
    and whoever wants it submits it again.
    """

    def __init__(self, count: int, begin: Callable[[], None] = ignore_interrupts) -> None:
        """Take how many; they start with the first work.

        Args:
            count: of the processes.
            begin: what each of them begins with.

        Raises:
            ValueError: for a number below 1.
        """
        if count < 1:
            raise ValueError(f"Need workers >= 1, got {count}")
        self._max_workers = count  # as the standard pools call it
        self._begin = begin
        self._lock = threading.Lock()
        self._pool = self._started()

    def submit(self, function: Callable, /, *args: Any, **kwargs: Any) -> concurrent.futures.Future:
        """Have a function called by one of the processes."""
        with self._lock:
            try:
                return self._pool.submit(function, *args, **kwargs)
            except BrokenProcessPool:
                self._pool.shutdown(wait=False)
                self._pool = self._started()
                return self._pool.submit(function, *args, **kwargs)

    def shutdown(self, wait: bool = True, *, cancel_futures: bool = False) -> None:
        """End the processes when they have done what they have begun."""
        with self._lock:
            self._pool.shutdown(wait=wait, cancel_futures=cancel_futures)

    def _started(self) -> concurrent.futures.ProcessPoolExecutor:
        return concurrent.futures.ProcessPoolExecutor(
            self._max_workers,
            mp_context=multiprocessing.get_context("spawn"),
            initializer=self._begin,
        )
