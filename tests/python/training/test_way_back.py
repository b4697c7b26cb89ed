# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A network made of a model in training has every integer that training saw, layer by layer."""

from __future__ import annotations

import logging

import keras
import models
import numpy as np
import pytest
import tensorflow as tf

import bitfold
from bitfold import training
from bitfold.training.edges import Dequantised, Quantised
from bitfold.training.layers import Emulated
from bitfold.training.pools import EmulatedNoise
from bitfold.training.separable import EmulatedSeparable
from bitfold.training.weighted import EmulatedLayer

# What a converter writes no operator for, or one that is called otherwise.
_NO_OPERATORS = (Quantised, Dequantised, EmulatedNoise, EmulatedSeparable)
NARROW = bitfold.Arithmetic(accumulator_size=14)
CASES = {
    "exact": (models.residual, None),
    "16 bits": (models.residual, bitfold.Arithmetic(accumulator_size=16)),
    "14 bits": (models.windows, NARROW),
    "shift": (models.residual, bitfold.Arithmetic(accumulator_size=16, mult_shift=3)),
    "half": (models.windows, bitfold.Arithmetic(use_fp16_acc=True, mult_shift=2)),
    "functions": (models.functions, bitfold.Arithmetic(accumulator_size=17)),
    "by layer": (models.nested, {"separable": NARROW, "FULLY_CONNECTED": NARROW}),
}


@pytest.mark.parametrize("name", CASES)
def test_network_has_the_integers_of_training(name):
    """Filters, biases, scales, sums and outputs of every layer, and the model's outputs."""
    make, arithmetic = CASES[name]
    images = models.images()
    emulated = training.emulate(make(), arithmetic, images)
    network = bitfold.Network.from_keras(emulated)
    seen = _seen(emulated, images)
    layers = {layer.name: layer for layer in network.layers}
    traced, sums = network.trace(images), network.accumulators(images)
    for called, facts in seen.items():
        layer = layers[called]
        _assert_same_tensor(called, traced[layer.output_indices[0]], layer, facts)
        if "sums" in facts:
            _assert_same_integers(called, layer, facts)
            assert np.array_equal(sums[layer.position], facts["sums"]), f"sums of {called}"
    outputs = dict(zip(emulated.output_names, keras.tree.flatten(emulated(images)), strict=True))
    found = keras.tree.flatten(network(images))
    for port, got in zip(network.outputs, found, strict=True):
        expected = outputs.pop(port.name) if len(found) > 1 else outputs.popitem()[1]
        assert np.array_equal(got, expected)


def _seen(emulated: keras.Model, images: np.ndarray) -> dict[str, dict]:
    """Return by the network's names what the layers compute with and give."""
    seen: dict[str, dict] = {}
    calls = []
    for layer in [x for x in emulated._flatten_layers() if isinstance(x, Emulated)]:
        original = layer.call

        def recorded(*args, layer=layer, original=original, **kwargs):
            result = original(*args, **kwargs)
            calls.append((layer, args, result))
            return result

        layer.call = recorded
    emulated(images)
    for layer, args, result in calls:
        if isinstance(layer, _NO_OPERATORS):
            continue
        facts = seen[getattr(layer, "called", layer.name)] = {"result": result}
        if isinstance(layer, EmulatedLayer):
            values, grid = args
            integers = layer._integers(grid)
            facts["integers"] = layer.integers(grid)
            facts["grid"] = grid.numpy()
            facts["arithmetic"] = layer.arithmetic
            found = layer._sums(values, integers.filter, integers.bias, grid)
            facts["sums"] = found.held.numpy()
    return seen


def _assert_same_tensor(called: str, stored: np.ndarray, layer: bitfold.network.Layer, facts: dict):
    result = facts["result"]
    if isinstance(result, tuple):
        centred, grid = result
        assert (layer.output_scale, layer.output_zero_point) == (float(grid[0]), int(grid[1]))
        expected = centred.numpy() + grid[1].numpy()
    else:
        expected = np.rint(result.numpy() / layer.output_scale) + layer.output_zero_point
    assert np.array_equal(stored, expected), f"output of {called}"


