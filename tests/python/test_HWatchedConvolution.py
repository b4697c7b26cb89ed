# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HWatchedConvolution through the runtime: HPreparedConvolution beside the oracle's final sums."""

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
    "HWatchedConvolution": registration.Registration(
        inputs=_PREPARED.inputs,
        attributes=[*_PREPARED.attributes, "accumulator_sizes: list(int)"],
        outputs=["output: T_out", "extremes: int64", "outside: int64"],
        kernels={
            place: name.replace("HPrepared", "HWatched")
            for place, name in _PREPARED.kernels.items()
        },
    )
}
WRAPPERS = {"watched_conv2d": None}

SIZES = (8, 12, 16, 17, 18, 24, 32, 1)
# Of the layer alone: the sums are those of full width.
ARITHMETICS = (
    {},
    {"accumulator_size": 18},
    {"accumulator_size": 12},
    {"accumulator_size": 16, "mult_shift": 2},
    {"use_fp16_acc": True, "mult_shift": 3},
    {"accumulator_size": 64, "rounding": "short_multiplier"},
)


def check(input, filter, bias, sizes=SIZES, **attributes):
    """Compare the output with that of the prepared layer, the rest with the oracle's sums."""
    multipliers = np.full(filter.shape[-1], 0.01)
    found = ops.watched_conv2d(
        input, filter, bias, multipliers, accumulator_sizes=sizes, **attributes
    )
    support.assert_bits(
        found.output, ops.prepared_conv2d(input, filter, bias, multipliers, **attributes).numpy()
    )
    named = ("strides", "dilations", "padding", "zeros", "depthwise", "input_zero_point",
             "mult_shift")  # fmt: skip
    given = {name: value for name, value in attributes.items() if name in named}
    extremes, counts, _ = test_HPartialSums.expected(
        input, filter, bias, accumulator_sizes=sizes, **given
    )
    support.assert_bits(found.extremes, extremes[:2])
    support.assert_bits(found.outside, counts[:, :, 0])


@pytest.mark.parametrize("arithmetic", ARITHMETICS, ids=str)
@pytest.mark.parametrize("dtype", [np.int8, np.int16])
def test_layers(dtype, arithmetic):
    """Layers of every kind in every arithmetic."""
    rng = np.random.default_rng([dtype().itemsize, len(str(arithmetic))])
    for round in range(6):
        depthwise = round % 3 == 2
        channels = int(rng.integers(1, 40))
        outputs = int(rng.integers(1, channels + 1 if depthwise else 40))
        input = test_HPartialSums.draw(rng, dtype, (3, 6, 5, channels))
        shape = (3, 2, 1 if depthwise else channels, outputs)
        filter = test_HPartialSums.draw(rng, np.int8, shape)
        bias = None if round == 1 else rng.integers(-(2**17), 2**17, outputs)
        check(
            input, filter, bias, depthwise=depthwise, padding=("SAME", "VALID")[round % 2],
            zeros=(0, 1, round % 3, 0), strides=(1, 1 + round % 2), dilations=(1 + round % 2, 1),
            input_zero_point=int(test_HPartialSums.draw(rng, dtype, ())), **arithmetic,
        )  # fmt: skip


def test_batches_and_image_threads():
    """Whatever is together: extremes are those of all, counts add up."""
    rng = np.random.default_rng(8)
    input = test_HPartialSums.draw(rng, np.int8, (9, 8, 8, 12))
    filter = test_HPartialSums.draw(rng, np.int8, (3, 3, 12, 20))
    settings = {"padding": "SAME", "accumulator_size": 16, "accumulator_sizes": SIZES}

    def found(images):
        return ops.watched_conv2d(images, filter, None, [0.01], **settings)

    whole, parts = found(input), [found(input[:1]), found(input[1:8]), found(input[8:])]
    support.assert_bits(whole.extremes[0], np.min([part.extremes[0] for part in parts], 0))
    support.assert_bits(whole.extremes[1], np.max([part.extremes[1] for part in parts], 0))
    support.assert_bits(whole.outside, np.sum([part.outside for part in parts], 0))
    before = ops.watched_conv2d(input[:0], filter, None, [0.01], **settings)
    limits = np.iinfo(np.int64)
    support.assert_bits(before.extremes, np.array([[limits.max], [limits.min]]).repeat(20, 1))
    assert not before.outside.numpy().any()


def test_in_functions():
    """The same numbers traced, with sizes known and unknown."""
    rng = np.random.default_rng(5)
    input = test_HPartialSums.draw(rng, np.int8, (2, 4, 4, 3))
    filter = test_HPartialSums.draw(rng, np.int8, (2, 2, 3, 5))

    def call(x, w):
        return ops.watched_conv2d(x, w, [1, 2, 3, 4, 5], [0.5], accumulator_sizes=[8, 12])

    wanted = call(input, filter)
    unknown = [tf.TensorSpec(None, tf.int8)] * 2
    function = tf.function(call)
    for given in ((input, filter), unknown):
        traced = function.get_concrete_function(*given)
        for table, want in zip(
            traced(tf.constant(input), tf.constant(filter)), wanted, strict=True
        ):
            support.assert_bits(table, want.numpy())
    shapes = [table.shape.as_list() for table in traced.structured_outputs]
    assert shapes == [[None, None, None, None], [2, None], [2, None]]


_INPUT = np.zeros([1, 3, 3, 2], np.int8)
_FILTER = np.zeros([2, 2, 2, 4], np.int8)


@pytest.mark.parametrize(
    ("changes", "text"),
    [
        ({"input": _INPUT[0]}, "Need input and filter of rank 4"),
        ({"accumulator_sizes": [8, 0]}, "Need accumulator_sizes in [1, 32], got 0"),
        ({"accumulator_sizes": [33]}, "Need accumulator_sizes in [1, 32], got 33"),
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
        ops.watched_conv2d(**call)


def test_a_bias_at_its_bound():
    """Sums of 64 bits around 2^62, where 32 bits hold all but the bias."""
    data = np.int8([[[[-128], [127]]]])
    for bias in (2**62, -(2**62)):
        found = ops.watched_conv2d(
            data, np.ones([1, 1, 1, 1], np.int8), np.int64([bias]), [2.0**-31],
            accumulator_size=64, rounding="one_rounding", accumulator_sizes=[32],
        )  # fmt: skip
        assert found.extremes.numpy().ravel().tolist() == [bias - 128, bias + 127]
        assert found.outside.numpy().tolist() == [[2]]


def test_the_generated_op():
    """Its outputs by name."""
    found = raw_ops.h_watched_convolution(
        input=_INPUT, filter=_FILTER, bias=np.zeros(0, np.int32), multipliers=[1.0],
        strides=[1, 1], dilations=[1, 1], padding="SAME", zeros=[0] * 4, is_depthwise=False,
        input_zero_point=0, accumulator_size=32, mult_shift=0, use_fp16_acc=False,
        rounding="two_roundings", zero_point=0, minimum=-128, maximum=127, T_out=tf.int8,
        has_constant_weights=False, accumulator_sizes=[],
    )  # fmt: skip
    assert found._fields == ("output", "extremes", "outside")
    assert [table.shape for table in found] == [(1, 3, 3, 4), (2, 4), (0, 4)]
