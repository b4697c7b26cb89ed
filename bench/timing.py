# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the benchmarks share: the same numbers in every run, calls of the runtime, medians."""

from __future__ import annotations

import os
import pathlib
import time
from collections.abc import Callable, Mapping
from dataclasses import dataclass

os.environ.setdefault("TF_CPP_MIN_LOG_LEVEL", "2")

import numpy as np
import tensorflow as tf

# Enough layers in a graph that the call of the graph hardly counts.
LAYERS = 16


@dataclass
class Case:
    """One row: what runs, and how many additions or multiply-adds it makes."""

    name: str
    shape: str
    operations: int
    ours: Callable[[], tf.Tensor]
    stock: Callable[[], tf.Tensor]
    path: str = "scalar"


def use_threads(count: int) -> None:
    """Keep the runtime to so many threads; before anything else runs in it."""
    tf.config.threading.set_intra_op_parallelism_threads(count)
    tf.config.threading.set_inter_op_parallelism_threads(count)


def use_one_thread() -> None:
    """Keep the runtime to one thread."""
    use_threads(1)


def integers(shape: tuple[int, ...], low: int, high: int, dtype: tf.DType) -> tf.Tensor:
    """Return whole numbers in [low, high], the same in every run."""
    values = np.random.default_rng(2026).integers(low, high + 1, shape)
    return tf.constant(values.astype(dtype.as_numpy_dtype))


def in_graph(function: Callable[..., tf.Tensor], *tensors: tf.Tensor) -> Callable[[], tf.Tensor]:
    """Return a call of the function on the tensors, compiled by tf.function, as models run."""
    signature = [tf.TensorSpec(x.shape, x.dtype) for x in tensors]
    compiled = tf.function(function, input_signature=signature)
    return lambda: compiled(*tensors)


def layers_in_graph(
    layer: Callable[[tf.Tensor, tf.Tensor], tf.Tensor], x: tf.Tensor, weights: tf.Tensor
) -> Callable[[], tf.Tensor]:
    """Return a call of a graph with LAYERS layers of `x`, one after the other.

    Each has weights of its own, or the runtime would compute one for all. Of the results one
    element is kept, so that their memory is used again as that of a model's layers is.
    """

    def graph(x, *all_weights):
        kept = []
        for weights in all_weights:
            with tf.control_dependencies(kept[-1:]):
                kept.append(tf.reshape(layer(x, weights), [-1])[0])
        return tf.stack(kept)

    return in_graph(graph, x, *(tf.constant(weights.numpy()) for _ in range(LAYERS)))


def seconds(call: Callable[[], object], budget: float) -> float:
    """Return the median time of a call, over at least 3 and about `budget` seconds of them.

    A call on the CPU returns when it has computed.
    """
    call()
    times: list[float] = []
    while len(times) < 3 or sum(times) < budget:
        start = time.perf_counter()
        call()
        times.append(time.perf_counter() - start)
    return float(np.median(times))


def interleaved(
    calls: Mapping[str, Callable[[], object]], budget: float, rounds: int = 8
) -> dict[str, float]:
    """Return the median time of each call, `budget` seconds of it in turns with the others.

    What else the machine does falls on all of them alike. A turn is of several calls where these
    are short, so that they find their own data in the caches.
    """
    for call in calls.values():
        call()
    times: dict[str, list[float]] = {name: [] for name in calls}
    for _ in range(rounds):
        for name, call in calls.items():
            end = time.perf_counter() + budget / rounds
            while True:
                start = time.perf_counter()
                call()
                times[name].append(time.perf_counter() - start)
                if time.perf_counter() >= end:
                    break
    return {name: float(np.median(taken)) for name, taken in times.items()}


def vector_target() -> str:
    """Return the instruction set that the vector loops take on this machine."""
    features = set()
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("flags"):
            features = set(line.split())
            break
    if {"avx512f", "avx512bw", "avx512dq", "avx512vl"} <= features:
        return "AVX-512"
    return "AVX2" if "avx2" in features else "portable"
