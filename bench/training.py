# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Times steps of training through the arithmetic beside steps of the float models."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

import keras
import numpy as np

import bitfold
import network_models
from timing import interleaved

FLOAT = "float"
# Accumulators by what they are called: bits, and whether they are proven. At 16 bits a wrap on the
# way cannot matter, so that sums may be formed in any order; at 12 every step of a sum counts.
PROVEN, HARMLESS, STEPWISE = "16 bits, proven", "16 bits, unproven", "12 bits, unproven"
ACCUMULATORS = {PROVEN: (16, True), HARMLESS: (16, False), STEPWISE: (12, False)}
# By network: how many images a step has, how often the calls take turns, in which accumulators. At
# 12 bits everything wraps in 52 layers, and gradients that pass straight through it leave the
# floats within three steps.
NETWORKS = {
    "fashion": (128, 8, (PROVEN, HARMLESS, STEPWISE)),
    "mobilenet_v2": (16, 4, (PROVEN, HARMLESS)),
}
CALIBRATION = 8


@dataclass(frozen=True)
class StepTimes:
    """Seconds of a step of training: forward, backward, the optimiser.

    Attributes:
        network: its name.
        images: of a step.
        kind: of the accumulators, of ACCUMULATORS.
        float_seconds: of the float model's step.
        seconds: of the emulated model's.
    """

    network: str
    images: int
    kind: str
    float_seconds: float
    seconds: float

    @property
    def ratio(self) -> float:
        """How many steps of the float model one of the emulated takes."""
        return self.seconds / self.float_seconds


def measure(name: str, budget: float) -> list[StepTimes]:
    """Time a network's steps in turns: in floats and in each accumulator."""
    count, rounds, kinds = NETWORKS[name]
    images = network_models.images(name, count)
    models = {FLOAT: _copy(name)}
    for kind in kinds:
        width, is_proven = ACCUMULATORS[kind]
        models[kind] = bitfold.training.emulate(
            _copy(name),
            bitfold.Arithmetic(width),
            calibration=images[:CALIBRATION],
            proven_width=width if is_proven else None,
        )
    times = interleaved(
        {kind: _step(model, images) for kind, model in models.items()}, budget, rounds
    )
    return [StepTimes(name, count, kind, times[FLOAT], times[kind]) for kind in kinds]


def _copy(name: str) -> keras.Model:
    """Return a network with weights of its own."""
    model = network_models.float_model(name)
    copy = keras.models.clone_model(model)
    copy.set_weights(model.get_weights())
    return copy


def _step(model: keras.Model, images: np.ndarray) -> Callable[[], object]:
    """Return a call that takes a step."""
    labels = np.arange(len(images)) % 10
    loss = keras.losses.MeanSquaredError()
    targets = keras.utils.to_categorical(labels, model.output_shape[-1])
    model.compile(keras.optimizers.Adam(1e-5), loss)
    return lambda: model.train_on_batch(images, targets)
