# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Layers that are prepared: what they store is what the public ops give one after the other."""

from __future__ import annotations

import functools
from typing import NamedTuple

import generated
import numpy as np
import packed
import pytest
import sum_cases
import tensorflow as tf
from comparing import stored_values
from support import assert_bits
from witness import Witness

import bitfold
from bitfold.network.operators._step import SummingStep

# By what the sums are then: dot products where no sum or every sum may wrap, scaled products of
# whole numbers as floats, and as integers, a step at a time, in half precision.
ARITHMETICS = {
    "exact": bitfold.Arithmetic(),
    "exact, shifted": bitfold.Arithmetic(mult_shift=3),
    "dot products of 32 bits": bitfold.Arithmetic(accumulator_size=32),
    "dot products that wrap": bitfold.Arithmetic(accumulator_size=16),
    "rounded": bitfold.Arithmetic(accumulator_size=24, mult_shift=2),
    "rounded and wrapped": bitfold.Arithmetic(accumulator_size=16, mult_shift=1),
    "shifted far": bitfold.Arithmetic(accumulator_size=20, mult_shift=25),
    "stepwise": bitfold.Arithmetic(accumulator_size=12),
    "stepwise, shifted": bitfold.Arithmetic(accumulator_size=8, mult_shift=3),
    "of one bit": bitfold.Arithmetic(accumulator_size=1),
    "of no bit": bitfold.Arithmetic(accumulator_size=0),
    "half precision": bitfold.Arithmetic(use_fp16_acc=True),
    "half precision, shifted": bitfold.Arithmetic(use_fp16_acc=True, mult_shift=6),
}
KINDS = ("CONV_2D", "DEPTHWISE_CONV_2D", "FULLY_CONNECTED", "TRANSPOSE_CONV", "BATCH_MATMUL")


def _summing(network: bitfold.Network) -> list[SummingStep]:
    """Return the layers that may be one op."""
    steps = [step for step in network._program.steps if isinstance(step, SummingStep)]
    return [step for step in steps if hasattr(step, "_prepared")]


class Layer(NamedTuple):
    """A layer, its inputs, and what to call it."""

    step: SummingStep
    inputs: list[tf.Tensor | None]
    what: str


def _compare(layers: list[Layer]) -> None:
    """Eagerly and in a function, twice: a layer is made once."""
    expected = [SummingStep.run(layer.step, layer.inputs)[0].numpy() for layer in layers]
    for _ in range(2):
        for layer, wanted in zip(layers, expected, strict=True):
            _assert_same(layer.step.run(layer.inputs), wanted, layer)

    # One graph for all: most of what a graph costs is the same for each.
    whole = [i for i, layer in enumerate(layers) if all(x is not None for x in layer.inputs)]

    def run(rows):
        return [layers[i].step.run(row) for i, row in zip(whole, rows, strict=True)]

    call = tf.function(run, autograph=False)
    for _ in range(2 if whole else 0):
        for i, actual in zip(whole, call([layers[i].inputs for i in whole]), strict=True):
            _assert_same(actual, expected[i], layers[i])


def _assert_same(outputs: list[tf.Tensor], expected: np.ndarray, layer: Layer) -> None:
    (actual,) = outputs
    assert_bits(actual, expected, arithmetic=layer.step.arithmetic, what=layer.what)


@functools.cache
def _cases(kind: str, dtype: str) -> list[tuple[packed.Case, bitfold.Network]]:
    """Return files of an operator and their networks, sums exact."""
    cases = sum_cases.CASES[kind](dtype, np.random.default_rng(9))
    return [(case, bitfold.Network.from_tflite(case.content)) for case in cases]


@pytest.mark.parametrize("name", ARITHMETICS)
@pytest.mark.parametrize("dtype", ["int8", "int16"])
@pytest.mark.parametrize("kind", KINDS)
def test_one_op_is_the_public_ops(kind, dtype, name):
    """Each operator that adds up products, in each arithmetic."""
    prepared, layers = 0, []
    for case, exact in _cases(kind, dtype):
        try:
            network = exact.with_arithmetic(ARITHMETICS[name])
        except ValueError:
            continue  # a shift beyond the multipliers' exponents
        (step,) = _summing(network)
        inputs = [tf.constant(x) for x in packed.stored_values(case, 2)]
        read = step.node.inputs
        given = iter(inputs)
        row = [
            None if t is None else tf.constant(t.data) if t.is_constant else next(given)
            for t in read
        ]
        prepared += step._prepared is not None
        layers.append(Layer(step, row, f"{name}, {case.label}"))
    _compare(layers)
    is_wide = kind == "BATCH_MATMUL" and dtype == "int16"
    if not is_wide or ARITHMETICS[name].accumulator_size is not None:
        assert prepared or ARITHMETICS[name].mult_shift > 7


