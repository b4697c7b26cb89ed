# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HAdd through the runtime: bits, printed lines, ranks, refusals."""

from __future__ import annotations

import itertools
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
REGISTRATION = {
    "HAdd": registration.accumulation(
        ["value", "elementwise", "elementwise_factor", "elementwise_feed_repeat: float"],
        registration.kernels("HAddOp", "CPU", "GPU"),
    )
}
WRAPPERS = {
    "add": stated.Wrapper(
        [(2, 3, 3, 2), (2, 3, 3, 2)],
        {"accumulator_size": 6, "factor": 3, "feed_repeat": 2.5, "mult_shift": 1},
        raw.add,
    ),
}


@pytest.fixture(scope="session")
def check(reference):
    """Run HAdd and the oracle on the same data and compare bits and printed lines."""

    def run(value, elementwise, **arguments):
        inputs = {"value": value, "elementwise": elementwise}
        checks.compare(raw.add, reference.add, inputs, **arguments)

    return run


def one(value, elementwise, dtype=np.int32, **arguments):
    """Return the result for a single element."""
    result = raw.add(np.array([[value]], dtype), np.array([[elementwise]], dtype), **arguments)
    return result.numpy().item()


# ---- Worked values -----------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("feed_repeat", [0.0, -0.0, -1.0, -1e30, -np.inf])
def test_no_repeats_return_the_value(dtype, feed_repeat):
    """Nothing is added for a feed repeat of 0 and below, and nothing wraps."""
    assert one(1000, 5, dtype, feed_repeat=feed_repeat, accumulator_size=8) == 1000


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize(("feed_repeat", "added"), [(0.5, 1), (1.0, 1), (2.5, 3), (3.0, 3)])
def test_repeats_round_up(dtype, feed_repeat, added):
    """The operand is added as often as the feed repeat, rounded up."""
    assert one(10, 7, dtype, feed_repeat=feed_repeat) == 10 + 7 * added


def test_sum_wraps_into_the_width():
    """100 + 50 does not fit 8 bits: 150 - 256."""
    assert one(100, 50, accumulator_size=8) == -106
    assert one(100.0, 50.0, np.float32, accumulator_size=8) == -106.0
    assert one(-100, -50, accumulator_size=8) == 106
    assert one(127, 300, accumulator_size=8) == 171  # one wrap only


@pytest.mark.parametrize(
    ("product", "shift", "added"),
    [(5, 1, 2), (7, 1, 4), (6, 2, 2), (-5, 1, -2), (5, 2, 1), (5, 0, 5), (-(2**31), 31, -1)],
)
def test_integer_shift_rounds_half_to_even(product, shift, added):
    """Products are shifted right, halves to even; a negative one never rounds up at 31."""
    assert one(0, product, mult_shift=shift) == added


@pytest.mark.parametrize(
    ("product", "divisor", "added"),
    [(5.0, 2, 2.0), (7.0, 2, 4.0), (3.0, 2, 2.0), (10.0, 4, 2.0), (7.0, -2, -4.0), (5.25, 0, 5.25)],
)
def test_float_shift_divides_by_its_value(product, divisor, added):
    """Float products are divided by the shift itself, then rounded half to even."""
    assert one(0.0, product, np.float32, mult_shift=divisor) == added


def test_shift_differs_between_the_types():
    """5 at a shift of 2: the float divides by 2, the integer by 4."""
    assert one(0.0, 5.0, np.float32, mult_shift=2) == 2.0
    assert one(0, 5, np.int32, mult_shift=2) == 1


def test_factor_multiplies_in_the_types_arithmetic():
    """Integer products wrap at 32 bits, float products round to single precision."""
    assert one(1, 65536, factor=65536) == 1
    assert one(0, 2**31 - 1, factor=2) == -2
    assert one(0.0, 1 + 2.0**-23, np.float32, factor=1 + 2.0**-23) == 1 + 2.0**-22


def test_width_of_0():
    """A width of 0 is accepted: integers have the one value 0."""
    assert one(0, 0, accumulator_size=0) == 0
    assert one(0, 1, accumulator_size=0) == 0
    assert one(0.0, 0.25, np.float32, accumulator_size=0) == -0.75  # above 0.5 - 1: minus 1


