# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Keras models learn through the ops."""

from __future__ import annotations

import keras
import numpy as np
import pytest

from bitfold import ops, tables

# Weights and data are in steps of one of this.
STEPS = 16.0


@keras.saving.register_keras_serializable("bitfold_tests")
class Emulated(keras.layers.Layer):
    """A convolution or a product, and its bias, through a narrow accumulator."""

    def __init__(self, op: str, shape: list[int], **kwargs):
        """Take the function of bitfold.ops and the weights' shape."""
        super().__init__(**kwargs)
        self.supports_jit = False
        self.op, self.shape = op, list(shape)
        self.weight = self.add_weight(
            shape=self.shape, initializer=keras.initializers.RandomNormal(0, 0.3, seed=3)
        )
        self.bias = self.add_weight(shape=self.shape[-1:], initializer="zeros")

    def call(self, x):
        """Return sums in steps of the weights."""
        sums = getattr(ops, self.op)(x, STEPS * self.weight, accumulator_size=14)
        return ops.bias_add(sums, STEPS * STEPS * self.bias, accumulator_size=14) / STEPS

    def get_config(self):
        """Return the arguments."""
        return {**super().get_config(), "op": self.op, "shape": self.shape}


def _model():
    images = keras.Input([6, 6, 1])
    x = Emulated("conv2d", [3, 3, 1, 4])(images)
    table = tables.activation("silu", input_scale=1 / 16, output_scale=1 / 16,
                              output_zero_point=0)  # fmt: skip
    x = ops.activation(x, **table.keywords)
    x = keras.layers.Flatten()(x)
    x = Emulated("matmul", [144, 2])(x)
    model = keras.Model(images, x / STEPS)
    loss = keras.losses.SparseCategoricalCrossentropy(from_logits=True)
    model.compile(keras.optimizers.Adam(0.02), loss, jit_compile=False)
    return model


@pytest.fixture(scope="module")
def lines():
    """Images of a bright row or a bright column."""
    rng = np.random.default_rng(43)
    images = rng.integers(0, 6, [256, 6, 6, 1]).astype(np.float32)
    labels = rng.integers(0, 2, 256)
    for image, label, place in zip(images, labels, rng.integers(0, 6, 256), strict=True):
        image[(slice(None), place) if label else place] = 12
    return images, labels


def test_models_learn_are_saved_and_go_on(lines, tmp_path, assert_bits):
    """The loss falls, a saved model predicts the same bits, and learns on."""
    model = _model()
    losses = model.fit(*lines, batch_size=32, epochs=8, shuffle=False, verbose=0).history["loss"]
    assert losses[-1] < losses[0] / 2
    assert np.any(model.get_weights()[1]), "the bias has not learned"
    model.save(tmp_path / "lines.keras")
    loaded = keras.models.load_model(tmp_path / "lines.keras")
    images, _ = lines
    assert_bits(loaded.predict(images, verbose=0), model.predict(images, verbose=0))
    again = loaded.fit(*lines, batch_size=32, epochs=4, shuffle=False, verbose=0).history["loss"]
    assert again[-1] < losses[-1]
    assert all(
        (a != b).any() for a, b in zip(model.get_weights(), loaded.get_weights(), strict=True)
    )
