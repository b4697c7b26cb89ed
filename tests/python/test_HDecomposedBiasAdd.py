# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HDecomposedBiasAdd through the runtime: bits, printed lines, ranks, refusals."""

from __future__ import annotations

import itertools
import re
import time

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
RANK_ERROR = "HDecomposedBiasAdd supports rank 4 and rank 2 (Convolution and Dense results)"
REGISTRATION = {
    "HDecomposedBiasAdd": registration.accumulation(
        ["value", "bias_a", "bias_b", "bias_a_factor", "bias_b_factor", "bias_feed_repeat: float"],
        registration.kernels("HDecomposedBiasAddOp", "CPU", "GPU"),
    )
}
WRAPPERS = {
    "decomposed_bias_add": stated.Wrapper(
        [(2, 3, 3, 2), (2,), (2,)],
        {"accumulator_size": 6, "factor_a": 3, "factor_b": -2, "feed_repeat": 2.5},
        raw.decomposed_bias_add,
    ),
}


@pytest.fixture(scope="session")
def check(reference):
    """Run HDecomposedBiasAdd and the oracle on the same data; compare bits and lines."""

    def run(value, bias_a, bias_b, **arguments):
        inputs = {"value": value, "bias_a": bias_a, "bias_b": bias_b}
        checks.compare(raw.decomposed_bias_add, reference.decomposed_bias_add, inputs, **arguments)

    return run


def one(value, bias_a, bias_b, dtype=np.int32, **arguments):
    """Return the result for a single element."""
    biases = np.array([bias_a], dtype), np.array([bias_b], dtype)
    return raw.decomposed_bias_add(np.array([[value]], dtype), *biases, **arguments).numpy().item()


# ---- Worked values -----------------------------------------------------------------------------


@pytest.mark.parametrize(("bias_b", "result"), [(-50, 100), (-10, -116)])
def test_both_additions_wrap(bias_b, result):
    """100 + 50 wraps to -106; -156 wraps back to 100, -116 needs no wrap."""
    assert one(100, 50, bias_b, accumulator_size=8) == result
    assert one(100.0, 50.0, bias_b, np.float32, accumulator_size=8) == result


def test_parts_alternate(printed):
    """Two passes are four additions in the order a, b, a, b, each with its line."""
    with printed() as text:
        result = one(8388600.0, 20.0, -3.0, np.float32, feed_repeat=2.0)
    assert result == 8388634.0
    sums = ("8388620.000000", "8388617.000000", "8388637.000000", "8388634.000000")
    assert text.out == "".join(map(support.warning, sums))


def test_wraps_alternate():
    """A wrap after the first addition of a pass feeds the second, and the next pass."""
    # 100 + 50 -> -106; -106 - 60 -> 90; 90 + 50 -> -116; -116 - 60 -> 80.
    assert one(100, 50, -60, feed_repeat=2.0, accumulator_size=8) == 80
    assert one(100.0, 50.0, -60.0, np.float32, feed_repeat=2.0, accumulator_size=8) == 80.0


def test_channels_come_last(assert_bits):
    """Element i takes both biases of channel i mod C, for rank 2 and rank 4."""
    bias_a, bias_b = np.arange(1, 6, dtype=np.int32), np.arange(10, 60, 10, dtype=np.int32)
    expected = np.tile(bias_a + bias_b, 3)
    for shape in ((3, 5), (3, 1, 1, 5), (1, 3, 1, 5)):
        value = np.zeros(shape, np.int32)
        assert_bits(raw.decomposed_bias_add(value, bias_a, bias_b), expected.reshape(shape))


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize(
    ("feed_repeat", "added"), [(-np.inf, 0), (-1.0, 0), (0.0, 0), (0.5, 1), (2.5, 3), (3.0, 3)]
)
def test_repeats_round_up(dtype, feed_repeat, added):
    """Both parts are added as often as the feed repeat, rounded up."""
    assert one(10, 7, -2, dtype, feed_repeat=feed_repeat) == 10 + 5 * added


