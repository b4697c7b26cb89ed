# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Training at a proven width: whatever it does, no input can wrap what comes of it."""

from __future__ import annotations

import keras
import numpy as np
import pytest
import tensorflow as tf

import bitfold
from bitfold import Arithmetic
from bitfold.training import ExcessPenalty, ProvenWidth, emulate, emulated_layers
from bitfold.training.bounding import Limits, excess_bits

SHAPE = (7, 7, 2)
# Least and greatest stored data.
ENDS = (-128, 127)


def network() -> keras.Model:
    """Return one of every kind of layer with an accumulator, biases far from zero."""
    keras.utils.set_random_seed(2)
    layers = keras.layers
    inputs = keras.Input(SHAPE)
    x = layers.Conv2D(8, 3, use_bias=False, name="first")(inputs)
    x = layers.ReLU()(layers.BatchNormalization()(x))
    x = layers.DepthwiseConv2D(3, padding="same", depth_multiplier=2, name="depthwise")(x)
    x = layers.Conv2D(6, 1, activation="relu", bias_initializer="normal", name="pointwise")(x)
    x = layers.Flatten()(x)
    return keras.Model(inputs, layers.Dense(4, bias_initializer="normal", name="scores")(x))


def data(count: int = 64) -> tuple[np.ndarray, np.ndarray]:
    """Return random images and classes."""
    rng = np.random.default_rng(4)
    return rng.normal(size=(count, *SHAPE)).astype(np.float32), rng.integers(0, 4, count)