@pytest.mark.slow
@pytest.mark.parametrize("seed", range(4))
def test_layers_of_networks(seed):
    """Of random networks, with what the network itself gives each layer."""
    made = generated.network(seed)
    file = Witness(made.content)
    rng = np.random.default_rng(seed)
    images = [stored_values(rng, file.dtype(i), (2, *file.shape(i)[1:])) for i in file.inputs]
    given = images if len(images) > 1 else images[0]
    exact = bitfold.Network.from_tflite(made.content)
    for name in list(ARITHMETICS)[seed % 2 :: 2]:
        if ARITHMETICS[name].mult_shift > 7:
            continue
        network = exact.with_arithmetic(ARITHMETICS[name])
        known = dict(zip(file.inputs, images, strict=True)) | network.trace(given)
        layers = []
        for step in _summing(network):
            if step._prepared is None:
                continue
            read = step.node.inputs
            if any(not t.is_constant and t.index not in known for t in read if t is not None):
                continue
            row = [
                None if t is None else tf.constant(t.data if t.is_constant else known[t.index])
                for t in read
            ]
            layers.append(Layer(step, row, f"seed {seed}, {name}, {step.node}"))
        _compare(layers)


def _dense(inputs: int, outputs: int, rows: int = 1) -> packed.Case:
    """Return a 16x8 layer whose weights are as large as they can be."""
    data = np.full([outputs, inputs], 127)
    data[::2] = -127
    x = packed.tensor([rows, inputs], "int16", 2.0**-15)
    scales = np.full(outputs, 2.0**-7, np.float32)
    filter = packed.tensor([outputs, inputs], "int8", scales, data=data)
    bias = packed.tensor([outputs], "int64", scales * np.float32(2.0**-15), data=[2**38] * outputs)
    y = packed.tensor([rows, outputs], "int16", inputs * 2.0**-13)
    return packed.operator("FULLY_CONNECTED", [x, filter, bias], [y], {"keep_num_dims": False})


@pytest.mark.parametrize("shape", [(1500, 7), (600, 20, 3), (516, 1), (517, 2)])
def test_sums_beyond_32_bits(shape):
    """The interpreter's bits, too, and the narrower arithmetics'."""
    case = _dense(*shape)
    packed.compare(case)
    network = bitfold.Network.from_tflite(case.content)
    inputs = [tf.constant(x) for x in packed.stored_values(case, 2)]
    for name in ("exact", "exact, shifted", "dot products of 32 bits", "rounded"):
        (step,) = _summing(network.with_arithmetic(ARITHMETICS[name]))
        constants = [tf.constant(t.data) for t in step.node.inputs[1:]]
        _compare([Layer(step, [*inputs, *constants], f"{name}, {shape}")])


def _first(kind: str, dtype: str) -> packed.Case:
    return next(iter(sum_cases.CASES[kind](dtype, np.random.default_rng(0))))


@pytest.mark.parametrize(
    ("case", "arithmetic"),
    [
        (_dense(1500, 7), bitfold.Arithmetic(mult_shift=1)),
        (_first("BATCH_MATMUL", "int16"), bitfold.Arithmetic()),
        (_first("CONV_2D", "int8"), bitfold.Arithmetic(requantisation="unit")),
        (_first("BATCH_MATMUL", "int8"), bitfold.Arithmetic(requantisation="unit")),
    ],
    ids=["shifted products beyond 32 bits", "products of shorts", "unit", "unit of products"],
)
def test_layers_that_are_several_ops(case, arithmetic):
    """One after the other, by the public ops."""
    (step,) = _summing(bitfold.Network.from_tflite(case.content).with_arithmetic(arithmetic))
    assert step._prepared is None
