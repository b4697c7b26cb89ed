# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Operators by the units, on request: what these give with the network's tables."""

from __future__ import annotations

import keras
import numpy as np
import pytest
from keras import layers

import bitfold
from bitfold import Arithmetic, Network, tables

RANDOM = np.random.default_rng(14)


def network_of(*parts: keras.layers.Layer, shape=(6, 5, 8)) -> Network:
    """Quantise a stack of layers with random weights."""
    keras.utils.set_random_seed(3)
    model = keras.Sequential([keras.Input(shape), *parts])
    return Network.from_keras(model, RANDOM.normal(size=(30, *shape)).astype(np.float32))


def stored_for(network: Network, count: int = 4) -> np.ndarray:
    """Return random stored images."""
    return RANDOM.integers(-128, 128, (count, *network.inputs[0].shape[1:]), np.int8)


def layer_of(network: Network, operator: str) -> bitfold.network.Layer:
    """Return the network's one layer of an operator."""
    (layer,) = (layer for layer in network.layers if layer.operator == operator)
    return layer


def input_of(network: Network, layer: bitfold.network.Layer, stored: np.ndarray) -> np.ndarray:
    """Return what a layer reads."""
    index = layer.input_indices[0]
    return stored if index == network.inputs[0].index else network.trace(stored)[index]


def in_real(values: np.ndarray, scale: float, zero_point: int) -> np.ndarray:
    """Return what stored integers stand for."""
    return scale * (values.astype(np.float64) - zero_point)


@pytest.mark.parametrize(
    ("activation", "operator", "function"),
    [("sigmoid", "LOGISTIC", "sigmoid"), ("tanh", "TANH", "tanh")],
)
def test_activations(activation, operator, function):
    """The activation unit's tables for the scales around the layer."""
    network = network_of(layers.Activation(activation))
    stored = stored_for(network)
    layer = layer_of(network, operator)
    table = tables.activation(
        function,
        input_scale=layer.input_scale,
        input_zero_point=layer.input_zero_point,
        output_scale=layer.output_scale,
        output_zero_point=layer.output_zero_point,
    )
    unit = network.with_arithmetic(Arithmetic(activations="unit"))
    data = input_of(network, layer, stored)
    expected = bitfold.ops.activation(data.astype(np.int32), **table.keywords).numpy()
    np.testing.assert_array_equal(unit.trace(stored)[layer.output_indices[0]], expected)


def test_softmax():
    """The softmax unit's steps, brought to the output's scale."""
    network = network_of(layers.Dense(7), layers.Softmax(), shape=(8,))
    stored = stored_for(network, 50)
    layer = layer_of(network, "SOFTMAX")
    data = input_of(network, layer, stored)
    table = tables.softmax(layer.input_scale, vector_size=7)
    steps = bitfold.ops.softmax(data.astype(np.float32), **table.keywords).numpy()
    expected = bitfold.ops.requantise(
        steps.astype(np.int32), table.output_scale / layer.output_scale, zero_point=-128
    )
    unit = network.with_arithmetic(Arithmetic(softmax="unit"))
    result = unit.trace(stored)[layer.output_indices[0]]
    np.testing.assert_array_equal(result, expected)
    real = in_real(result, layer.output_scale, layer.output_zero_point)
    exact = in_real(data, layer.input_scale, layer.input_zero_point)
    exact = np.exp(exact - exact.max(axis=-1, keepdims=True))
    exact /= exact.sum(axis=-1, keepdims=True)
    assert np.abs(real - exact).max() <= table.max_error(7) + layer.output_scale


@pytest.mark.parametrize("bits", [8, 16])
@pytest.mark.parametrize("arithmetic", [{}, {"accumulator_size": 17, "mult_shift": 2}])
def test_requantisation(bits, arithmetic):
    """The activation unit with a group for each channel, after convolutions and dense layers."""
    keras.utils.set_random_seed(6)
    model = keras.Sequential(
        [
            keras.Input((6, 5, 8)),
            layers.Conv2D(7, 3, activation="relu6", name="conv"),
            layers.DepthwiseConv2D(2, name="depthwise"),
            layers.Flatten(),
            layers.Dense(5, name="dense"),
        ]
    )
    x = RANDOM.normal(size=(30, 6, 5, 8)).astype(np.float32)
    network = Network.from_keras(model, x, activation_bits=bits)
    unit = network.with_arithmetic(Arithmetic(requantisation="unit", **arithmetic))
    trace, sums = unit.trace(x[:4]), unit.accumulators(x[:4])
    for layer in (layer for layer in network.layers if layer.has_accumulator):
        scales = layer.filter_scales.astype(np.float64)
        multipliers = layer.input_scale * scales / layer.output_scale
        output = trace[layer.output_indices[0]]
        limits = np.iinfo(output.dtype)
        high = limits.max
        low = limits.min
        if layer.name == "conv":
            low = max(low, layer.output_zero_point)
            high = min(high, layer.output_zero_point + round(6 / layer.output_scale))
        table = tables.requantise(
            multipliers * 2 ** arithmetic.get("mult_shift", 0),
            zero_point=layer.output_zero_point,
            output_range=(low, high),
        )
        found = sums[layer.position]
        pixels = found.reshape(1, 1, -1, found.shape[-1])
        expected = bitfold.ops.activation(pixels, **table.keywords).numpy()
        np.testing.assert_array_equal(output, expected.reshape(found.shape))


