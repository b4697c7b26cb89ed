# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Random networks: a seed gives a Keras model, calibration data, and the file that results.

    generated.network(17).content

The first block of a network is the seed's turn among all blocks, so that a run of seeds as long as
the list holds every one of them; whatever follows is random.
"""

from __future__ import annotations

import dataclasses
import inspect
from collections.abc import Callable, Sequence
from typing import Any

import blocks
import keras
import numpy as np

BLOCKS: tuple[Callable[..., Any], ...] = tuple(
    function
    for name, function in vars(blocks).items()
    if inspect.isfunction(function) and not name.startswith("_") and inspect.signature(function).parameters.keys() == {"build", "x"}
)


@dataclasses.dataclass(frozen=True, eq=False)
class Generated:
    """A network.

    Attributes:
        seed: what it was made from.
        model: the Keras model.
        calibration: one array for each input.
        activation_bits: 8 or 16.
    """

    seed: int
    model: keras.Model
    calibration: list[np.ndarray]
    activation_bits: int


def network(seed: int) -> Generated:
    """Return the network of a seed: the same on every machine."""
    keras.utils.clear_session(free_memory=False)
    build = blocks.Build(np.random.default_rng(seed), 16 if seed // len(BLOCKS) % 2 else 8)
    rng = build.rng
    x = build.input(_shape(rng))
    todo = [BLOCKS[seed % len(BLOCKS)]]
    todo += [BLOCKS[i] for i in rng.integers(0, len(BLOCKS), rng.integers(1, 6))]
    for block in todo:
        changed = block(build, x)
        if changed is not None:
            x = changed
            build.seen.append(x)
    outputs = [_head(build, x)]
    if rng.random() < 0.2:
        outputs.append(build.choose(build.seen[1:] or [x]))
    model = keras.Model(build.inputs, _distinct(outputs))
    for layer in model.layers:
        blocks.randomise(layer, rng)
    calibration = [
        rng.normal(rng.normal(0, 0.3), rng.uniform(0.3, 2), (12, *i.shape[1:])).astype(np.float32)
        for i in model.inputs
    ]
    return Generated(seed, model, calibration, build.activation_bits)


def _shape(rng: np.random.Generator) -> tuple[int, int, int]:
    """Return rows, columns and channels of the images."""
    rows = int(rng.integers(5, 20, endpoint=True))
    columns = rows if rng.random() < 0.5 else int(rng.integers(5, 20, endpoint=True))
    return rows, columns, int(rng.choice([1, 2, 3, 4, 6, 8]))


def _head(build: blocks.Build, x: keras.KerasTensor) -> keras.KerasTensor:
    """Return x, pooled and classified, or as it is."""
    choice = build.number(0, 4)
    if choice == 0:
        return x
    if choice == 1:
        x = keras.layers.Flatten()(x)
    else:
        x = keras.layers.GlobalAveragePooling2D()(x)
    return keras.layers.Dense(build.number(2, 11), build.choose(["softmax", "sigmoid", None]))(x)


def _distinct(outputs: Sequence[keras.KerasTensor]) -> list[keras.KerasTensor]:
    return list({id(x): x for x in outputs}.values())
