# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Placement onto a GPU that is not there: an error that says so, or the CPU, if it is soft."""

from __future__ import annotations

import re

import keras
import numpy as np
import pytest
import tensorflow as tf
from keras import layers

import bitfold

MISSING = "GPU:7"
DATA = np.random.default_rng(20261122).integers(-50, 51, (2, 6, 5, 3))


@pytest.fixture(scope="module")
def network() -> bitfold.Network:
    """A network of two layers."""
    keras.utils.set_random_seed(1)
    image = keras.Input((6, 5, 3))
    x = layers.Flatten()(layers.Conv2D(4, 3, activation="relu")(image))
    model = keras.Model(image, layers.Dense(3)(x))
    return bitfold.Network.from_keras(model, DATA.astype(np.float32))


@pytest.fixture(params=["op", "op in a function", "network", "network in a function"])
def call(request, network):
    """What is placed: a call without arguments."""
    image, stored = DATA.astype(np.float32), DATA.astype(np.int8)
    filters = np.ones((3, 3, 3, 2), np.float32)
    calls = {
        "op": lambda: bitfold.ops.conv2d(image, filters),
        "network": lambda: network(stored),
    }
    name, _, is_function = request.param.partition(" in a ")
    return tf.function(calls[name], autograph=False) if is_function else calls[name]


@pytest.fixture
def placement():
    """Sets whether placement is soft; afterwards it is as before."""
    before = tf.config.get_soft_device_placement()
    yield tf.config.set_soft_device_placement
    tf.config.set_soft_device_placement(before)


def test_a_missing_gpu_is_an_error(call, placement):
    """The runtime's own, which names what was asked for and what there is."""
    placement(False)
    with tf.device(MISSING), pytest.raises(tf.errors.InvalidArgumentError) as caught:
        call()
    text = str(caught.value)
    assert re.search(r"Could not satisfy device specification '\S*device:GPU:7'", text)
    assert re.search(r"All available devices \[.*device:CPU:0", text)


def test_soft_placement_falls_back(call, placement):
    """The same bits, on a device that is there."""
    expected = call()
    placement(True)
    with tf.device(MISSING):
        result = call()
    assert MISSING not in result.device
    assert result.dtype == expected.dtype
    np.testing.assert_array_equal(result, expected)