@pytest.mark.parametrize(
    ("value", "quantised"),
    [
        (2.0**-11, 0.0),
        (3 * 2.0**-11, 2.0**-9),
        (1.5, 1.5),
        (32767.9, 32768.0),
        (40000.0, -20000.0),
        (-40000.0, 20000.0),
        (2.0**-17, 0.0),
        (-(2.0**-17), -0.0),
    ],
)
def test_half_precision_quantises_the_value(value, quantised, assert_bits):
    """In half-precision mode the value is quantised even when nothing is added."""
    arrays = np.array([[value]], np.float32), np.array([[1.0]], np.float32)
    result = raw.add(*arrays, feed_repeat=0.0, use_fp16_acc=True)
    assert_bits(result, np.array([[quantised]], np.float32))


def test_half_precision_of_integers():
    """Integers quantise the initial value alone; the additions stay integer and wrap."""
    assert one(40000, 0, feed_repeat=0.0, use_fp16_acc=True) == -20000
    assert one(4097, 1, use_fp16_acc=True) == 4097  # 13 bits: to even 4096, then + 1
    assert one(100, 50, accumulator_size=8, use_fp16_acc=True) == -106


def test_half_precision_of_floats_does_not_wrap():
    """The half-precision accumulator has no width; the addend is quantised too."""
    arguments = {"accumulator_size": 8, "use_fp16_acc": True}
    assert one(100.0, 50.0, np.float32, **arguments) == 150.0
    assert one(0.0, 2.0**-11, np.float32, **arguments) == 0.0


@pytest.mark.parametrize(
    ("total", "line"),
    [
        (8388606.0, ""),
        (8388607.0, support.warning("8388607.000000")),
        (-8388607.0, ""),
        (-8388608.0, support.warning("-8388608.000000")),
        (np.inf, support.warning("inf")),
        (-np.inf, support.warning("-inf")),
        (np.nan, support.warning("nan")),
    ],
)
@pytest.mark.parametrize("use_fp16_acc", [False, True])
def test_out_of_bounds_sums_are_reported(total, line, use_fp16_acc, printed, assert_lines):
    """A line for each sum outside [-8388607, 8388607), of the sum before any quantisation."""
    with printed() as text:
        one(0.0, total, np.float32, use_fp16_acc=use_fp16_acc)
    assert_lines(text.out, line)


def test_one_line_for_each_addition(printed):
    """Each pass of the feed repeat is checked."""
    with printed() as text:
        one(8388600.0, 5.0, np.float32, feed_repeat=4.0)
    sums = ("8388610.000000", "8388615.000000", "8388620.000000")
    assert text.out == "".join(map(support.warning, sums))


def test_integers_print_nothing(printed):
    """Only floats are checked against the warning range."""
    with printed() as text:
        one(2**31 - 1, 2**31 - 1, feed_repeat=3.0)
    assert text.out == ""


# ---- Against the oracle ------------------------------------------------------------------------

FACTORS = {
    np.int32: (1, -1, 0, 3, 65536, -(2**31), 2**31 - 1),
    np.float32: (1.0, -1.0, 0.0, 0.1, 2.0**-140, 3e38, np.inf, np.nan),
}


@pytest.mark.parametrize(
    ("dtype", "accumulator_size"), [(t, w) for t in TYPES for w in support.WIDTHS[t]]
)
def test_boundaries(dtype, accumulator_size, check):
    """Every boundary value against every other, under every shift, repeat and mode."""
    value, elementwise = support.boundary_pairs(dtype)
    factors = itertools.cycle(FACTORS[dtype])
    modes = itertools.product(support.SHIFTS, support.FEED_REPEATS, (False, True))
    for mult_shift, feed_repeat, use_fp16_acc in modes:
        if feed_repeat <= 0 and mult_shift > 1:
            continue  # the shift is of no use then
        check(
            value,
            elementwise,
            factor=next(factors),
            feed_repeat=feed_repeat,
            mult_shift=mult_shift,
            accumulator_size=accumulator_size,
            use_fp16_acc=use_fp16_acc,
        )


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("shape", checks.SHAPES, ids=str)
def test_random(dtype, shape, check):
    """Random data of every magnitude, random settings."""
    rng = np.random.default_rng([17, *shape])
    for _ in range(25):
        check(
            support.random_values(rng, dtype, shape),
            support.random_values(rng, dtype, shape),
            factor=support.random_values(rng, dtype, (1,)).item(),
            feed_repeat=rng.choice(support.FEED_REPEATS).item(),
            **checks.random_settings(rng, dtype),
        )


@pytest.mark.parametrize("dtype", TYPES)
@hypothesis.given(data=st.data())
def test_property(dtype, data, check):
    """Any numbers under any settings."""
    shape = data.draw(checks.shapes(2, max_side=4))
    arrays = data.draw(checks.arrays(dtype, shape, shape))
    factor, feed_repeat = checks.numbers(dtype), checks.feed_repeats()
    check(*arrays, **data.draw(checks.settings(dtype, factor=factor, feed_repeat=feed_repeat)))


