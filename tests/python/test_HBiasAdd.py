# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HBiasAdd through the runtime: bits, printed lines, ranks, refusals."""

from __future__ import annotations

import itertools
import re

import checks
import hypothesis
import hypothesis.strategies as st
import numpy as np
import pytest
import raw
import registration
import stated
import support
import tensorflow as tf

TYPES = checks.TYPES
RANK_ERROR = "HBiasAdd supports rank 4 and rank 2 (Convolution and Dense results)"
REGISTRATION = {
    "HBiasAdd": registration.accumulation(
        ["value", "bias", "bias_factor", "bias_feed_repeat: float"],
        registration.kernels("HBiasAddOp", "CPU", "GPU"),
    )
}
WRAPPERS = {
    "bias_add": stated.Wrapper(
        [(2, 3, 3, 2), (2,)],
        {"accumulator_size": 6, "factor": 3, "feed_repeat": 2.5, "mult_shift": 1},
        raw.bias_add,
    ),
}


@pytest.fixture(scope="session")
def check(reference):
    """Run HBiasAdd and the oracle on the same data and compare bits and printed lines."""

    def run(value, bias, **arguments):
        inputs = {"value": value, "bias": bias}
        checks.compare(raw.bias_add, reference.bias_add, inputs, **arguments)

    return run


def one(value, bias, dtype=np.int32, **arguments):
    """Return the result for a single element."""
    result = raw.bias_add(np.array([[value]], dtype), np.array([bias], dtype), **arguments)
    return result.numpy().item()


# ---- Worked values -----------------------------------------------------------------------------


def test_channels_come_last(assert_bits):
    """Element i takes bias[i mod C], for rank 2 and rank 4."""
    bias = np.array([1, 2, 3, 4, 5], np.int32)
    expected = np.tile(bias, 3)
    flat = raw.bias_add(np.zeros([3, 5], np.int32), bias)
    assert_bits(flat, expected.reshape(3, 5))
    image = raw.bias_add(np.zeros([3, 1, 1, 5], np.int32), bias)
    assert_bits(image, expected.reshape(3, 1, 1, 5))
    image = raw.bias_add(np.zeros([1, 3, 1, 5], np.int32), bias)
    assert_bits(image, expected.reshape(1, 3, 1, 5))


def test_sum_wraps_into_the_width():
    """32767 + 1 wraps at 16 bits."""
    assert one(32767, 1, accumulator_size=16) == -32768
    assert one(32767.0, 1.0, np.float32, accumulator_size=16) == -32768.0
    assert one(-32768, -1, accumulator_size=16) == 32767


def test_float_shift_divides_by_its_value():
    """3 / 2 = 1.5 goes to even 2; the integer shifts by 2 and 3 / 4 goes to 1."""
    assert one(0.0, 3.0, np.float32, mult_shift=2) == 2.0
    assert one(0, 3, np.int32, mult_shift=2) == 1


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize(
    ("feed_repeat", "added"), [(-np.inf, 0), (-1.0, 0), (0.0, 0), (0.5, 1), (2.5, 3), (3.0, 3)]
)
def test_repeats_round_up(dtype, feed_repeat, added):
    """The bias is added as often as the feed repeat, rounded up."""
    assert one(10, 7, dtype, feed_repeat=feed_repeat) == 10 + 7 * added


def test_factor_multiplies():
    """The bias is scaled before it is shifted and added."""
    assert one(1, 5, factor=3, mult_shift=1) == 9  # 7.5 to even 8
    assert one(1, 65536, factor=65536) == 1


def test_long_integer_feeds():
    """2^31 passes of 1 are counted as floats: 64 fewer."""
    assert one(0, 1, feed_repeat=2.0**31) == 2**31 - 64


def test_one_line_for_each_addition(printed):
    """Each pass of the feed repeat is checked; the upper bound itself is reported."""
    with printed() as text:
        one(8388606.0, 1.0, np.float32, feed_repeat=2.0)
    assert text.out == support.warning("8388607.000000") + support.warning("8388608.000000")