def test_no_repeats_return_the_value():
    """Nothing is added for a feed repeat of 0 and below, and nothing wraps."""
    assert one(1000, 5, 5, feed_repeat=0.0, accumulator_size=8) == 1000
    assert one(1000.0, 5.0, 5.0, np.float32, feed_repeat=-1.0, accumulator_size=8) == 1000.0


def test_parts_are_scaled_singly():
    """Each part has its factor and is rounded on its own: 7.5 to even 8, 2.5 to even 2."""
    assert one(0, 5, 5, factor_a=3, factor_b=1, mult_shift=1) == 10
    assert one(0.0, 5.0, 5.0, np.float32, factor_a=3.0, factor_b=1.0, mult_shift=2) == 10.0
    assert one(0, 65536, 3, factor_a=65536, factor_b=7) == 21  # the product of a wraps to 0


def test_float_shift_divides_by_its_value():
    """75 / 30 = 2.5 goes to even 2; a reciprocal would give 3."""
    assert one(0.0, 75.0, 0.0, np.float32, mult_shift=30) == 2.0
    assert one(0.0, 0.0, 75.0, np.float32, mult_shift=30) == 2.0


def test_half_precision():
    """Floats are kept in half precision; of integers the initial value alone is quantised."""
    assert one(40000.0, 1.0, 1.0, np.float32, feed_repeat=0.0, use_fp16_acc=True) == -20000.0
    assert one(1.5, 2.0**-11, 2.0**-11, np.float32, use_fp16_acc=True) == 1.5
    assert one(100.0, 50.0, 1.0, np.float32, accumulator_size=8, use_fp16_acc=True) == 151.0
    assert one(40000, 1, 1, accumulator_size=16, use_fp16_acc=True) == -19998
    assert one(100, 50, -10, accumulator_size=8, use_fp16_acc=True) == -116


def test_half_precision_prints_the_sums(printed):
    """The warning tests each sum before any quantisation."""
    with printed() as text:
        one(0.0, 9e6, -1e7, np.float32, use_fp16_acc=True)
    # 9000000 is kept as -9000000 / 2^9, to a multiple of 8.
    assert text.out == support.warning("9000000.000000") + support.warning("-10017576.000000")


def test_integers_print_nothing(printed):
    """Only floats are checked against the warning range."""
    with printed() as text:
        one(2**31 - 1, 2**31 - 1, -5, feed_repeat=3.0)
    assert (text.out, text.err) == ("", "")


@pytest.mark.parametrize("accumulator_size", [8, 24, 32])
def test_long_integer_feeds(accumulator_size):
    """2^31 passes are counted as floats, 64 fewer, and integers in range do not loop."""
    half = 2 ** (accumulator_size - 1)
    start = time.process_time()
    found = one(0, 5, -2, feed_repeat=2.0**31, accumulator_size=accumulator_size)
    assert found == (3 * (2**31 - 64) + half) % (2 * half) - half
    assert time.process_time() - start < 30, "a huge repeat must not be looped over"


# ---- Against the oracle ------------------------------------------------------------------------

FACTORS = {
    np.int32: (1, -1, 3, 65536, -(2**31), 2**31 - 1),
    np.float32: (1.0, -1.0, 0.1, 2.0**-140, 3e38, np.inf, np.nan),
}


