# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HBiasAdd through the runtime: bits, printed lines, ranks, refusals."""

from __future__ import annotations

import itertools
import re

import hypothesis
import hypothesis.extra.numpy
import hypothesis.strategies as st
import numpy as np
import pytest
import raw
import support
import tensorflow as tf

TYPES = (np.int32, np.float32)
RANK_ERROR = "HBiasAdd supports rank 4 and rank 2 (Convolution and Dense results)"


@pytest.fixture(scope="session")
def check(reference, printed, assert_bits, assert_lines):
    """Run HBiasAdd and the oracle on the same data and compare bits and printed lines."""

    def run(value, bias, **arguments):
        with printed() as text:
            actual = raw.bias_add(value, bias, **arguments).numpy()
        expected, lines = reference.bias_add(value, bias, **arguments)
        channel_bias = bias[: value.shape[-1]]
        shown = np.ascontiguousarray(np.broadcast_to(channel_bias, value.shape))
        inputs = {"value": value, "bias": shown, **arguments}
        assert_bits(actual, expected, **inputs)
        assert_lines(text.out, lines, **inputs)
        assert text.err == ""

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


SHAPES = [(1, 1), (3, 5), (0, 3), (2, 0), (1, 1, 1, 1), (2, 3, 5, 7), (1, 17, 1, 3), (2, 0, 3, 4)]


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("shape", SHAPES, ids=str)
def test_random(dtype, shape, check):
    """Random data of every magnitude, random settings, biases to spare."""
    rng = np.random.default_rng([23, *shape])
    for _ in range(20):
        check(
            support.random_values(rng, dtype, shape),
            support.random_values(rng, dtype, (shape[-1] + int(rng.integers(3)),)),
            factor=support.random_values(rng, dtype, (1,)).item(),
            feed_repeat=rng.choice(support.FEED_REPEATS).item(),
            mult_shift=int(rng.integers(-128, 128)),
            accumulator_size=int(rng.choice(support.WIDTHS[dtype])),
            use_fp16_acc=bool(rng.integers(2)),
        )


def _arrays(dtype):
    elements = st.floats(width=32) if dtype is np.float32 else None
    shapes = st.one_of(
        hypothesis.extra.numpy.array_shapes(min_dims=n, max_dims=n, max_side=3) for n in (2, 4)
    )
    return shapes.flatmap(
        lambda shape: st.tuples(
            hypothesis.extra.numpy.arrays(dtype, shape, elements=elements),
            hypothesis.extra.numpy.arrays(dtype, shape[-1:], elements=elements),
        )
    )


def _settings(highest_width):
    return {
        "feed_repeat": st.floats(-2, 20, width=32),
        "mult_shift": st.integers(-128, 127),
        "accumulator_size": st.integers(0, highest_width),
        "use_fp16_acc": st.booleans(),
    }


@hypothesis.given(
    arrays=_arrays(np.int32),
    factor=st.integers(support.INT32_MIN, support.INT32_MAX),
    arguments=st.fixed_dictionaries(_settings(32)),
)
def test_integer_property(arrays, factor, arguments, check):
    """Any integers under any settings."""
    check(*arrays, factor=factor, **arguments)


@hypothesis.given(
    arrays=_arrays(np.float32),
    factor=st.floats(width=32),
    arguments=st.fixed_dictionaries(_settings(200)),
)
def test_float_property(arrays, factor, arguments, check):
    """Any floats under any settings."""
    check(*arrays, factor=factor, **arguments)


# ---- Ranks -------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("shape", [(), (7,), (2, 3, 4), (8, 8, 64), (2, 1, 3, 1, 2), (0, 3, 2)])
def test_other_ranks_are_logged(dtype, shape, printed, assert_bits):
    """An error in the log, zeros, and no failure, whatever the memory held before."""
    full = tf.constant(np.full(shape, 1, dtype))
    blocks = [full + i for i in range(16)]
    del blocks
    with printed() as text:
        result = raw.bias_add(np.ones(shape, dtype), np.ones([7], dtype)).numpy()
    assert_bits(result, np.zeros(shape, dtype))
    assert text.out == ""
    lines = text.err.splitlines()
    assert len(lines) == 1, text.err
    assert lines[0].startswith("E"), "the line's severity"
    assert lines[0].endswith(RANK_ERROR)


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
    assert text.err.rstrip().endswith(RANK_ERROR)


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


