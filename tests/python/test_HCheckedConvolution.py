# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HCheckedConvolution through the runtime: HPreparedConvolution, and two sums compared."""

from __future__ import annotations

import re

import numpy as np
import pytest
import registration
import support
import tensorflow as tf
import test_HPartialSums
import test_HPreparedConvolution

from bitfold import ops, raw_ops

_PREPARED = test_HPreparedConvolution.REGISTRATION["HPreparedConvolution"]
REGISTRATION = {
    "HCheckedConvolution": registration.Registration(
        inputs=_PREPARED.inputs,
        attributes=_PREPARED.attributes,
        outputs=["output: T_out", "wrong: int64"],
        kernels={
            place: name.replace("HPrepared", "HChecked")
            for place, name in _PREPARED.kernels.items()
        },
    )
}
WRAPPERS = {"checked_conv2d": None}

ARITHMETICS = (
    {},
    {"accumulator_size": 18},
    {"accumulator_size": 16},
    {"accumulator_size": 12},
    {"accumulator_size": 16, "mult_shift": 2},
    {"use_fp16_acc": True, "mult_shift": 3},
)


def sums(data, filter, bias, depthwise, windows, arithmetic):
    """Return the sums of data less their zero point, by the public ops one after the other."""
    arithmetic = dict(arithmetic)
    dtype = np.float32 if arithmetic.get("use_fp16_acc") else np.int32
    if dtype is np.float32:
        arithmetic["mult_shift"] = 2 ** arithmetic["mult_shift"]
    convolve = ops.depthwise_conv2d if depthwise else ops.conv2d
    found = convolve(data.astype(dtype), filter.astype(dtype), **windows, **arithmetic)
    if bias is not None:
        found = ops.bias_add(found, bias.astype(dtype), **arithmetic)
    return found.numpy().astype(np.int64)


def exact_sums(data, filter, bias, depthwise, windows, shift):
    """Return those of full width, which 32 bits hold but for the bias."""
    found = sums(data, filter, None, depthwise, windows, {"mult_shift": shift})
    if bias is None:
        return found
    quotient, rest = bias >> shift, bias & ((1 << shift) - 1)
    half = (1 << shift) // 2
    rounds_up = (rest > half) | ((rest == half) & (quotient % 2 == 1)) if shift else False
    return found + quotient + rounds_up


@pytest.mark.parametrize("arithmetic", ARITHMETICS, ids=str)
@pytest.mark.parametrize("dtype", [np.int8, np.int16])
def test_layers(dtype, arithmetic):
    """Layers of both kinds in every arithmetic, with biases up to 2^31."""
    rng = np.random.default_rng([dtype().itemsize, len(str(arithmetic))])
    seen = 0
    for round in range(6):
        depthwise = round % 3 == 2
        channels = int(rng.integers(1, 20))
        outputs = channels if depthwise else int(rng.integers(1, 40))
        input = test_HPartialSums.draw(rng, dtype, (3, 6, 5, channels))
        shape = (3, 2, 1 if depthwise else channels, outputs)
        filter = test_HPartialSums.draw(rng, np.int8, shape)
        wide = 2 ** int(rng.choice([10, 17, 31]))
        bias = None if round == 1 else rng.integers(-wide, wide, outputs)
        zero_point = int(test_HPartialSums.draw(rng, dtype, ()))
        windows = {"strides": (1, 1), "padding": ("SAME", "VALID")[round % 2]}
        found = ops.checked_conv2d(
            input, filter, bias, [0.01], depthwise=depthwise, input_zero_point=zero_point,
            **windows, **arithmetic,
        )  # fmt: skip
        wanted = ops.prepared_conv2d(
            input, filter, bias, [0.01], depthwise=depthwise, input_zero_point=zero_point,
            **windows, **arithmetic,
        )  # fmt: skip
        support.assert_bits(found.output, wanted.numpy())
        layer = (input.astype(np.int32) - zero_point, filter, bias, depthwise, windows)
        wrong = sums(*layer, arithmetic) != exact_sums(*layer, arithmetic.get("mult_shift", 0))
        assert int(found.wrong) == np.count_nonzero(wrong)
        seen += int(found.wrong)
    assert seen or not arithmetic


