# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Studies are tested on the files that networks are tested on; executors on one small study."""

from __future__ import annotations

import concurrent.futures
import pathlib
import sys
from collections.abc import Iterator

import keras
import numpy as np
import pytest
from small_study import IMAGES, SETTINGS, SHARD, images, plain

import bitfold
from bitfold.studies.records import Findings

sys.path.insert(1, str(pathlib.Path(__file__).parents[1] / "network"))


@pytest.fixture(scope="session")
def network() -> bitfold.Network:
    """A network with layers of several kinds."""
    keras.utils.set_random_seed(5)
    layers = keras.layers
    model = keras.Sequential([
        keras.Input((9, 9, 2)),
        layers.Conv2D(6, 3, padding="same", activation="relu", name="c1"),
        layers.DepthwiseConv2D(3, strides=2, name="dw"),
        layers.Conv2D(5, 1, activation="relu", name="c2"),
        layers.Flatten(),
        layers.Dense(4, name="scores"),
    ])  # fmt: skip
    return bitfold.Network.from_keras(model, calibration=images(40, 1))


@pytest.fixture(scope="session")
def data() -> tuple[np.ndarray, np.ndarray]:
    """Images and labels."""
    return images(IMAGES, 2), np.random.default_rng(3).integers(0, 4, IMAGES)


@pytest.fixture(scope="session")
def expected(network, data) -> Findings:
    """What this process finds."""
    return plain(bitfold.study(network, *data, arithmetics=SETTINGS, shard_size=SHARD))


@pytest.fixture
def threads() -> Iterator[concurrent.futures.Executor]:
    """Threads of this process."""
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        yield pool