# ---- Long feeds --------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("feed_repeat", "passes"),
    [
        (16777216.0, 16777216),
        (16777218.0, 16777218),
        (16777220.0, 16777219),  # as a float, 16777219 is 16777220
        (2.0**31 - 128, 2**31 - 191),  # 2^31 - 192 lies half way and rounds down to even
        (2.0**31, 2**31 - 64),
    ],
)
def test_huge_integer_repeats_are_counted_as_floats(feed_repeat, passes):
    """The count is compared as a float; integers in range get there without the loop."""
    start = time.process_time()
    assert one(0, 1, feed_repeat=feed_repeat) == passes
    assert one(0, 1, feed_repeat=feed_repeat, accumulator_size=24) == (
        (passes + 2**23) % 2**24 - 2**23
    )
    assert one(3, -1, feed_repeat=feed_repeat, accumulator_size=8) == (
        (3 - passes + 128) % 256 - 128
    )
    assert one(100000, 0, feed_repeat=feed_repeat, accumulator_size=31) == 100000
    assert time.process_time() - start < 30, "a huge repeat must not be looped over"


def test_huge_integer_repeats_from_outside_the_range():
    """A value that starts outside comes back by one wrap each pass, then the rest is known."""
    # 1000 at 8 bits: -256 each pass, 744, 488, 232, -24; from there nothing is added.
    assert one(1000, 0, feed_repeat=2.0**31, accumulator_size=8) == -24
    assert one(1000, 0, feed_repeat=2.0, accumulator_size=8) == 488


@pytest.mark.parametrize("accumulator_size", [8, 24, 32])
def test_long_integer_repeats_match_the_loop(accumulator_size, check):
    """Hundreds of passes over boundary values, against the loop itself."""
    value, elementwise = support.boundary_pairs(np.int32)
    check(value, elementwise, feed_repeat=257.0, accumulator_size=accumulator_size)


# ---- Ranks -------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize(
    "shape", [(2, 3, 4), (2, 3, 2, 3, 2), (5, 7, 64), (1, 1, 4096), (0, 3, 2), (2, 3, 1, 1, 1)]
)
def test_other_ranks_compute_the_first_two_dimensions(dtype, shape, reference, assert_bits):
    """Of a rank of 3 or 5 the first d0 x d1 elements are computed, the rest is zero-filled."""
    rng = np.random.default_rng(3)
    value = support.random_values(rng, dtype, shape)
    elementwise = support.random_values(rng, dtype, shape)
    count = shape[0] * shape[1]
    expected, _ = reference.add(value, elementwise, count=count, accumulator_size=16)
    for operand in (elementwise, elementwise.reshape(-1)[:count], elementwise.reshape(-1)):
        checks.leave_dirty_memory(shape, dtype)
        actual = raw.add(value, operand, accumulator_size=16)
        assert_bits(actual, expected, value=value)
    assert not actual.numpy().reshape(-1)[count:].any()


def test_wrapped_element_count_writes_nothing():
    """Dimensions whose product is negative in 32 bits count no element."""
    value = tf.zeros([46341, 46341, 0, 1, 1], tf.int32)
    result = raw.add(value, np.zeros([0], np.int32))
    assert result.shape == value.shape


def test_elementwise_may_have_another_shape(assert_bits):
    """Elements pair up in flat order; what elementwise has more is not read."""
    value = np.arange(6, dtype=np.int32).reshape(2, 3)
    elementwise = np.arange(10, 90, 10, dtype=np.int32).reshape(4, 2)
    expected = np.array([[10, 21, 32], [43, 54, 65]], np.int32)
    assert_bits(raw.add(value, elementwise), expected)


def test_scalars_read_element_0(assert_bits):
    """Factor, feed repeat and shift may be of any shape; the first element counts."""
    result = raw.raw_ops.h_add(
        np.array([[1]], np.int32),
        np.array([[6]], np.int32),
        np.array([[2, 9]], np.int32),
        np.array([2.0, 100.0], np.float32),
        np.array(1, np.int8),
        accumulator_size=32,
    )
    assert_bits(result, np.array([[13]], np.int32))


@pytest.mark.parametrize("shape", checks.KEPT_SHAPES)
def test_the_rule_keeps_the_shape(shape):
    """The op has the shape of its first input, as far as that is known."""
    assert checks.inferred(raw.add, shape, [7]) == shape


