# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Training at a proven width: whatever it does, no input can wrap what comes of it."""

from __future__ import annotations

import re

import keras
import numpy as np
import pytest
import support
import tensorflow as tf

import bitfold
from bitfold import Arithmetic
from bitfold.training import ExcessPenalty, ProvenWidth, emulate, emulated_layers

SHAPE = (7, 7, 2)
# Of the accumulator.
WIDTH = 16
# The greatest and the least stored data.
ENDS = (127, -128)


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


def train(model: keras.Model, rate: float = 0.02, epochs: int = 3) -> None:
    """Take four steps in each epoch."""
    x, y = data()
    loss = keras.losses.SparseCategoricalCrossentropy(from_logits=True)
    model.compile(keras.optimizers.Adam(rate), loss)
    model.fit(x, y, batch_size=16, epochs=epochs, verbose=0)


def proven(net: bitfold.Network) -> dict[str, int]:
    """Return the bits with which no input can give a wrong sum, by layer."""
    return {layer.name: layer.proven for layer in bitfold.study(net, data()[0]).layers}


@pytest.fixture(scope="module")
def documented() -> dict:
    """What the first code of docs/training.md leaves, on a small network."""
    text = (support.ROOT / "docs" / "training.md").read_text()
    code = re.search(r"```python\n(.*?)```", text, re.DOTALL)[1]
    (images, labels), (test_images, test_labels) = data(), data(40)
    names = dict(bitfold=bitfold, keras=keras, model=network(), images=images, labels=labels,
                 test_images=test_images, test_labels=test_labels)  # fmt: skip
    exec(code.replace("epochs=3)", "epochs=3, verbose=0)"), names)
    return names


def test_the_document_is_right(documented):
    """Of the widths, and of the integers that training saw."""
    bits = [layer.proven for layer in documented["study"].layers]
    assert max(bits) == WIDTH
    net, x = documented["network"], documented["images"]
    np.testing.assert_array_equal(net(x), net.with_arithmetic(Arithmetic())(x))


def test_any_training_ends_with_a_proof():
    """Also one that throws the weights about; the study is the witness."""
    model = emulate(network(), Arithmetic(11), data()[0], proven_width=11)
    train(model, rate=1.0)
    assert max(proven(bitfold.Network.from_keras(model)).values()) <= 11


def test_adversaries_of_each_layer_do_not_wrap(documented):
    """Data by the signs of stored weights, for each output, through the public ops."""
    net, reached = documented["network"], 0
    for layer in (layer for layer in net.layers if layer.has_accumulator):
        axis = 3 if layer.operator == "DEPTHWISE_CONV_2D" else 0
        filter = np.moveaxis(layer.filter.astype(np.int64), axis, 0)
        weights = filter.reshape(len(filter), -1)
        assert weights.any()
        for sign in (1, -1):
            worst = np.where(sign * weights > 0, *ENDS) - layer.input_zero_point
            # A pixel for each output, of which that output alone matters.
            pixels, filters = worst[:, None, None], weights.T[None, None]
            sums = bitfold.ops.conv2d(
                pixels.astype(np.int32), filters.astype(np.int32), accumulator_size=WIDTH
            )
            sums = bitfold.ops.bias_add(sums, layer.bias, accumulator_size=WIDTH)
            exact = (worst * weights).sum(1) + layer.bias
            np.testing.assert_array_equal(np.diagonal(sums[:, 0, 0]), exact)
            reached += (np.abs(exact) > 1 << (WIDTH - 2)).sum()
    assert reached > 10  # with one bit less these would be wrong


def test_widths_by_layer():
    """A dictionary as for arithmetics; other layers have no bound."""
    widths = {"scores": 15, "CONV_2D": 12}
    model = emulate(network(), Arithmetic(24), data()[0], proven_width=widths)
    bits = proven(bitfold.Network.from_keras(model))
    assert bits["scores"] == 15
    assert max(bits["first"], bits["pointwise"]) == 12
    assert bits["depthwise"] > 15


def test_shifts_are_part_of_the_proof():
    """What a shift leaves of products and bias fits, though the sums would not."""
    model = emulate(network(), Arithmetic(12, 3), data()[0], proven_width=12)
    net = bitfold.Network.from_keras(model)
    assert max(proven(net).values()) > 12
    narrow, wide = (net.with_arithmetic(Arithmetic(size, 3)) for size in (12, 32))
    x = np.sign(data()[0]) * 1e3
    np.testing.assert_array_equal(narrow(x), wide(x))


def test_saved_models_keep_the_rule(documented, tmp_path):
    """And train on with it."""
    documented["emulated"].save(tmp_path / "model.keras")
    loaded = keras.models.load_model(tmp_path / "model.keras")
    assert {layer.filter_rule.width for layer in emulated_layers(loaded)} == {WIDTH}
    train(loaded, epochs=1)
    assert max(proven(bitfold.Network.from_keras(loaded)).values()) == WIDTH
    penalty = ExcessPenalty(0.5, width=12)
    packed = keras.saving.serialize_keras_object(penalty)
    assert vars(keras.saving.deserialize_keras_object(packed)) == vars(penalty)


def of_nothing(labels: tf.Tensor, scores: tf.Tensor) -> tf.Tensor:
    """Return a loss that asks for nothing."""
    return 0.0 * tf.reduce_sum(scores)


def test_a_penalty_brings_sums_down():
    """With a loss that asks for nothing else it falls; where sums are exact it costs nothing."""
    x, _ = data()
    model = emulate(network(), Arithmetic(14), x, penalty=1.0)
    model.compile(keras.optimizers.Adam(0.005), of_nothing)
    costs = model.fit(x, np.zeros(len(x)), batch_size=16, epochs=4, verbose=0).history["loss"]
    assert costs == sorted(costs, reverse=True)
    assert costs[-1] < costs[0] - 1
    for penalty in (1.0, ExcessPenalty(1.0, width=14)):
        free = emulate(network(), Arithmetic(), x, penalty=penalty)
        free.compile("adam", of_nothing)
        (cost,) = free.fit(x, np.zeros(len(x)), batch_size=64, verbose=0).history["loss"]
        assert (cost > 0) == (penalty != 1.0)


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