def test_integers_print_nothing(printed):
    """Only floats are checked against the warning range."""
    with printed() as text:
        one(2**31 - 1, 2**31 - 1, feed_repeat=3.0)
    assert (text.out, text.err) == ("", "")


def test_half_precision():
    """Floats are kept in half precision; of integers the initial value alone is quantised."""
    assert one(40000.0, 1.0, np.float32, feed_repeat=0.0, use_fp16_acc=True) == -20000.0
    assert one(1.5, 2.0**-11, np.float32, use_fp16_acc=True) == 1.5
    assert one(40000, 1, accumulator_size=16, use_fp16_acc=True) == -19999


# ---- Against the oracle ------------------------------------------------------------------------

FACTORS = {
    np.int32: (1, -1, 3, 65536, -(2**31), 2**31 - 1),
    np.float32: (1.0, -1.0, 0.1, 2.0**-140, 3e38, np.inf, np.nan),
}


@pytest.mark.parametrize(
    ("dtype", "accumulator_size"), [(t, w) for t in TYPES for w in support.WIDTHS[t]]
)
def test_boundaries(dtype, accumulator_size, check):
    """Every boundary value against every bias, under every shift, repeat and mode."""
    bias = support.BOUNDARY[dtype]
    value = np.repeat(bias[:, np.newaxis], bias.size, axis=1)
    factors = itertools.cycle(FACTORS[dtype])
    modes = itertools.product(support.SHIFTS, (-np.inf, 0.5, 1.0, 2.5), (False, True))
    for mult_shift, feed_repeat, use_fp16_acc in modes:
        if feed_repeat <= 0 and mult_shift > 1:
            continue  # the shift is of no use then
        check(
            value,
            bias,
            factor=next(factors),
            feed_repeat=feed_repeat,
            mult_shift=mult_shift,
            accumulator_size=accumulator_size,
            use_fp16_acc=use_fp16_acc,
        )


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("shape", checks.SHAPES, ids=str)
def test_random(dtype, shape, check):
    """Random data of every magnitude, random settings, biases to spare."""
    rng = np.random.default_rng([23, *shape])
    for _ in range(20):
        check(
            support.random_values(rng, dtype, shape),
            support.random_values(rng, dtype, (shape[-1] + int(rng.integers(3)),)),
            factor=support.random_values(rng, dtype, (1,)).item(),
            feed_repeat=rng.choice(support.FEED_REPEATS).item(),
            **checks.random_settings(rng, dtype),
        )


@pytest.mark.parametrize("dtype", TYPES)
@hypothesis.given(data=st.data())
def test_property(dtype, data, check):
    """Any numbers under any settings."""
    shape = data.draw(checks.shapes(2, 4))
    arrays = data.draw(checks.arrays(dtype, shape, shape[-1:]))
    factor, feed_repeat = checks.numbers(dtype), checks.feed_repeats()
    check(*arrays, **data.draw(checks.settings(dtype, factor=factor, feed_repeat=feed_repeat)))


# ---- Ranks -------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("shape", [(), (7,), (2, 3, 4), (8, 8, 64), (2, 1, 3, 1, 2), (0, 3, 2)])
def test_other_ranks_are_logged(dtype, shape, printed, assert_bits):
    """An error in the log, zeros, and no failure, whatever the memory held before."""
    checks.leave_dirty_memory(shape, dtype)
    with printed() as text:
        result = raw.bias_add(np.ones(shape, dtype), np.ones([7], dtype)).numpy()
    assert_bits(result, np.zeros(shape, dtype))
    assert text.out == ""
    assert checks.logged_errors(text.err) == [RANK_ERROR]


def test_other_ranks_do_not_look_at_the_inputs(printed):
    """Empty scalars and a short bias are no failure where nothing is read of them."""
    empty = np.zeros([0], np.int32)
    with printed() as text:
        result = raw.raw_ops.h_bias_add(
            np.ones([1, 2, 3], np.int32),
            empty,
            empty,
            np.zeros([0], np.float32),
            np.zeros([0], np.int8),
            accumulator_size=16,
        )
    assert not result.numpy().any()
    assert checks.logged_errors(text.err) == [RANK_ERROR]


