# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Who computes: this process, others of this machine, or a cluster."""

from __future__ import annotations

import argparse
import contextlib
from collections.abc import Iterator
from concurrent.futures import Executor

from bitfold.network.shards import dask_cluster
from bitfold.network.shards.processes import Processes
from bitfold_command import quiet


@contextlib.contextmanager
def executor(options: argparse.Namespace) -> Iterator[Executor | None]:
    """Yield the executor that the options ask for, None for this process.

    Raises:
        ImportError: for a scheduler where Dask is not installed.
        OSError: for a scheduler that does not answer.
    """
    if options.scheduler is not None:
        with dask_cluster.connected(options.scheduler) as cluster:
            yield cluster
    elif options.workers is not None:
        with Processes(options.workers, quiet.begin_worker) as processes:
            yield processes
    else:
        yield None
