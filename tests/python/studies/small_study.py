# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A small study that executors compute, and what is done to them meanwhile."""

from __future__ import annotations

import concurrent.futures
import dataclasses
from collections.abc import Callable

import numpy as np

import bitfold
from bitfold.studies.records import Findings
from bitfold.studies.resuming import Parts

A = bitfold.Arithmetic
SETTINGS = [A(13), A(use_fp16_acc=True), {"DEPTHWISE_CONV_2D": A(18, 1), "c1": A(12)}]
IMAGES, SHARD = 72, 6
PARTS = IMAGES // SHARD * (1 + len(SETTINGS))


def images(count: int, seed: int) -> np.ndarray:
    """Return random images."""
    return np.random.default_rng(seed).normal(size=(count, 9, 9, 2)).astype(np.float32)


def plain(study: bitfold.Study) -> Findings:
    """Return what was found but for the time it took."""
    return dataclasses.replace(study.findings, seconds=0.0)


def after_parts(monkeypatch, parts: int, do: Callable[[], None]) -> list[int]:
    """Have something done when so many parts are finished; return how many were in the end."""
    add, finished = Parts.add, [0]

    def added(self, *arguments):
        add(self, *arguments)
        finished[0] += 1
        if finished[0] == parts:
            do()

    monkeypatch.setattr(Parts, "add", added)
    return finished


class Failing(concurrent.futures.Executor):
    """Computes here and now, but for the first calls, which end in errors."""

    def __init__(self, *errors: BaseException) -> None:
        """Take what the first calls end in."""
        self.errors = list(errors)

    def submit(self, function, /, *arguments):
        """Compute, or fail."""
        future = concurrent.futures.Future()
        if self.errors:
            error = self.errors.pop(0)
            if isinstance(error, concurrent.futures.CancelledError):
                future.cancel()
            else:
                future.set_exception(error)
        else:
            future.set_result(function(*arguments))
        return future