# ---- Refusals ----------------------------------------------------------------------------------

_OF_VALUE = "the product of the dimensions of value that are computed"


def _call(value=(1, 1), elementwise=(1, 1), factor=(1,), feed_repeat=(1,), mult_shift=(1,)):
    """HAdd on ones of the given shapes, which may be tensors instead."""
    return raw.raw_ops.h_add(
        checks.ones(value, np.int32),
        checks.ones(elementwise, np.int32),
        checks.ones(factor, np.int32),
        checks.ones(feed_repeat, np.float32),
        checks.ones(mult_shift, np.int8),
        accumulator_size=16,
    )


@pytest.mark.parametrize(
    ("inputs", "text"),
    [
        ({"value": ()}, "Need value of rank 2 or above, got rank 0"),
        ({"value": (5,)}, "Need value of rank 2 or above, got rank 1"),
        ({"value": (2, 3, 0, 1, 1)}, checks.too_small("value", 6, _OF_VALUE, (2, 3, 0, 1, 1))),
        ({"value": (1, 1, 0)}, checks.too_small("value", 1, _OF_VALUE, (1, 1, 0))),
        (
            {"value": (2, 3), "elementwise": (5,)},
            checks.too_small("elementwise", 6, _OF_VALUE, (5,)),
        ),
        (
            {"value": (2, 3, 4), "elementwise": (5,)},
            checks.too_small("elementwise", 6, _OF_VALUE, (5,)),
        ),
        (
            {"value": (2, 1, 3, 2), "elementwise": (1, 11)},
            f"Need elementwise to hold at least 12 elements ({_OF_VALUE}), got 11 in shape [1,11]",
        ),
        ({"factor": (0,)}, checks.empty_scalar("elementwise_factor")),
        ({"feed_repeat": (2, 0)}, checks.empty_scalar("elementwise_feed_repeat", (2, 0))),
        ({"mult_shift": (0,)}, checks.empty_scalar("mult_shift")),
        # Also where nothing would be computed.
        ({"value": (0, 2), "mult_shift": (0,)}, checks.empty_scalar("mult_shift")),
    ],
    ids=checks.case_name,
)
def test_small_inputs_are_refused(inputs, text):
    """Each input must hold what is read of it; the error names it, what it needs and has."""
    with checks.refused(text):
        _call(**inputs)


@pytest.mark.parametrize("shape", [(2**31, 0), (0, 2**31), (1, 2**31, 0, 1), (2, 0, 2**32 + 1)])
def test_dimensions_beyond_32_bits_are_refused(shape):
    """Dimensions are 32-bit; one that is not must not be cut to fit, elements or none."""
    with checks.refused(checks.too_long("value", shape)):
        _call(value=checks.empty(shape))


@pytest.mark.parametrize(("feed_repeat", "got"), checks.ENDLESS_REPEATS)
@pytest.mark.parametrize("shape", [(1, 1), (1, 1, 1, 1), (2, 3, 4), (0, 2)])
def test_endless_feed_repeats_are_refused(feed_repeat, got, shape):
    """NaN, +infinity and what a 32-bit count never reaches; before anything is computed."""
    with checks.refused(checks.endless("elementwise_feed_repeat", got)):
        _call(value=shape, elementwise=shape, feed_repeat=tf.constant([feed_repeat, 1.0]))


@pytest.mark.parametrize(("dtype", "width", "text"), checks.WIDTHS_REFUSED)
def test_widths_are_refused_at_construction(dtype, width, text):
    """Negative widths, and for integers those above 32."""
    with checks.refused(text):
        one(1, 1, dtype, accumulator_size=width)
    # Before the inputs are looked at.
    with checks.refused(text):
        raw.add(np.zeros([], dtype), np.zeros([], dtype), accumulator_size=width)


def test_float_widths_have_no_upper_bound():
    """A float accumulator of 2^31 - 1 bits never wraps."""
    assert one(1e30, 1e30, np.float32, accumulator_size=2**31 - 1) == np.float32(2e30)


def test_in_a_graph(assert_bits):
    """The same values and refusals inside a function, whose shapes are inferred."""

    @tf.function(input_signature=[tf.TensorSpec(None, tf.int32)] * 2)
    def add(value, elementwise):
        return raw.add(value, elementwise, accumulator_size=8)

    ones = np.ones([2, 3], np.int32)
    assert_bits(add(100 * ones, 50 * ones), -106 * ones)
    with checks.refused("Need value of rank 2 or above"):
        add(ones[0], ones[0])
