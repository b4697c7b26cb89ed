# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Gradients of layers in integers, on numbers where they are exact: steps of 2^-6."""

from __future__ import annotations

import keras
import numpy as np
import pytest
import tensorflow as tf

import bitfold
from bitfold import training

STEP = 2.0**-6


def _dense(kernel: np.ndarray, gradient: str, width: int | None = None) -> keras.Model:
    """Return a dense layer whose data, filter and output have steps of 2^-6."""
    model = keras.Sequential(
        [keras.Input((kernel.shape[0],)), keras.layers.Dense(kernel.shape[1], use_bias=False)]
    )
    model.layers[0].kernel.assign(kernel)
    emulated = training.emulate(
        model,
        bitfold.Arithmetic(accumulator_size=width),
        np.zeros((1, kernel.shape[0]), np.float32),
        gradient=gradient,
        ranges="fixed",
    )
    for layer in emulated.layers[1:]:
        layer.range.give(-128 * STEP, 127 * STEP)
    return emulated


def _gradients(emulated: keras.Model, data: np.ndarray, upstream: np.ndarray) -> tuple:
    kernel = emulated.trainable_variables[0]
    with tf.GradientTape() as tape:
        given = tf.constant(data)
        tape.watch(given)
        output = emulated(given)
        total = tf.reduce_sum(output * upstream)
    return output.numpy(), *(g.numpy() for g in tape.gradient(total, [given, kernel.value]))


KERNEL = np.float32([[127, -3], [-20, 127], [64, 5]]) * np.float32(STEP)
DATA = np.float32([[0.25, -0.5, 0.125], [0.5, 0.25, -0.25]])
UPSTREAM = np.float32([[1, -2], [3, 0.5]])


def test_inside_the_grid_gradients_are_those_of_the_product():
    """Rounding passes them straight through."""
    output, by_data, by_kernel = _gradients(_dense(KERNEL, "straight"), DATA, UPSTREAM)
    assert np.abs(output - DATA @ KERNEL).max() <= STEP / 2
    assert np.array_equal(by_data, UPSTREAM @ KERNEL.T)
    assert np.array_equal(by_kernel, DATA.T @ UPSTREAM)


def test_beyond_the_grid_there_is_none():
    """An output that was clamped has no gradient, nor has data beyond its grid."""
    data = np.float32([[1.75, 0.0, 0.0], [4.0, 0.25, 0.0]])
    output, by_data, by_kernel = _gradients(_dense(KERNEL, "straight"), data, UPSTREAM)
    kept = np.float32([[0, 1], [0, 1]])
    assert np.array_equal(output[:, 0], np.float32([127, 127]) * np.float32(STEP))
    expected = (UPSTREAM * kept) @ KERNEL.T
    expected[1, 0] = 0
    assert np.array_equal(by_data, expected)
    stored = np.minimum(data, 127 * STEP)
    assert np.array_equal(by_kernel, stored.T @ (UPSTREAM * kept))


@pytest.mark.parametrize("gradient", ["straight", "zero_where_wrapped"])
def test_where_sums_wrap(gradient):
    """A width of 12 bits wraps the first output of the second row; the choice says what passes."""
    data = np.float32([[0.125, 0.0, 0.0], [0.5, 0.25, -0.25]])
    output, by_data, by_kernel = _gradients(_dense(KERNEL, gradient, 12), data, UPSTREAM)
    whole = np.rint(data / STEP).astype(int) @ np.rint(KERNEL / STEP).astype(int)
    wrong = (whole < -2048) | (whole > 2047)
    assert wrong.any()
    assert not wrong.all()
    wrapped = (whole + 2048) % 4096 - 2048
    assert np.array_equal(np.rint(output / STEP), np.clip(np.rint(wrapped * STEP), -128, 127))
    kept = ~wrong if gradient == "zero_where_wrapped" else np.ones_like(wrong)
    assert np.array_equal(by_data, (UPSTREAM * kept) @ KERNEL.T)
    assert np.array_equal(by_kernel, data.T @ (UPSTREAM * kept))


def test_learned_scale():
    """The gradient by the scale's logarithm: the rounding's error inside, the bound beyond."""
    model = keras.Sequential([keras.Input((2,)), keras.layers.Dense(1, use_bias=False)])
    model.layers[0].kernel.assign([[64 * STEP], [127 * STEP]])
    emulated = training.emulate(model, None, np.zeros((1, 2), np.float32), ranges="learned")
    first, last = emulated.layers[1:]
    first.range.give(-128 * STEP, 127 * STEP)
    last.range.give(-128 * 2 * STEP, 127 * 2 * STEP)
    with tf.GradientTape() as tape:
        output = emulated(np.float32([[3 * STEP, 0], [-2, 0]]))
        total = tf.reduce_sum(output)
    assert np.array_equal(output, np.float32([[4 * STEP], [-2.0]]))
    found = tape.gradient(total, last.range.log_scale.value)
    # 3 steps are 1.5 of the output's, stored as 2; -2 is stored as itself.
    expected = np.float32(0.5 * 2 * STEP) / np.sqrt(np.float32(2 * 255))
    assert found.numpy() == expected