def test_scalars_read_element_0(assert_bits):
    """Factor, feed repeat and shift may be of any shape; the first element counts."""
    result = raw.raw_ops.h_bias_add(
        np.array([[1]], np.int32),
        np.array([[6], [7]], np.int32),
        np.array([[2, 9]], np.int32),
        np.array([2.0, 100.0], np.float32),
        np.array(1, np.int8),
        accumulator_size=32,
    )
    assert_bits(result, np.array([[13]], np.int32))


@pytest.mark.parametrize(("value", "bias", "expected"), checks.CHANNELS_MERGED)
def test_the_rule_merges_the_channels(value, bias, expected):
    """A value's shape; the bias tells the channels where they are unknown."""
    assert checks.inferred(raw.bias_add, value, bias) == expected


@pytest.mark.parametrize(("value", "bias", "text"), checks.CHANNELS_REFUSED)
def test_the_rule_refuses(value, bias, text):
    """The runtime's own rule for a bias."""
    with pytest.raises(ValueError, match=re.escape(text)):
        checks.inferred(raw.bias_add, value, bias)


# ---- Refusals ----------------------------------------------------------------------------------

_OF_VALUE = "one for each channel of value"


def _call(value=(1, 1), bias=(1,), factor=(1,), feed_repeat=(1,), mult_shift=(1,)):
    """HBiasAdd on ones of the given shapes, which may be tensors instead."""
    return raw.raw_ops.h_bias_add(
        checks.ones(value, np.int32),
        checks.ones(bias, np.int32),
        checks.ones(factor, np.int32),
        checks.ones(feed_repeat, np.float32),
        checks.ones(mult_shift, np.int8),
        accumulator_size=16,
    )


@pytest.mark.parametrize(
    ("inputs", "text"),
    [
        (
            {"value": (2, 3), "bias": (2,)},
            "Need bias to hold at least 3 elements (one for each channel of value), "
            "got 2 in shape [2]",
        ),
        ({"value": (2, 1, 1, 3), "bias": (0,)}, checks.too_small("bias", 3, _OF_VALUE, (0,))),
        ({"value": (0, 1), "bias": (0,)}, checks.too_small("bias", 1, _OF_VALUE, (0,))),
        ({"factor": (0,)}, checks.empty_scalar("bias_factor")),
        ({"feed_repeat": (0,)}, checks.empty_scalar("bias_feed_repeat")),
        ({"mult_shift": (0, 2)}, checks.empty_scalar("mult_shift", (0, 2))),
    ],
    ids=checks.case_name,
)
def test_small_inputs_are_refused(inputs, text):
    """Each input must hold what is read of it; the error names it, what it needs and has."""
    with checks.refused(text):
        _call(**inputs)


def test_no_channels_need_no_bias(assert_bits):
    """Without channels nothing is computed and nothing needed."""
    assert_bits(_call(value=(2, 0), bias=(0,)), np.zeros([2, 0], np.int32))


@pytest.mark.parametrize("shape", [(2**31, 0), (0, 2**31), (1, 2**31, 0, 1)])
def test_dimensions_beyond_32_bits_are_refused(shape):
    """Dimensions are 32-bit; one that is not must not be cut to fit, elements or none."""
    with checks.refused(checks.too_long("value", shape)):
        _call(value=checks.empty(shape))


@pytest.mark.parametrize(("feed_repeat", "got"), checks.ENDLESS_REPEATS)
def test_endless_feed_repeats_are_refused(feed_repeat, got):
    """NaN, +infinity and what a 32-bit count never reaches."""
    with checks.refused(checks.endless("bias_feed_repeat", got)):
        _call(feed_repeat=tf.constant([feed_repeat]))


@pytest.mark.parametrize(("dtype", "width", "text"), checks.WIDTHS_REFUSED)
@pytest.mark.parametrize("shape", [(1, 1), (1, 1, 1)])
def test_widths_are_refused_at_construction(dtype, width, text, shape):
    """Negative widths, and for integers those above 32, whatever the inputs."""
    with checks.refused(text):
        raw.bias_add(np.ones(shape, dtype), np.ones([1], dtype), accumulator_size=width)
