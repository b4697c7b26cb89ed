# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A scheduler and its workers in processes of their own, and a metric that they can import."""

from __future__ import annotations

import contextlib
import os
import pathlib
import subprocess
import sys
import time
from collections.abc import Iterator

import numpy as np
import tensorflow as tf

_FOLDER = pathlib.Path(__file__).parent
_SECONDS = 300
# A label that stands for damaged data.
BAD = 99


def share_of_zeros(labels: tf.Tensor, outputs: tf.Tensor) -> tf.Tensor:
    """Return a metric that refuses the bad label."""
    if np.any(np.asarray(labels) == BAD):
        raise ValueError(f"the label {BAD}")
    return tf.cast(tf.reshape(labels, [-1]) == 0, tf.float32)


@contextlib.contextmanager
def cluster(folder: pathlib.Path, environments: list[dict[str, str]]) -> Iterator[str]:
    """Start a scheduler, and a worker for each environment that begins to import the package.

    Yields:
        The scheduler's address.
    """
    file = folder / "scheduler.json"
    quiet = {"TF_CPP_MIN_LOG_LEVEL": "2", "PYTHONPATH": str(_FOLDER)}
    common = ["--scheduler-file", str(file)]
    listens = ["--host", "127.0.0.1", "--port", "0", "--no-dashboard", "--no-jupyter"]
    with contextlib.ExitStack() as stack:

        def start(name: str, *arguments: str, environment: dict[str, str] | None = None) -> None:
            log = stack.enter_context((folder / f"{name}.log").open("wb"))
            process = subprocess.Popen(
                [sys.executable, "-m", "distributed.cli." + arguments[0], *arguments[1:]],
                cwd=folder,
                env={**os.environ, **quiet, **(environment or {})},
                stdout=log,
                stderr=log,
            )
            stack.callback(process.wait)
            stack.callback(process.kill)

        start("scheduler", "dask_scheduler", *common, *listens)
        for i, environment in enumerate(environments):
            start(
                f"worker{i}", "dask_worker", *common, "--host", "127.0.0.1", "--no-nanny",
                "--no-dashboard", "--nthreads", "1", "--name", f"worker{i}", "--memory-limit", "0",
                "--local-directory", str(folder), "--preload", "bitfold",
                environment=environment,
            )  # fmt: skip
        deadline = time.monotonic() + _SECONDS
        while not file.exists():
            assert time.monotonic() < deadline, (folder / "scheduler.log").read_text()
            time.sleep(0.05)
        yield str(file)
