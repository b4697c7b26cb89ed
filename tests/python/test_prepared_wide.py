# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HPreparedConvolution with sums of 64 bits, through the runtime: bits, refusals, the wrapper."""

from __future__ import annotations

import re

import hypothesis
import hypothesis.strategies as st
import numpy as np
import oracle
import pytest
import support
import tensorflow as tf
from test_HPreparedConvolution import ROUNDINGS, draw, draw_stored, raw, surrounded

from bitfold import ops

ROUNDED = ROUNDINGS[1:]


def expected(input, filter, bias, multipliers, *, dtype, **settings):
    """The oracle's sums and their requantisation, image by image."""
    library = oracle.library()
    rows, columns, _, outputs = filter.shape
    data = surrounded(input, settings["zeros"], settings["input_zero_point"])
    reference = oracle.Reference()
    sizes = [
        reference.output_size(size, taps, stride, dilation, settings["padding"])
        for size, taps, stride, dilation in zip(
            data.shape[1:3], (rows, columns), settings["strides"], settings["dilations"],
            strict=True,
        )
    ]  # fmt: skip
    sums = np.zeros([len(data), *sizes, outputs], np.int64)
    parameters = np.array(
        [
            *data.shape, rows, columns, outputs, 0, *settings["strides"], *settings["dilations"],
            settings["padding"] == "SAME", settings["mult_shift"], False, settings["is_depthwise"],
            0,
        ],
        np.int32,
    )  # fmt: skip
    weights = filter.astype(np.int32)
    library.reference_convolve_wide(
        parameters.ctypes.data, data.ctypes.data, weights.ctypes.data,
        None if bias is None else bias.ctypes.data, sums.ctypes.data,
    )  # fmt: skip
    limits = np.iinfo(dtype)
    words = np.array(
        [
            ROUNDINGS.index(settings["rounding"]), settings["mult_shift"], settings["zero_point"],
            settings.get("minimum", limits.min), settings.get("maximum", limits.max),
        ],
        np.int32,
    )  # fmt: skip
    out = np.zeros(sums.shape, np.int32)
    status = library.reference_requantise(
        sums.ctypes.data, sums.size, multipliers.ctypes.data, multipliers.size,
        words.ctypes.data, out.ctypes.data,
    )  # fmt: skip
    assert status == 0, f"the oracle refuses with {status}"
    return out.astype(dtype)


def check(input, filter, bias, multipliers, **settings):
    """Run the op and the oracle on the same data and compare bits."""
    want = expected(input, filter, bias, multipliers, **settings)
    none = np.zeros(0, np.int64)
    result = raw(input, filter, none if bias is None else bias, multipliers, **settings)
    support.assert_bits(result, want, **settings)


def draw_wide(rng, stored, dtype):
    """Return the tensors and the attributes of a call."""
    (images, filter, bias, multipliers), settings = draw(rng, stored, dtype)
    rounding = str(rng.choice(ROUNDED))
    settings |= {"accumulator_size": 64, "use_fp16_acc": False, "rounding": rounding}
    if bias is not None:
        bias = rng.integers(-(2**63), 2**63, bias.size) >> rng.integers(0, 63)
    return (images, filter, bias, multipliers), settings


@pytest.mark.parametrize("dtype", [np.int8, np.int16])
@pytest.mark.parametrize("stored", [np.int8, np.int16])
def test_random(stored, dtype):
    """Any geometry, biases of any bits."""
    rng = np.random.default_rng([stored().itemsize, dtype().itemsize, 64])
    for _ in range(30):
        tensors, settings = draw_wide(rng, stored, dtype)
        check(*tensors, **settings)


@hypothesis.given(seed=st.integers(0, 2**32 - 1))
def test_property(seed):
    """The same, whatever the seed."""
    tensors, settings = draw_wide(np.random.default_rng(seed), np.int16, np.int16)
    check(*tensors, **settings)


@pytest.mark.parametrize("rounding", ROUNDED)
@pytest.mark.parametrize("shape", [(1, 1, 1, 2100, 30), (2, 6, 5, 700, 40), (40, 1, 1, 1500, 20)])
def test_sums_beyond_32_bits(shape, rounding):
    """Weights that prove nothing: dense layers of one row and of many, windows."""
    *image, outputs = shape
    rng = np.random.default_rng(shape)
    taps = [1, 1] if image[1] == 1 else [3, 2]
    check(
        rng.choice(np.array([-32768, 32767], np.int16), image),
        rng.choice(np.array([-128, 127], np.int8), [*taps, image[3], outputs]),
        rng.integers(-(2**40), 2**40, outputs),
        rng.uniform(2.0**-24, 2.0**-18, outputs),
        dtype=np.int16,
        strides=(1, 1),
        dilations=(1, 1),
        padding="VALID",
        zeros=(0, 0, 0, 0),
        is_depthwise=False,
        input_zero_point=0,
        accumulator_size=64,
        mult_shift=0,
        rounding=rounding,
        zero_point=0,
    )


IMAGE = draw_stored(np.random.default_rng(0), np.int16, (1, 4, 4, 3))
FILTER = draw_stored(np.random.default_rng(1), np.int8, (3, 3, 3, 2))
BIAS = np.array([2**40, -7])
FACTORS = np.array([2.0**-20, 2.0**-11])
WIDE = {"accumulator_size": 64, "rounding": "one_rounding"}


@pytest.mark.parametrize(
    ("changes", "text"),
    [
        ({"accumulator_size": 32}, "Need an accumulator_size of 64 for a bias of int64, got 32"),
        ({"use_fp16_acc": True}, "Need a bias of int32 in half precision, got int64"),
        ({"rounding": "two_roundings"}, "Need a bias of int32 for two_roundings, got int64"),
        ({"bias": np.int32(BIAS >> 32)}, "Need accumulator_size <= 32 for int32 data, got 64"),
        ({"bias": BIAS[:1]}, "Need a bias of 0 or 2 elements, got shape [1]"),
        ({"mult_shift": 32}, "Need a mult_shift in [0, 31], got 32"),
    ],
    ids=str,
)
def test_refusals(changes, text):
    """What is needed and what came."""
    arguments = {"input": IMAGE, "filter": FILTER, "bias": BIAS, "multipliers": FACTORS} | WIDE
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        raw(**(arguments | changes))


def test_the_wrapper():
    """Arrays, tensors, lists; no bias; other weights make another layer; in a function."""
    for bias in (BIAS, BIAS + 2**30, None):
        given = np.zeros(0, np.int64) if bias is None else bias
        want = raw(IMAGE, FILTER, given, FACTORS, **WIDE).numpy()
        forms = [bias] if bias is None else [bias, tf.constant(bias), bias.tolist()]
        for form in forms:
            call = tf.function(
                lambda x, form=form: ops.prepared_conv2d(x, FILTER, form, FACTORS, **WIDE),
                autograph=False,
            )
            result = ops.prepared_conv2d(IMAGE, FILTER, form, FACTORS, **WIDE)
            support.assert_bits(result, want)
            support.assert_bits(call(IMAGE), want)


def test_no_images():
    """A batch of 0 gives a batch of 0."""
    assert raw(IMAGE[:0], FILTER, BIAS, FACTORS, **WIDE).shape == (0, 2, 2, 2)