def trained(model: keras.Model, steps: int = 12, rate: float = 0.02) -> bitfold.Network:
    """Take steps of training; return the network on bits."""
    x, y = data()
    loss = keras.losses.SparseCategoricalCrossentropy(from_logits=True)
    model.compile(keras.optimizers.Adam(rate), loss)
    model.fit(x, y, batch_size=16, epochs=-(-steps // 4), verbose=0)
    return bitfold.Network.from_keras(model)


def proven(net: bitfold.Network) -> dict[str, int]:
    """Return the bits with which no input can give a wrong sum, by layer."""
    return {layer.name: layer.proven for layer in bitfold.study(net, data()[0]).layers}


@pytest.mark.parametrize(("width", "rate"), [(18, 0.02), (14, 1.0), (11, 0.1)])
def test_any_training_ends_with_a_proof(width, rate):
    """Also one that throws the weights about; before it, too, and the study is the witness."""
    model = emulate(network(), Arithmetic(width), data()[0], proven_width=width)
    assert max(proven(bitfold.Network.from_keras(model)).values()) <= width
    net = trained(model, rate=rate)
    assert max(proven(net).values()) == width
    x = data()[0]
    np.testing.assert_array_equal(net(x), net.with_arithmetic(Arithmetic())(x))
    if rate < 1:
        assert any(layer.filter.any() for layer in net.layers if layer.has_accumulator)


def test_adversaries_of_each_layer_do_not_wrap():
    """Data by the signs of stored weights, for each output, through the layer's own sums."""
    width = 13
    net = trained(emulate(network(), Arithmetic(width), data()[0], proven_width=width))
    reached = 0
    for layer in (layer for layer in net.layers if layer.has_accumulator):
        is_depthwise = layer.operator == "DEPTHWISE_CONV_2D"
        filter = layer.filter.astype(np.int64)
        # [outputs, taps]
        weights = np.moveaxis(filter, 3, 0) if is_depthwise else filter
        weights = weights.reshape(len(weights), -1)
        zero_point = layer.input_zero_point
        for sign in (1, -1):
            worst = np.where(sign * weights > 0, ENDS[1], ENDS[0]) - zero_point
            op = bitfold.ops.conv2d(
                worst[:, None, None].astype(np.int32),
                weights.T[None, None].astype(np.int32),
                accumulator_size=width,
            )
            sums = bitfold.ops.bias_add(op, layer.bias, accumulator_size=width)
            exact = (worst * weights).sum(1) + layer.bias
            np.testing.assert_array_equal(np.diagonal(sums[:, 0, 0]), exact)
            reached += (np.abs(exact) >= 1 << (width - 2)).sum()
    assert reached  # with one bit less these would be wrong


def test_widths_by_layer():
    """A dictionary as for arithmetics; other layers have no bound."""
    widths = {"scores": 15, "CONV_2D": 12}
    model = emulate(network(), Arithmetic(24), data()[0], proven_width=widths)
    bits = proven(trained(model))
    assert bits["scores"] == 15
    assert max(bits["first"], bits["pointwise"]) == 12
    assert bits["depthwise"] > 15


def test_shifts_are_part_of_the_proof():
    """What a shift leaves of products and bias fits, though the sums would not."""
    arithmetic = Arithmetic(12, 3)
    net = trained(emulate(network(), arithmetic, data()[0], proven_width=12))
    assert max(proven(net).values()) > 12
    narrow, wide = (net.with_arithmetic(Arithmetic(size, 3)) for size in (12, 32))
    x = np.sign(data()[0]) * 1e3
    np.testing.assert_array_equal(narrow(x), wide(x))


def test_saved_models_keep_the_rule(tmp_path):
    """And train on with it."""
    model = emulate(network(), Arithmetic(13), data()[0], proven_width=13, penalty=0.5)
    model.save(tmp_path / "model.keras")
    loaded = keras.models.load_model(tmp_path / "model.keras")
    assert {layer.filter_rule.width for layer in emulated_layers(loaded)} == {13}
    assert {layer.penalty.weight for layer in emulated_layers(loaded)} == {0.5}
    assert max(proven(trained(loaded, steps=4)).values()) == 13


def excess(model: keras.Model, width: int) -> float:
    """Return the bits by which sums of all outputs can leave an accumulator."""
    net = bitfold.Network.from_keras(model)
    total = 0.0
    for layer in (layer for layer in net.layers if layer.has_accumulator):
        axis = 3 if layer.operator == "DEPTHWISE_CONV_2D" else 0
        filter = tf.constant(np.moveaxis(layer.filter, axis, -1), tf.float32)
        low, high = (end - layer.input_zero_point for end in ENDS)
        limits = Limits(width, low, high)
        total += float(tf.reduce_sum(excess_bits(filter, layer.bias, limits)))
    return total


def test_a_penalty_brings_sums_down():
    """With a loss that asks for nothing else, bits get fewer; without, it costs nothing."""
    model = emulate(network(), Arithmetic(14), data()[0], penalty=1.0)
    x, _ = data()
    before = excess(model, 14)
    model.compile(keras.optimizers.Adam(0.005), lambda y, scores: 0.0 * tf.reduce_sum(scores))
    history = model.fit(x, np.zeros(len(x)), batch_size=16, epochs=4, verbose=0)
    costs = history.history["loss"]
    assert costs[-1] < costs[0]
    assert excess(model, 14) < before - 1
    free = emulate(network(), Arithmetic(), data()[0], penalty=1.0)
    free.compile("adam", lambda y, scores: 0.0 * tf.reduce_sum(scores))
    assert free.fit(x, np.zeros(len(x)), verbose=0).history["loss"] == [0.0]


@pytest.mark.parametrize(
    ("arithmetic", "options", "words"),
    [
        (Arithmetic(14), dict(proven_width=16), "at most the 14 bits of layer 'first', got 16"),
        (Arithmetic(14), dict(proven_width=1), "Need a proven width of 2 to 32, got 1"),
        (Arithmetic(14), dict(proven_width={"nothing": 9}), "got 'nothing'"),
        (Arithmetic(14), dict(proven_width=9, filter_rule=ProvenWidth(9)), "got both"),
        (Arithmetic(use_fp16_acc=True), dict(proven_width=12), "accumulator of whole numbers"),
        (Arithmetic(14, 31), dict(proven_width=12), "mult_shift of 0 to 30"),
        (Arithmetic(14), dict(penalty=-1.0), "Need a penalty of at least 0, got -1.0"),
    ],
)
def test_what_proves_nothing_is_refused(arithmetic, options, words):
    """With the layer and the numbers."""
    with pytest.raises(ValueError, match=words):
        emulate(network(), arithmetic, data()[0], **options)


def test_penalties_of_a_width_of_their_own():
    """Beside an exact accumulator, towards one that comes later."""
    penalty = ExcessPenalty(2.0, width=12)
    model = emulate(network(), Arithmetic(), data()[0], penalty=penalty)
    model.compile("adam", lambda y, scores: 0.0 * tf.reduce_sum(scores))
    x, _ = data(16)
    assert model.fit(x, np.zeros(16), verbose=0).history["loss"][0] > 0