# ---- Refusals ----------------------------------------------------------------------------------


def _call(value=(1, 1), bias=(1,), factor=(1,), feed_repeat=(1,), mult_shift=(1,)):
    """HBiasAdd on ones of the given shapes, which may be tensors instead."""

    def tensor(x, dtype):
        return x if tf.is_tensor(x) else np.ones(x, dtype)

    return raw.raw_ops.h_bias_add(
        tensor(value, np.int32),
        tensor(bias, np.int32),
        tensor(factor, np.int32),
        tensor(feed_repeat, np.float32),
        tensor(mult_shift, np.int8),
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
        (
            {"value": (2, 1, 1, 3), "bias": (0,)},
            "Need bias to hold at least 3 elements (one for each channel of value), "
            "got 0 in shape [0]",
        ),
        (
            {"value": (0, 1), "bias": (0,)},
            "Need bias to hold at least 1 element (one for each channel of value), "
            "got 0 in shape [0]",
        ),
        (
            {"factor": (0,)},
            "Need bias_factor to hold at least 1 element (its element 0 is read), "
            "got 0 in shape [0]",
        ),
        (
            {"feed_repeat": (0,)},
            "Need bias_feed_repeat to hold at least 1 element (its element 0 is read), "
            "got 0 in shape [0]",
        ),
        (
            {"mult_shift": (0, 2)},
            "Need mult_shift to hold at least 1 element (its element 0 is read), "
            "got 0 in shape [0,2]",
        ),
    ],
    ids=lambda x: "-".join(f"{k}{list(v)}" for k, v in x.items()) if isinstance(x, dict) else "",
)
def test_small_inputs_are_refused(inputs, text):
    """Each input must hold what is read of it; the error names it, what it needs and has."""
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        _call(**inputs)


def test_no_channels_need_no_bias(assert_bits):
    """Without channels nothing is computed and nothing needed."""
    assert_bits(_call(value=(2, 0), bias=(0,)), np.zeros([2, 0], np.int32))


@pytest.mark.parametrize("shape", [(2**31, 0), (0, 2**31), (1, 2**31, 0, 1)])
def test_dimensions_beyond_32_bits_are_refused(shape):
    """Dimensions are 32-bit; one that is not must not be cut to fit, elements or none."""
    text = (
        "Need every dimension of value to be at most 2147483647, got shape "
        f"[{','.join(map(str, shape))}]"
    )
    value = tf.reshape(tf.zeros([0], tf.int32), tf.constant(shape, tf.int64))
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        _call(value=value)


@pytest.mark.parametrize(
    ("feed_repeat", "got"),
    [
        (np.nan, "nan"),
        (np.inf, "inf"),
        (2.0**31 + 256, "2.1474839e+09"),
        (2.0**127, "1.70141183e+38"),
    ],
)
def test_endless_feed_repeats_are_refused(feed_repeat, got):
    """NaN, +infinity and what a 32-bit count never reaches."""
    text = (
        f"Need bias_feed_repeat to be a number of repeats of at most 2^31 = 2147483648, got {got}"
    )
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        _call(feed_repeat=tf.constant([feed_repeat]))


@pytest.mark.parametrize(
    ("dtype", "width", "text"),
    [
        (np.int32, -1, "Need accumulator_size >= 0, got -1"),
        (np.float32, -7, "Need accumulator_size >= 0, got -7"),
        (np.int32, 33, "Need accumulator_size <= 32 for int32 data, got 33"),
    ],
)
@pytest.mark.parametrize("shape", [(1, 1), (1, 1, 1)])
def test_widths_are_refused_at_construction(dtype, width, text, shape):
    """Negative widths, and for integers those above 32, whatever the inputs."""
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        raw.bias_add(np.ones(shape, dtype), np.ones([1], dtype), accumulator_size=width)