@pytest.mark.parametrize(
    ("dtype", "accumulator_size"), [(t, w) for t in TYPES for w in support.WIDTHS[t]]
)
def test_boundaries(dtype, accumulator_size, check):
    """Every boundary value against every bias and the next, under shifts, repeats and modes."""
    bias_a = support.BOUNDARY[dtype]
    value = np.repeat(bias_a[:, np.newaxis], bias_a.size, axis=1)
    factors = itertools.cycle(itertools.permutations(FACTORS[dtype], 2))
    modes = itertools.product(support.SHIFTS, (-np.inf, 1.0, 2.5), (False, True))
    for turn, (mult_shift, feed_repeat, use_fp16_acc) in enumerate(modes):
        if feed_repeat <= 0 and mult_shift > 1:
            continue  # the shift is of no use then
        factor_a, factor_b = next(factors)
        check(
            value,
            bias_a,
            np.roll(bias_a, turn),
            factor_a=factor_a,
            factor_b=factor_b,
            feed_repeat=feed_repeat,
            mult_shift=mult_shift,
            accumulator_size=accumulator_size,
            use_fp16_acc=use_fp16_acc,
        )


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("shape", checks.SHAPES, ids=str)
def test_random(dtype, shape, check):
    """Random data of every magnitude, random settings, biases to spare."""
    rng = np.random.default_rng([29, *shape])
    for _ in range(20):
        lengths = shape[-1] + rng.integers(0, 3, 2)
        check(
            support.random_values(rng, dtype, shape),
            *(support.random_values(rng, dtype, (length,)) for length in lengths),
            factor_a=support.random_values(rng, dtype, (1,)).item(),
            factor_b=support.random_values(rng, dtype, (1,)).item(),
            feed_repeat=rng.choice(support.FEED_REPEATS).item(),
            **checks.random_settings(rng, dtype),
        )


@pytest.mark.parametrize("accumulator_size", [8, 24, 32])
def test_long_integer_repeats_match_the_loop(accumulator_size, check):
    """Hundreds of passes over boundary values, against the loop itself."""
    bias_a = support.INT32_BOUNDARY
    value = np.repeat(bias_a[:, np.newaxis], bias_a.size, axis=1)
    for turn in (0, 1, 20):
        bias_b = np.roll(-bias_a, turn)
        check(value, bias_a, bias_b, feed_repeat=257.0, accumulator_size=accumulator_size)


@pytest.mark.parametrize("dtype", TYPES)
@hypothesis.given(data=st.data())
def test_property(dtype, data, check):
    """Any numbers under any settings."""
    shape = data.draw(checks.shapes(2, 4))
    arrays = data.draw(checks.arrays(dtype, shape, shape[-1:], shape[-1:]))
    more = {"factor_a": checks.numbers(dtype), "factor_b": checks.numbers(dtype)}
    more["feed_repeat"] = checks.feed_repeats()
    check(*arrays, **data.draw(checks.settings(dtype, **more)))


# ---- Ranks -------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("shape", [(), (7,), (2, 3, 4), (8, 8, 64), (2, 1, 3, 1, 2), (0, 3, 2)])
def test_other_ranks_are_logged(dtype, shape, printed, assert_bits):
    """An error in the log, zeros, and no failure, whatever the memory held before."""
    checks.leave_dirty_memory(shape, dtype)
    bias = np.ones([7], dtype)
    with printed() as text:
        result = raw.decomposed_bias_add(np.ones(shape, dtype), bias, bias).numpy()
    assert_bits(result, np.zeros(shape, dtype))
    assert text.out == ""
    assert checks.logged_errors(text.err) == [RANK_ERROR]


def test_other_ranks_do_not_look_at_the_inputs(printed):
    """Empty scalars and short biases are no failure where nothing is read of them."""
    with printed() as text:
        result = _call(
            value=(1, 2, 3), bias_a=(0,), bias_b=(0,), factor_a=(0,), factor_b=(0,),
            feed_repeat=(0,), mult_shift=(0,),
        )  # fmt: skip
    assert not result.numpy().any()
    assert checks.logged_errors(text.err) == [RANK_ERROR]


def test_scalars_read_element_0(assert_bits):
    """Factors, feed repeat and shift may be of any shape; the first element counts."""
    result = raw.raw_ops.h_decomposed_bias_add(
        np.array([[1]], np.int32),
        np.array([[6], [7]], np.int32),
        np.array([[1, 7]], np.int32),
        np.array([[2, 9]], np.int32),
        np.array([8, 9], np.int32),
        np.array([2.0, 100.0], np.float32),
        np.array(1, np.int8),
        accumulator_size=32,
    )
    assert_bits(result, np.array([[1 + 2 * (6 + 4)]], np.int32))