@pytest.mark.parametrize("kind", [layers.Add, layers.Subtract])
@pytest.mark.parametrize("arithmetic", [{}, {"accumulator_size": 9}, {"mult_shift": 2}])
def test_additions(kind, arithmetic):
    """One addition with weights of 8 bits, the ratios of the scales, then the requantisation."""
    image = keras.Input((6, 5, 8))
    other = layers.Conv2D(8, 1, activation="relu")(image)
    model = keras.Model(image, kind()([image, other]))
    network = Network.from_keras(model, RANDOM.normal(size=(30, 6, 5, 8)).astype(np.float32))
    stored = stored_for(network)
    layer = layer_of(network, "ADD" if kind is layers.Add else "SUB")
    operands = {port.index: (stored, port.scale, port.zero_point) for port in network.inputs}
    conv = layer_of(network, "CONV_2D")
    (index,) = conv.output_indices
    operands[index] = network.trace(stored)[index], conv.output_scale, conv.output_zero_point
    (first, scale_1, zero_1), (second, scale_2, zero_2) = (
        operands[index] for index in layer.input_indices
    )
    ratios = np.array([scale_1, scale_2]) / layer.output_scale
    if layer.operator == "SUB":
        ratios[1] *= -1
    bits = next(b for b in range(40, -40, -1) if np.rint(np.abs(ratios) * 2.0**b).max() <= 127)
    sums = bitfold.ops.weighted_add(
        first.astype(np.int32) - zero_1,
        second.astype(np.int32) - zero_2,
        np.repeat(np.rint(ratios * 2.0**bits).astype(np.int32)[:, None], 8, axis=1),
        **arithmetic,
    )
    expected = bitfold.ops.requantise(
        sums,
        2.0**-bits,
        zero_point=layer.output_zero_point,
        shift=arithmetic.get("mult_shift", 0),
    )
    unit = network.with_arithmetic({layer.name: Arithmetic(additions="unit", **arithmetic)})
    np.testing.assert_array_equal(unit.trace(stored)[layer.output_indices[0]], expected)


def test_resize():
    """What the resampler gives on the stored integers."""
    network = network_of(layers.UpSampling2D(2, interpolation="bilinear"))
    stored = stored_for(network)
    layer = layer_of(network, "RESIZE_BILINEAR")
    unit = network.with_arithmetic(Arithmetic(resize="unit"))
    expected = bitfold.resize.bilinear(stored.astype(np.int32), [12, 10], fraction_bits=8)
    np.testing.assert_array_equal(unit.trace(stored)[layer.output_indices[0]], expected)


def test_layer_norm():
    """The operators that spell it out become one; the result is nearer to the real one."""
    keras.utils.set_random_seed(5)
    shape = (6, 16)
    model = keras.Sequential(
        [keras.Input(shape), layers.Dense(16), layers.LayerNormalization(name="norm")]
    )
    norm = model.layers[-1]
    norm.gamma.assign(RANDOM.normal(size=16))
    norm.beta.assign(RANDOM.normal(size=16))
    x = RANDOM.normal(size=(200, *shape)).astype(np.float32)
    network = Network.from_keras(model, x)
    unit = network.with_arithmetic(Arithmetic(layer_norm="unit"))
    assert len(unit.trace(x)) < len(network.trace(x))
    assert len(unit.layers) == len(network.layers)
    real = model.predict(x, verbose=0)
    assert np.abs(unit(x) - real).mean() < np.abs(network(x) - real).mean()


def test_units_are_equal_in_every_batch():
    """Batches of any size have the same bits."""
    network = network_of(layers.Conv2D(8, 3), layers.Activation("tanh"), layers.Softmax())
    unit = network.with_arithmetic(Arithmetic(softmax="unit", activations="unit"))
    stored = stored_for(network, 5)
    whole = unit(stored).numpy()
    for i in range(5):
        np.testing.assert_array_equal(unit(stored[i : i + 1]), whole[i : i + 1])


def test_a_unit_that_cannot_is_named():
    """In int16 the softmax unit loses what is 256 steps below the maximum."""
    model = keras.Sequential([keras.Input((8,)), layers.Dense(7), layers.Softmax(name="soft")])
    x = RANDOM.normal(size=(30, 8)).astype(np.float32)
    network = Network.from_keras(model, x, activation_bits=16)
    with pytest.raises(ValueError, match=r"SOFTMAX.*need the data of int8"):
        network.with_arithmetic(Arithmetic(softmax="unit"))
