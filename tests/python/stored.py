# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the tests of the ops on stored tensors share."""

from __future__ import annotations

import keras
import numpy as np
import oracle
import support
import tensorflow as tf


def words(*arrays):
    """Return arrays as contiguous int32, as the oracle takes stored integers and settings."""
    return [np.array(array, np.int32, order="C") for array in arrays]


def draw(rng, dtype, shape):
    """Return any stored integers, the type's ends among them."""
    limits = np.iinfo(dtype)
    values = rng.integers(limits.min, limits.max, shape, dtype, endpoint=True)
    ends = rng.choice(np.array([limits.min, limits.max], dtype), shape)
    return np.where(rng.integers(0, 9, shape) == 0, ends, values).astype(dtype)


ROUNDINGS = ("two_roundings", "short_multiplier", "one_rounding")


def requantised(sums, multipliers, settings, dtype):
    """Return what the oracle's requantisation stores of whole sums, channels last."""
    limits = np.iinfo(dtype)
    sums = np.ascontiguousarray(sums, np.int64)
    multipliers = np.ascontiguousarray(multipliers)
    (attributes,) = words(
        [
            ROUNDINGS.index(settings["rounding"]), settings["mult_shift"], settings["zero_point"],
            settings.get("minimum", limits.min), settings.get("maximum", limits.max),
        ],
    )  # fmt: skip
    out = np.zeros(sums.shape, np.int32)
    status = oracle.library().reference_requantise(
        sums.ctypes.data, sums.size, multipliers.ctypes.data, multipliers.size,
        attributes.ctypes.data, out.ctypes.data,
    )  # fmt: skip
    assert status == 0, f"the oracle refuses with {status}"
    return out.astype(dtype)


def check_in_models(call, x, folder):
    """Compare a function of a batch with itself in a graph, saved, and as a Keras layer."""
    expected = call(x).numpy()
    support.assert_bits(tf.function(call, autograph=False)(x), expected)
    module = tf.Module()
    spec = tf.TensorSpec([None, *x.shape[1:]], x.dtype)
    module.call = tf.function(call, input_signature=[spec], autograph=False)
    tf.saved_model.save(module, str(folder / "model"))
    support.assert_bits(tf.saved_model.load(str(folder / "model")).call(x), expected)

    symbolic = keras.Input(x.shape[1:], dtype=x.dtype.name)
    model = keras.Model(symbolic, call(symbolic))
    support.assert_bits(model.predict(x, verbose=0), expected)
    model.save(folder / "model.keras")
    support.assert_bits(keras.models.load_model(folder / "model.keras")(x), expected)