@pytest.mark.parametrize(("value", "bias", "expected"), checks.CHANNELS_MERGED)
def test_the_rule_merges_the_channels(value, bias, expected):
    """A value's shape; the first part of the bias tells the channels where they are unknown."""
    assert checks.inferred(raw.decomposed_bias_add, value, bias, [7]) == expected


@pytest.mark.parametrize(("value", "bias", "text"), checks.CHANNELS_REFUSED)
def test_the_rule_refuses(value, bias, text):
    """The runtime's own rule for a bias."""
    with pytest.raises(ValueError, match=re.escape(text)):
        checks.inferred(raw.decomposed_bias_add, value, bias, [7])


# ---- Refusals ----------------------------------------------------------------------------------

_OF_VALUE = "one for each channel of value"


def _call(
    value=(1, 1), bias_a=(1,), bias_b=(1,), factor_a=(1,), factor_b=(1,), feed_repeat=(1,),
    mult_shift=(1,),
):  # fmt: skip
    """HDecomposedBiasAdd on ones of the given shapes, which may be tensors instead."""
    return raw.raw_ops.h_decomposed_bias_add(
        checks.ones(value, np.int32),
        checks.ones(bias_a, np.int32),
        checks.ones(bias_b, np.int32),
        checks.ones(factor_a, np.int32),
        checks.ones(factor_b, np.int32),
        checks.ones(feed_repeat, np.float32),
        checks.ones(mult_shift, np.int8),
        accumulator_size=16,
    )


@pytest.mark.parametrize(
    ("inputs", "text"),
    [
        (
            {"value": (2, 3), "bias_a": (2,), "bias_b": (1,)},
            "Need bias_a to hold at least 3 elements (one for each channel of value), "
            "got 2 in shape [2]",
        ),
        (
            {"value": (2, 1, 1, 3), "bias_a": (3,), "bias_b": (1, 2)},
            "Need bias_b to hold at least 3 elements (one for each channel of value), "
            "got 2 in shape [1,2]",
        ),
        ({"value": (0, 1), "bias_a": (0,)}, checks.too_small("bias_a", 1, _OF_VALUE, (0,))),
        ({"bias_b": (0,)}, checks.too_small("bias_b", 1, _OF_VALUE, (0,))),
        ({"factor_a": (0,)}, checks.empty_scalar("bias_a_factor")),
        ({"factor_b": (0, 3)}, checks.empty_scalar("bias_b_factor", (0, 3))),
        ({"feed_repeat": (0,)}, checks.empty_scalar("bias_feed_repeat")),
        ({"mult_shift": (0, 2)}, checks.empty_scalar("mult_shift", (0, 2))),
        ({"value": (0, 2), "bias_a": (2,), "bias_b": (2,), "mult_shift": (0,)},
         checks.empty_scalar("mult_shift")),
    ],
    ids=checks.case_name,
)  # fmt: skip
def test_small_inputs_are_refused(inputs, text):
    """Each input must hold what is read of it; the error names it, what it needs and has."""
    with checks.refused(text):
        _call(**inputs)


def test_no_channels_need_no_bias(assert_bits):
    """Without channels nothing is computed and nothing needed."""
    result = _call(value=(2, 0), bias_a=(0,), bias_b=(0,))
    assert_bits(result, np.zeros([2, 0], np.int32))


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
    bias = np.ones([1], dtype)
    with checks.refused(text):
        raw.decomposed_bias_add(np.ones(shape, dtype), bias, bias, accumulator_size=width)


def test_in_a_graph(assert_bits):
    """The same values and refusals inside a function, whose shapes are unknown."""

    @tf.function(input_signature=[tf.TensorSpec(None, tf.int32)] * 3)
    def add(value, bias_a, bias_b):
        return raw.decomposed_bias_add(value, bias_a, bias_b, accumulator_size=8)

    ones = np.ones([2, 3], np.int32)
    assert_bits(add(100 * ones, 50 * ones[0], -10 * ones[0]), -116 * ones)
    with checks.refused(checks.too_small("bias_b", 3, _OF_VALUE, (2,))):
        add(ones, ones[0], ones[0, :2])
