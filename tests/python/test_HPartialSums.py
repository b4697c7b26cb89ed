# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HPartialSums through the runtime: against the oracle, batch by batch, refusals."""

from __future__ import annotations

import re

import hypothesis
import hypothesis.strategies as st
import numpy as np
import oracle
import pytest
import registration
import support
import tensorflow as tf

from bitfold import ops, raw_ops

_TYPES = {"int8": "int8_t", "int16": "int16_t"}
REGISTRATION = {
    "HPartialSums": registration.Registration(
        inputs=["input: T", "filter: T_filter", "bias: T_bias", "known_extremes: int64"],
        attributes=[
            "T: {int8, int16}",
            "T_filter: {int8, int16}",
            "T_bias: {int32, int64}",
            "strides: list(int)",
            "dilations: list(int)",
            'padding: {"SAME", "VALID"}',
            "zeros: list(int)",
            "is_depthwise: bool",
            "input_zero_point: int",
            "filter_zero_point: int",
            "mult_shift: int",
            "accumulator_sizes: list(int)",
        ],
        outputs=["extremes: int64", "counts: int64", "first: int64"],
        kernels={
            ("CPU", f"{data} {filter}"): f"HPartialSumsOp<{_TYPES[data]}, {_TYPES[filter]}>"
            for data in _TYPES
            for filter in _TYPES
        },
    )
}
WRAPPERS = {"partial_sums": None, "matmul_partial_sums": None}

STORED = (np.int8, np.int16)
DEFAULTS = {
    "strides": (1, 1),
    "dilations": (1, 1),
    "padding": "VALID",
    "zeros": (0, 0, 0, 0),
    "depthwise": False,
    "input_zero_point": 0,
    "filter_zero_point": 0,
    "mult_shift": 0,
    "accumulator_sizes": (),
}


def expected(input, filter, bias=None, **attributes):
    """Return what the oracle finds."""
    given = DEFAULTS | attributes
    *images, height, width, outputs = filter.shape[:-2] + filter.shape[-1:]
    above, below, left, right = given["zeros"]
    sizes = given["accumulator_sizes"]
    axes = [
        [input.shape[1], above, below, height, given["strides"][0], given["dilations"][0]],
        [input.shape[2], left, right, width, given["strides"][1], given["dilations"][1]],
    ]
    settings = np.array(
        [
            input.shape[0], input.shape[3], outputs, *axes[0], *axes[1], given["padding"] == "SAME",
            given["depthwise"], *(images or [1]), given["input_zero_point"],
            given["filter_zero_point"], given["mult_shift"], len(sizes), *sizes,
        ],
        np.int32,
    )  # fmt: skip
    data = np.ascontiguousarray(input, np.int32)
    weights = np.ascontiguousarray(filter, np.int32)
    addends = None if bias is None else np.ascontiguousarray(bias, np.int64)
    found = (
        np.zeros([4, outputs], np.int64),
        np.zeros([len(sizes), outputs, 3], np.int64),
        np.zeros([len(sizes), outputs], np.int64),
    )
    oracle.library().reference_partial_sums(
        settings.ctypes.data, data.ctypes.data, weights.ctypes.data,
        None if addends is None else addends.ctypes.data, *(table.ctypes.data for table in found),
    )  # fmt: skip
    return found


def check(input, filter, bias=None, **attributes):
    """Run the wrapper and the oracle on the same data and compare bits."""
    wanted = expected(input, filter, bias, **attributes)
    actual = ops.partial_sums(input, filter, bias, **attributes)
    for name, want in zip(actual._fields, wanted, strict=True):
        support.assert_bits(getattr(actual, name), want)
    return actual


def draw(rng, dtype, shape):
    """Return stored integers of any magnitude."""
    limits = np.iinfo(dtype)
    values = rng.integers(limits.min, limits.max, shape, dtype, endpoint=True)
    return values >> rng.integers(0, limits.bits, dtype=dtype)