def test_sums_of_64_bits():
    """None is wrong, whatever 32 bits hold."""
    found = ops.checked_conv2d(
        np.int8([[[[-128], [127]]]]), np.ones([1, 1, 1, 1], np.int8), np.int64([2**62]),
        [2.0**-31], accumulator_size=64, rounding="one_rounding",
    )  # fmt: skip
    assert int(found.wrong) == 0


def test_batches():
    """Counts of parts add up, of none there are none."""
    rng = np.random.default_rng(8)
    input = test_HPartialSums.draw(rng, np.int8, (9, 8, 8, 12))
    filter = test_HPartialSums.draw(rng, np.int8, (3, 3, 12, 20))

    def wrong(images):
        found = ops.checked_conv2d(
            images, filter, None, [0.01], padding="SAME", accumulator_size=12
        )
        return int(found.wrong)

    parts = [wrong(input[:0]), wrong(input[:1]), wrong(input[1:8]), wrong(input[8:])]
    assert parts[0] == 0
    assert 0 < wrong(input) == sum(parts)


def test_in_functions():
    """The same numbers traced, with sizes known and unknown."""
    rng = np.random.default_rng(5)
    input = test_HPartialSums.draw(rng, np.int8, (2, 4, 4, 3))
    filter = test_HPartialSums.draw(rng, np.int8, (2, 2, 3, 5))

    def call(x, w):
        return ops.checked_conv2d(x, w, [1, 2, 3, 4, 5], [0.5], accumulator_size=14)

    wanted = call(input, filter)
    unknown = [tf.TensorSpec(None, tf.int8)] * 2
    for given in ((input, filter), unknown):
        traced = tf.function(call).get_concrete_function(*given)
        found = traced(tf.constant(input), tf.constant(filter))
        for tensor, want in zip(found, wanted, strict=True):
            support.assert_bits(tensor, want.numpy())
    assert [tensor.shape.rank for tensor in traced.structured_outputs] == [4, 0]


_INPUT = np.zeros([1, 3, 3, 2], np.int8)
_FILTER = np.zeros([2, 2, 2, 4], np.int8)


@pytest.mark.parametrize(
    ("changes", "text"),
    [
        ({"input": _INPUT[0]}, "Need input and filter of rank 4"),
        ({"mult_shift": 31}, "Need a mult_shift in [0, 30], got 31"),
        ({"bias": [0, 0, 0, 2**62 + 1], "accumulator_size": 64, "rounding": "one_rounding"},
         "Need a bias of at most 2^62 in magnitude, got 4611686018427387905"),
        ({"zeros": (1 << 14, 0, 1 << 14, 0)}, "Need images of fewer than 2^29 elements, padded"),
    ],
)  # fmt: skip
def test_refusals(changes, text):
    """What does not fit is named."""
    call = {"input": _INPUT, "filter": _FILTER, "bias": None, "multipliers": [0.5]} | changes
    with pytest.raises((ValueError, tf.errors.InvalidArgumentError), match=re.escape(text)):
        ops.checked_conv2d(**call)


def test_other_keywords():
    """A word that no layer knows is named."""
    with pytest.raises(TypeError, match="accumulator_sizes"):
        ops.checked_conv2d(_INPUT, _FILTER, None, [0.5], accumulator_sizes=[8])


def test_the_generated_op():
    """Its outputs by name."""
    found = raw_ops.h_checked_convolution(
        input=_INPUT, filter=_FILTER, bias=np.zeros(0, np.int32), multipliers=[1.0],
        strides=[1, 1], dilations=[1, 1], padding="SAME", zeros=[0] * 4, is_depthwise=False,
        input_zero_point=0, accumulator_size=32, mult_shift=0, use_fp16_acc=False,
        rounding="two_roundings", zero_point=0, minimum=-128, maximum=127, T_out=tf.int8,
        has_constant_weights=False,
    )  # fmt: skip
    assert found._fields == ("output", "wrong")
    assert [tensor.shape for tensor in found] == [(1, 3, 3, 4), ()]