def _assert_same_integers(called: str, layer: bitfold.network.Layer, facts: dict):
    integers, grid = facts["integers"], facts["grid"]
    assert layer.arithmetic == facts["arithmetic"]
    assert (layer.input_scale, layer.input_zero_point) == (float(grid[0]), int(grid[1]))
    axis = 3 if layer.operator == "DEPTHWISE_CONV_2D" else 0
    filter = np.moveaxis(layer.filter, axis, -1).reshape(-1, layer.filter.shape[axis])
    assert np.array_equal(filter, integers.filter), f"filter of {called}"
    assert np.array_equal(layer.filter_scales, integers.scales), f"scales of {called}"
    bias = np.zeros(filter.shape[1]) if layer.bias is None else layer.bias
    assert np.array_equal(bias, integers.bias), f"bias of {called}"


@keras.saving.register_keras_serializable("bitfold_tests")
class _Coarse(training.FilterRule):
    """Lets more than the largest magnitude stand for 127."""

    rounding = "towards_zero"

    def largest(self, layer: training.RealLayer) -> tf.Tensor:
        return super().largest(layer) * 3.7


def test_the_integers_of_a_filter_rule_are_kept():
    """Of a dense layer the converter finds other scales, and the file is mended."""
    images = models.images()
    emulated = training.emulate(models.residual(), None, images, filter_rule=_Coarse())
    network = bitfold.Network.from_keras(emulated)
    assert np.array_equal(network(images), emulated(images))
    for layer in network.layers:
        if layer.filter is not None:
            assert np.abs(layer.filter.astype(int)).max() == 34, layer.name


def test_the_network_of_a_trained_model_needs_no_calibration():
    """It brings its ranges, and has 8 bits."""
    emulated = training.emulate(models.residual(), None, models.images())
    with pytest.raises(ValueError, match="Need no calibration and activation_bits=8"):
        bitfold.Network.from_keras(emulated, models.images())
    with pytest.raises(ValueError, match="got activation_bits=16"):
        bitfold.Network.from_keras(emulated, activation_bits=16)


def test_operands_of_a_concatenation_keep_their_grids():
    """The converter stores them in the grid of the result; they are put back and rescaled."""
    inputs = keras.Input(models.SHAPE)
    wide = keras.layers.Conv2D(3, 3, padding="same", name="wide")(inputs)
    narrow = keras.layers.Conv2D(2, 3, padding="same", activation="relu", name="narrow")(inputs)
    narrow = keras.layers.MaxPooling2D(3, 1, "same", name="largest")(narrow)
    x = keras.layers.Concatenate(name="both")([wide, narrow])
    model = keras.Model(inputs, keras.layers.Conv2D(2, 1, name="last")(x))
    images = models.images()
    emulated = training.emulate(model, None, images)
    network = bitfold.Network.from_keras(emulated)
    assert np.array_equal(network(images), emulated(images))
    operators = {layer.name: layer for layer in network.layers}
    scales = [operators[name].output_scale for name in ("narrow", "largest", "both")]
    assert scales[0] == scales[1] != scales[2]
    assert "QUANTIZE" in [layer.operator for layer in network.layers]


def test_what_the_converter_stores_against_training(caplog):
    """A layer without a form in integers, between layers that have one, is named in a warning."""
    layers = keras.layers
    names = [layers.Conv2D(2, 1), layers.Conv2DTranspose(2, 2, name="spread"), layers.Conv2D(2, 1)]
    model = keras.Sequential([keras.Input(models.SHAPE), *names])
    emulated = training.emulate(model, None, models.images())
    logger = logging.getLogger("bitfold.converter")
    logger.addHandler(caplog.handler)
    try:
        bitfold.Network.from_keras(emulated)
    finally:
        logger.removeHandler(caplog.handler)
    assert "layer 'spread' was trained in floats and is stored in integers" in caplog.text


@pytest.mark.parametrize("width", [None, 24])
def test_sums_that_floats_do_not_hold(width):
    """Beyond 2^24 the public ops add up: stock ones would round."""
    count = 700
    dense = keras.layers.Dense(2, name="dense")
    model = keras.Sequential([keras.Input((count,)), dense])
    rng = np.random.default_rng(3)
    dense.kernel.assign(rng.choice([0.97, 0.99, 1.0], (count, 2)))
    data = rng.uniform(0.8, 1, (20, count)).astype(np.float32)
    arithmetic = bitfold.Arithmetic(accumulator_size=width)
    emulated = training.emulate(model, arithmetic, data)
    network = bitfold.Network.from_keras(emulated)
    exact = network.with_arithmetic(bitfold.Arithmetic()).accumulators(data)[0]
    assert exact.max() > 2**24
    assert np.array_equal(network(data), emulated(data))
    sums = _seen(emulated, data)["dense"]["sums"]
    assert np.array_equal(network.accumulators(data)[0], sums)