# ---- Against the oracle ------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", STORED)
@pytest.mark.parametrize("filter_type", STORED)
@pytest.mark.parametrize("depthwise", [False, True])
def test_layers(dtype, filter_type, depthwise):
    """Layers of every kind, all widths at once."""
    rng = np.random.default_rng([dtype().itemsize, filter_type().itemsize, depthwise])
    for round in range(6):
        channels = int(rng.integers(1, 40))
        outputs = int(rng.integers(1, channels + 1 if depthwise else 40))
        input = draw(rng, dtype, (2, 6, 5, channels))
        leading = (2,) if round == 3 else ()
        filter = draw(rng, filter_type, (*leading, 3, 2, 1 if depthwise else channels, outputs))
        bias = draw(rng, (np.int32, np.int64)[round % 2], outputs)
        bias = np.clip(bias, -(2**62), 2**62).astype(bias.dtype)
        check(
            input, filter, None if round == 0 else bias, depthwise=depthwise,
            padding=("SAME", "VALID")[round % 2], zeros=(0, 1, round % 3, 0),
            strides=(1, 1 + round % 2), dilations=(1 + round % 2, 1),
            input_zero_point=int(draw(rng, dtype, ())), filter_zero_point=-(round // 4),
            mult_shift=(0, 0, 3, 30, 1, 0)[round], accumulator_sizes=range(1, 33),
        )  # fmt: skip


@hypothesis.given(data=st.data())
@hypothesis.settings(max_examples=60, deadline=None)
def test_chains(data):
    """Sums of few numbers, which meet the limits."""
    numbers = data.draw(st.lists(st.integers(-128, 127), min_size=1, max_size=8))
    weights = data.draw(
        st.lists(st.integers(-128, 127), min_size=len(numbers), max_size=len(numbers))
    )
    bias = data.draw(st.none() | st.integers(-(2**33), 2**33))
    check(
        np.int8(numbers).reshape(1, 1, 1, -1),
        np.int8(weights).reshape(1, 1, -1, 1),
        None if bias is None else np.int64([bias]),
        mult_shift=data.draw(st.integers(0, 30)),
        accumulator_sizes=data.draw(st.lists(st.integers(1, 32), max_size=3)),
    )


@pytest.mark.parametrize("leading", [(), (3,), (2, 3)])
@pytest.mark.parametrize("dtype", STORED)
def test_products_of_matrices(leading, dtype):
    """Each column of the product is a channel of images of one column."""
    rng = np.random.default_rng([len(leading), dtype().itemsize])
    a, b = draw(rng, dtype, (*leading, 5, 20)), draw(rng, dtype, (*leading, 20, 9))
    settings = {"mult_shift": 2, "accumulator_sizes": [6, 20]}
    actual = ops.matmul_partial_sums(a, b, a_zero_point=3, b_zero_point=-7, **settings)
    wanted = expected(
        a.reshape(-1, 5, 1, 20), b.reshape(-1, 1, 1, 20, 9), input_zero_point=3,
        filter_zero_point=-7, **settings,
    )  # fmt: skip
    for found, want in zip(actual, wanted, strict=True):
        support.assert_bits(found, want)


def test_final_sums_are_those_of_the_convolution():
    """The least and the greatest final sum, at a width that holds all sums."""
    rng = np.random.default_rng(7)
    input, filter = draw(rng, np.int8, (2, 7, 7, 12)), draw(rng, np.int8, (3, 3, 12, 10))
    found = ops.partial_sums(input, filter, padding="SAME", input_zero_point=-4)
    sums = ops.conv2d(input.astype(np.int32) + 4, filter.astype(np.int32), padding="SAME").numpy()
    support.assert_bits(found.extremes[0], sums.min((0, 1, 2)).astype(np.int64))
    support.assert_bits(found.extremes[1], sums.max((0, 1, 2)).astype(np.int64))


# ---- Batch by batch ----------------------------------------------------------------------------


def test_batches_together():
    """Extremes go on from those known, counts add up, the least of the first steps is the first."""
    rng = np.random.default_rng(3)
    input, filter = draw(rng, np.int8, (4, 5, 5, 6)), draw(rng, np.int8, (3, 3, 6, 20))
    settings = {"padding": "SAME", "accumulator_sizes": [4, 9, 12]}
    whole = check(input, filter, **settings)
    first = ops.partial_sums(input[:1], filter, **settings)
    rest = ops.partial_sums(input[1:], filter, known_extremes=first.extremes, **settings)
    support.assert_bits(rest.extremes, whole.extremes.numpy())
    support.assert_bits(first.counts + rest.counts, whole.counts.numpy())
    steps = np.stack([first.first, rest.first])
    least = np.where(steps == 0, np.iinfo(np.int64).max, steps).min(0)
    least = np.where(least == np.iinfo(np.int64).max, 0, least)
    support.assert_bits(whole.first, least)


def test_no_images():
    """Nothing was seen."""
    found = ops.partial_sums(
        np.zeros([0, 2, 2, 1], np.int8), np.ones([1, 1, 1, 2], np.int8), accumulator_sizes=[3]
    )
    limits = np.iinfo(np.int64)
    wanted = np.array([[limits.max], [limits.min]] * 2).repeat(2, 1)
    support.assert_bits(found.extremes, wanted)
    assert not found.counts.numpy().any()
    assert not found.first.numpy().any()


def test_in_functions():
    """The same numbers traced, with sizes known and unknown."""
    rng = np.random.default_rng(5)
    input, filter = draw(rng, np.int8, (2, 4, 4, 3)), draw(rng, np.int8, (2, 2, 3, 5))
    call = tf.function(
        lambda x, w: ops.partial_sums(x, w, [1, 2, 3, 4, 5], accumulator_sizes=[8, 12])
    )
    wanted = expected(input, filter, np.arange(1, 6), accumulator_sizes=[8, 12])
    unknown = [tf.TensorSpec([None] * 4, tf.int8), tf.TensorSpec(None, tf.int8)]
    for traced in (call.get_concrete_function(input, filter), call.get_concrete_function(*unknown)):
        found = traced(tf.constant(input), tf.constant(filter))
        for table, want in zip(found, wanted, strict=True):
            support.assert_bits(table, want)
    shapes = [table.shape.as_list() for table in traced.structured_outputs]
    assert shapes == [[4, None], [2, None, 3], [2, None]]
    product = tf.function(ops.matmul_partial_sums).get_concrete_function(
        tf.TensorSpec([None, 3, None], tf.int8), tf.TensorSpec([None, None, 4], tf.int16)
    )
    a, b = draw(rng, np.int8, (2, 3, 5)), draw(rng, np.int16, (2, 5, 4))
    wanted = ops.matmul_partial_sums(a, b)
    support.assert_bits(product(tf.constant(a), tf.constant(b)).extremes, wanted.extremes.numpy())


# ---- Refusals ----------------------------------------------------------------------------------

_INPUT = np.zeros([1, 3, 3, 2], np.int8)
_FILTER = np.zeros([2, 2, 2, 4], np.int8)


@pytest.mark.parametrize(
    ("changes", "text"),
    [
        ({"input": _INPUT[0]}, "Need an input of images x height x width x channels"),
        ({"filter": _FILTER[:, :, :1]}, "Need an input of images"),
        ({"filter": np.zeros([2, 2, 2, 2, 4], np.int8)}, "or one for each image"),
        ({"filter": np.zeros([4, 2, 2, 4], np.int8)}, "Need a padded height of at least"),
        ({"depthwise": True}, "height x width x 1 x at most the input's channels"),
        ({"bias": [1]}, "Need a bias of 0 or 4 elements, got shape [1]"),
        ({"bias": np.int64([0, 0, 0, 2**62 + 1])}, "Need a bias of at most 2^62 in magnitude"),
        ({"input_zero_point": 128}, "Need input_zero_point in [-128, 127], got 128"),
        ({"filter_zero_point": -129}, "Need filter_zero_point in [-128, 127], got -129"),
        ({"mult_shift": 31}, "Need mult_shift in [0, 30], got 31"),
        ({"mult_shift": -1}, "Need mult_shift in [0, 30], got -1"),
        ({"accumulator_sizes": [8, 0]}, "Need accumulator_sizes in [1, 32], got 0"),
        ({"accumulator_sizes": [33]}, "Need accumulator_sizes in [1, 32], got 33"),
        ({"strides": [1]}, "Need 2 strides"),
        ({"zeros": [1 << 28, 0, 1 << 28, 0]}, "Need images of fewer than 2^29 elements, padded"),
        ({"known_extremes": np.zeros([4, 3], np.int64)}, "Need known_extremes of no elements or"),
    ],
)
def test_refusals(changes, text):
    """What does not fit is named, eagerly and in functions."""
    call = {"input": _INPUT, "filter": _FILTER} | changes
    with pytest.raises((ValueError, tf.errors.InvalidArgumentError), match=re.escape(text)):
        ops.partial_sums(**call)


def test_refusals_of_types():
    """By the wrapper, which says the argument's name."""
    with pytest.raises(TypeError, match="input must be int8 or int16, got int32"):
        ops.partial_sums(_INPUT.astype(np.int32), _FILTER)
    with pytest.raises(TypeError, match="filter must be int8 or int16, got uint8"):
        ops.partial_sums(_INPUT, _FILTER.astype(np.uint8))
    with pytest.raises(TypeError, match="bias must be int32 or int64, got float32"):
        ops.partial_sums(_INPUT, _FILTER, np.zeros(4, np.float32))
    with pytest.raises(TypeError, match="b must be int8 or int16, got int32"):
        ops.matmul_partial_sums(_INPUT, np.zeros([2, 2], np.int32))


def test_refusals_of_matrices():
    """Ranks and leading dimensions."""
    a = np.zeros([2, 3, 4], np.int8)
    with pytest.raises(ValueError, match="must have one rank of at least 2"):
        ops.matmul_partial_sums(a, a[0])
    with pytest.raises(ValueError, match="b to have the leading dimensions of a"):
        ops.matmul_partial_sums(a, np.zeros([3, 4, 5], np.int8))
    with pytest.raises(tf.errors.InvalidArgumentError, match="Need an input of images"):
        ops.matmul_partial_sums(a, np.zeros([2, 3, 5], np.int8))


def test_the_generated_op():
    """Its inputs and attributes by name."""
    found = raw_ops.h_partial_sums(
        input=_INPUT, filter=_FILTER, bias=np.zeros(0, np.int64),
        known_extremes=np.zeros(0, np.int64), strides=[1, 1], dilations=[1, 1], padding="SAME",
        zeros=[0] * 4, is_depthwise=False, input_zero_point=0, filter_zero_point=0, mult_shift=0,
        accumulator_sizes=[],
    )  # fmt: skip
    assert [table.shape for table in found] == [(4, 4), (0, 4, 3), (0, 4)]
