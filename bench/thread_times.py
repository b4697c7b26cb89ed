# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Times two threads against one, and the demo's network over its whole test set on two.

The runtime takes its number of threads when it starts. So a process has each, and they work in
turns.
"""

from __future__ import annotations

import functools
from collections.abc import Callable
from concurrent.futures import Executor
from dataclasses import dataclass

import numpy as np
import tensorflow as tf

import network_models
from layer_times import FULL, Shape
from network_times import NETWORKS, float_call
from timing import integers, interleaved, seconds

# What is timed, and of how many images.
LARGE = Shape("conv2d", (1, 112, 112, 64), (3, 3, 64, 64))
MANY = Shape("conv2d", (32, 56, 56, 64), (3, 3, 64, 64))
WORK: tuple[tuple[Shape | str, int], ...] = (
    (LARGE, 1),
    (MANY, 32),
    *((network, images) for network in NETWORKS for images in (1, 32)),
)
TURNS = 3
TEST_IMAGES = 10_000
# Images at once of the float network: what ours takes, and the faster for it than the default 32.
BATCH = 256
OURS, STOCK = "bitfold", "stock float"


@dataclass(frozen=True)
class ThreadTimes:
    """Seconds a call on one thread and on two."""

    work: str
    who: str
    one_seconds: float
    two_seconds: float

    @property
    def ratio(self) -> float:
        """How many times as fast two threads are."""
        return self.one_seconds / self.two_seconds


def compare(one: Executor, two: Executor, budget: float) -> list[ThreadTimes]:
    """Time all work in two processes, of one thread and of two, in turns."""
    rows = []
    for work, images in WORK:
        for who in (OURS, STOCK):
            taken: dict[Executor, list[float]] = {one: [], two: []}
            for _ in range(TURNS):
                for process, times in taken.items():
                    share = budget / TURNS
                    times.append(process.submit(_seconds, work, who, images, share).result())
            medians = [float(np.median(times)) for times in taken.values()]
            rows.append(ThreadTimes(_name(work, images), who, *medians))
    return rows


def _name(work: Shape | str, images: int) -> str:
    if isinstance(work, Shape):
        return f"{work.text}, eager"
    return f"{work}, {images} images" if images > 1 else f"{work}, one image"


def fashion(budget: float) -> dict[str, float]:
    """Return the seconds that the demo's networks take to predict 10,000 images, by who."""
    network, model = network_models.network("fashion"), network_models.float_model("fashion")
    images = network_models.images("fashion", TEST_IMAGES)
    calls = {
        OURS: lambda: network.predict(images),
        STOCK: lambda: model.predict(images, batch_size=BATCH, verbose=0),
    }
    return interleaved(calls, budget, TURNS)


def _seconds(work: Shape | str, who: str, images: int, budget: float) -> float:
    return seconds(_call(work, who, images), budget)


@functools.cache
def _call(work: Shape | str, who: str, images: int) -> Callable[[], object]:
    """Return a call, made once in a process."""
    if isinstance(work, str):
        if who == STOCK:
            return float_call(work, images)
        network, stored = network_models.network(work), network_models.stored_images(work, images)
        return lambda: network(stored)
    x = integers(work.data, 0, 255, tf.int32)
    w = integers(work.weights, -128, 127, tf.int32)
    if who == STOCK:
        floats = (tf.cast(x, tf.float32), tf.cast(w, tf.float32))
        return lambda: work.stock(*floats)
    return lambda: work.ours(FULL)(x, w)
