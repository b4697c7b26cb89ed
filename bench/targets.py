# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the ratios of bench/networks.py should be, beside what they are. Above 1, ours is faster."""

from __future__ import annotations

from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass

import numpy as np

from distributed_times import DistributedTimes
from layer_times import NAMED, LayerTimes, name_of
from network_times import FASTEST, FULL, NARROW, STOCK, NetworkTimes
from studies import BITS, END_TO_END, StudyTimes
from thread_times import OURS, ThreadTimes
from thread_times import STOCK as STOCK_FLOAT
from training import ACCUMULATORS, StepTimes

# By network: the speed to the stock float graph, and to the mobile runtime's fastest kernels.
NETWORKS = {"mobilenet_v2": (3.0, 0.5), "residual18": (2.5, 0.6)}
FASTEST_AIM = 1.0
# The speed of 18 bits to full width.
NARROW_SPEED = 0.95
LEAST, MEAN = 0.9, 1.5
# In the order of layer_times.NAMED.
NAMED_SPEEDS = (1.0, 1.0, 1.0, 3.2, 3.0, 2.2, 1.0)
FASHION_SPEED = 1.0
THREADS_SPEED = 1.7
# Evaluations that a study may take: for the bits of all layers, and end to end in an arithmetic.
STUDIES = {BITS: 3.0, END_TO_END: 1.2}
# Two workers to one, and a task beside its work.
WORKERS_SPEED = 1.7
OVERHEAD = 0.05

# Steps of the float model that a step of training may take, at proven widths and at others.
PROVEN_STEPS, UNPROVEN_STEPS = 2.5, 10.0


@dataclass(frozen=True)
class Target:
    """A ratio, what it should be at least, and what it is hoped to be."""

    work: str
    ratio: float
    target: float
    aim: float | None = None

    @property
    def is_met(self) -> bool:
        """Whether the ratio is what it should be."""
        return self.ratio >= self.target


def of_networks(rows: Sequence[NetworkTimes]) -> Iterator[Target]:
    """Yield the targets of whole networks."""
    for row in rows:
        to_stock, to_fastest = NETWORKS[row.network]
        ours = row.seconds[FULL]
        yield Target(f"{row.network} to the {STOCK}", row.seconds[STOCK] / ours, to_stock)
        if FASTEST in row.seconds:
            ratio = row.seconds[FASTEST] / ours
            yield Target(f"{row.network} to the {FASTEST}", ratio, to_fastest, FASTEST_AIM)
        ratio = ours / row.seconds[NARROW]
        yield Target(f"{row.network}, 18 bits to full width", ratio, NARROW_SPEED)


def geometric_mean(rows: Sequence[LayerTimes]) -> float:
    """Return the mean ratio of layers, each as often as its network has it."""
    logarithms = np.repeat([np.log(row.ratio) for row in rows], [row.count for row in rows])
    return float(np.exp(np.mean(logarithms)))


def of_layers(rows: Sequence[LayerTimes]) -> Iterator[Target]:
    """Yield the targets of the networks' layers as public ops."""
    slowest = min(rows, key=lambda row: row.ratio)
    yield Target(f"slowest layer, eager: {slowest.name}", slowest.ratio, LEAST)
    yield Target("geometric mean of all layers, eager", geometric_mean(rows), MEAN)


def of_named(rows: Sequence[LayerTimes]) -> Iterator[Target]:
    """Yield the targets of the layers by name."""
    ratios = {row.name: row.ratio for row in rows}
    for (shape, options), target in zip(NAMED, NAMED_SPEEDS, strict=True):
        name = name_of(shape, options)
        yield Target(f"{name}, eager", ratios[name], target)


def of_threads(rows: Sequence[ThreadTimes]) -> Iterator[Target]:
    """Yield the targets of two threads; the layers of MobileNetV2 are small for that."""
    for row in rows:
        if row.who == OURS and not row.work.startswith("mobilenet_v2"):
            yield Target(f"two threads to one: {row.work}", row.ratio, THREADS_SPEED)


def of_fashion(times: dict[str, float]) -> Iterator[Target]:
    """Yield the target of the demo's network."""
    ratio = times[STOCK_FLOAT] / times[OURS]
    yield Target("Fashion-MNIST network, 10,000 images, two threads", ratio, FASHION_SPEED)


def of_studies(rows: Sequence[StudyTimes]) -> Iterator[Target]:
    """Yield the targets of studies, as the speed of a study to that of an evaluation."""
    for row in rows:
        if row.kind in STUDIES:
            yield Target(f"{row.network}, study, {row.work}", 1 / row.ratio, 1 / STUDIES[row.kind])


def of_training(rows: Sequence[StepTimes]) -> Iterator[Target]:
    """Yield the targets of training, as the speed of an emulated step to that in floats."""
    for row in rows:
        _, is_proven = ACCUMULATORS[row.kind]
        steps = PROVEN_STEPS if is_proven else UNPROVEN_STEPS
        yield Target(f"{row.network}, a step of training, {row.kind}", 1 / row.ratio, 1 / steps)


def of_distributed(rows: Sequence[DistributedTimes]) -> Iterator[Target]:
    """Yield the targets of workers: their speed to one, and the work's share of a task."""
    for row in rows:
        what = f"{row.work}, {row.engine}"
        yield Target(f"{what}: two workers to one", row.speed_up, WORKERS_SPEED)
        yield Target(f"{what}: work to task", 1 / (1 + row.overhead), 1 / (1 + OVERHEAD))


OF: dict[str, Callable[..., Iterator[Target]]] = {
    "networks": of_networks,
    "layers": of_layers,
    "named": of_named,
    "fashion": of_fashion,
    "threads": of_threads,
    "studies": of_studies,
    "training": of_training,
    "distributed": of_distributed,
}
