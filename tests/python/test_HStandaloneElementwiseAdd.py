# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HStandaloneElementwiseAdd through the runtime: bits, printed lines, ranks, refusals."""

from __future__ import annotations

import itertools

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
    "HStandaloneElementwiseAdd": registration.accumulation(
        ["value", "elementwise", "weights"],
        registration.kernels("HStandaloneElementwiseAddOp", "CPU", "GPU"),
    )
}
WRAPPERS = {
    "weighted_add": stated.Wrapper(
        [(2, 3, 3, 2), (2, 3, 3, 2), (4,)],
        {"accumulator_size": 7, "mult_shift": 1},
        raw.weighted_add,
    ),
}


@pytest.fixture(scope="session")
def check(reference):
    """Run HStandaloneElementwiseAdd and the oracle on the same data; compare bits and lines."""

    def run(value, elementwise, weights, **arguments):
        inputs = {"value": value, "elementwise": elementwise, "weights": weights}
        checks.compare(raw.weighted_add, reference.weighted_add, inputs, **arguments)

    return run


def one(a, b, dtype=np.int32, **arguments):
    """Return the result for a single element, both weights 1."""
    operands = np.array([[a]], dtype), np.array([[b]], dtype), np.ones([2, 1], dtype)
    return raw.weighted_add(*operands, **arguments).numpy().item()


# ---- Worked values -----------------------------------------------------------------------------


def test_weights_per_channel(assert_bits):
    """The first row weighs value, the second elementwise."""
    value = np.array([[1, 2, 3], [4, 5, 6]], np.int32)
    elementwise = np.array([[10, 20, 30], [40, 50, 60]], np.int32)
    weights = np.array([[1, 2, 3], [-1, 0, 1]], np.int32)
    expected = np.array([[-9, 4, 39], [-36, 10, 78]], np.int32)
    for dtype in TYPES:
        operands = [x.astype(dtype) for x in (value, elementwise, weights)]
        assert_bits(raw.weighted_add(*operands), expected.astype(dtype))
        flat = [*operands[:2], operands[2].ravel()]
        assert_bits(raw.weighted_add(*flat), expected.astype(dtype))


def test_no_shift_leaves_products_alone():
    """A shift of 0 rounds nothing."""
    assert one(0.3, 0.5, np.float32) == np.float32(0.3) + np.float32(0.5)
    assert one(-7, 4) == -3


@pytest.mark.parametrize(("a", "b", "result"), [(100, 28, -128), (300, 100, 144), (-100, -29, 127)])
def test_one_fold(a, b, result):
    """128 gives -128; 400 - 256 = 144 stays outside 8 bits."""
    assert one(a, b, accumulator_size=8) == result
    assert one(a, b, np.float32, accumulator_size=8) == result


@pytest.mark.parametrize(("product", "scaled"), [(3, 2), (1, 0), (-3, -2), (5, 2)])
def test_integer_shift_rounds_half_to_even(product, scaled):
    """Both products are shifted, halves to even."""
    assert one(product, 0, mult_shift=1) == scaled
    assert one(0, product, mult_shift=1) == scaled
    assert one(product, product, mult_shift=1) == 2 * scaled


def test_float_shift_divides_by_its_value():
    """5 / 2 = 2.5 goes to even 2; 75 / 30 = 2.5 too, where a reciprocal would give 3."""
    assert one(5.0, 0.0, np.float32, mult_shift=2) == 2.0
    assert one(0.0, 5.0, np.float32, mult_shift=2) == 2.0
    assert one(75.0, 75.0, np.float32, mult_shift=30) == 4.0


@pytest.mark.parametrize(
    ("a", "b", "line"),
    [
        (8388600.0, 7.0, support.warning("8388607.000000")),
        (8388600.0, 6.0, ""),
        (-8388600.0, -7.0, ""),
        (-8388600.0, -8.0, support.warning("-8388608.000000")),
        (np.inf, -np.inf, support.warning("nan")),
    ],
)
@pytest.mark.parametrize("use_fp16_acc", [False, True])
def test_out_of_bounds_sums_are_reported(a, b, line, use_fp16_acc, printed, assert_lines):
    """The upper bound is reported, the lower one is not; both modes print."""
    with printed() as text:
        one(a, b, np.float32, use_fp16_acc=use_fp16_acc)
    assert_lines(text.out, line)


@pytest.mark.parametrize(
    ("a", "b", "result"),
    [
        (0.0, 40000.0, -20000.0),
        (0.0, 0.3, 307 * 2.0**-10),
        # In steps of 2^-10: 1/2 + 1 = 3/2 to even 2, where a quantised first would give 1.
        (2.0**-11, 2.0**-10, 2.0**-9),
        (2.0**-10, 2.0**-11, 2.0**-10),
        (100.0, 50.0, 150.0),  # nothing wraps
    ],
)
def test_half_precision_quantises_the_second_product(a, b, result):
    """The second product is quantised, then the sum; the first enters as it is."""
    assert one(a, b, np.float32, use_fp16_acc=True, accumulator_size=8) == result


def test_integers_ignore_half_precision(printed):
    """Integers know no half precision here, not even of the first product, and print nothing."""
    with printed() as text:
        assert one(40000, 4097, use_fp16_acc=True) == 44097
        assert one(2**31 - 1, 2**31 - 1) == -2
    assert (text.out, text.err) == ("", "")


# ---- Against the oracle ------------------------------------------------------------------------

WEIGHTS = {
    np.int32: (1, -1, 0, 3, 65536, -(2**31), 2**31 - 1),
    np.float32: (1.0, -1.0, -0.0, 0.1, 2.0**-140, 3e38, np.inf, np.nan),
}


@pytest.mark.parametrize(
    ("dtype", "accumulator_size"), [(t, w) for t in TYPES for w in support.WIDTHS[t]]
)
def test_boundaries(dtype, accumulator_size, check):
    """Every boundary value against every other, under every shift, mode and pair of weights."""
    value, elementwise = support.boundary_pairs(dtype)
    pairs = itertools.cycle(itertools.permutations(WEIGHTS[dtype], 2))
    channels = value.shape[1]
    for mult_shift, use_fp16_acc in itertools.product(support.SHIFTS, (False, True)):
        weights = [[1] * channels] * 2, [next(pairs) for _ in range(channels)]
        for table in (np.array(weights[0], dtype), np.array(weights[1], dtype).T):
            check(
                value,
                elementwise,
                table,
                mult_shift=mult_shift,
                accumulator_size=accumulator_size,
                use_fp16_acc=use_fp16_acc,
            )


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("shape", checks.SHAPES, ids=str)
def test_random(dtype, shape, check):
    """Random data of every magnitude, random settings, weights to spare."""
    rng = np.random.default_rng([31, *shape])
    for _ in range(20):
        check(
            support.random_values(rng, dtype, shape),
            support.random_values(rng, dtype, shape),
            support.random_values(rng, dtype, (2 * shape[-1] + int(rng.integers(3)),)),
            **checks.random_settings(rng, dtype),
        )


@pytest.mark.parametrize("dtype", TYPES)
@hypothesis.given(data=st.data())
def test_property(dtype, data, check):
    """Any numbers under any settings."""
    shape = data.draw(checks.shapes(2, 4))
    arrays = data.draw(checks.arrays(dtype, shape, shape, (2, shape[-1])))
    check(*arrays, **data.draw(checks.settings(dtype)))


# ---- Ranks -------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
def test_rank_2_is_rank_4(dtype, assert_bits):
    """[rows, C] gives what [rows, 1, 1, C] gives."""
    rng = np.random.default_rng(5)
    value, elementwise = (support.random_values(rng, dtype, (6, 5)) for _ in range(2))
    weights = support.random_values(rng, dtype, (2, 5))
    flat = raw.weighted_add(value, elementwise, weights, accumulator_size=16).numpy()
    for shape in ((6, 1, 1, 5), (1, 2, 3, 5)):
        image = raw.weighted_add(
            value.reshape(shape), elementwise.reshape(shape), weights, accumulator_size=16
        )
        assert_bits(image, flat.reshape(shape))


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize(
    "shape", [(2, 3, 4), (2, 3, 2, 3, 2), (5, 7, 64), (1, 1, 4096), (0, 3, 2), (2, 3, 1, 1, 1)]
)
def test_other_ranks_compute_the_first_two_dimensions(dtype, shape, check):
    """Of a rank of 3 or 5 the first d0 x d1 elements are computed, with d1 channels."""
    rng = np.random.default_rng(3)
    value, elementwise = (support.random_values(rng, dtype, shape) for _ in range(2))
    weights = support.random_values(rng, dtype, (2, shape[1]))
    for operand in (elementwise, elementwise.reshape(-1)[: shape[0] * shape[1]]):
        checks.leave_dirty_memory(shape, dtype)
        check(value, operand, weights, accumulator_size=16)


def test_wrapped_element_count_writes_nothing():
    """Dimensions whose product is negative in 32 bits count no element, but need weights."""
    value = tf.zeros([46341, 46341, 0, 1, 1], tf.int32)
    result = raw.weighted_add(value, np.zeros([0], np.int32), np.zeros([2, 46341], np.int32))
    assert result.shape == value.shape


def test_elementwise_may_have_another_shape(assert_bits):
    """Elements pair up in flat order; what elementwise has more is not read."""
    value = np.arange(6, dtype=np.int32).reshape(2, 3)
    elementwise = np.arange(10, 90, 10, dtype=np.int32).reshape(4, 2)
    result = raw.weighted_add(value, elementwise, np.ones([2, 3], np.int32))
    assert_bits(result, np.array([[10, 21, 32], [43, 54, 65]], np.int32))


def test_shift_reads_element_0(assert_bits):
    """The shift may be of any shape; the first element counts."""
    one = np.ones([1, 1], np.int32)
    for shift in (np.array(1, np.int8), np.array([[1, 7]], np.int8)):
        result = raw.raw_ops.h_standalone_elementwise_add(
            6 * one, 2 * one, np.ones([2], np.int32), shift, accumulator_size=32
        )
        assert_bits(result, 4 * one)


@pytest.mark.parametrize("shape", checks.KEPT_SHAPES)
def test_the_rule_keeps_the_shape(shape):
    """The op has the shape of its first input, as far as that is known."""
    assert checks.inferred(raw.weighted_add, shape, [7], [7]) == shape


# ---- Refusals ----------------------------------------------------------------------------------

_OF_VALUE = "the product of the dimensions of value that are computed"
_CHANNELS = "one for each channel of value, then of elementwise"


def _call(value=(1, 1), elementwise=(1, 1), weights=(2, 1), mult_shift=(1,)):
    """HStandaloneElementwiseAdd on ones of the given shapes, which may be tensors instead."""
    return raw.raw_ops.h_standalone_elementwise_add(
        checks.ones(value, np.int32),
        checks.ones(elementwise, np.int32),
        checks.ones(weights, np.int32),
        checks.ones(mult_shift, np.int8),
        accumulator_size=16,
    )


@pytest.mark.parametrize(
    ("inputs", "text"),
    [
        ({"value": ()}, "Need value of rank 2 or above, got rank 0"),
        ({"value": (5,)}, "Need value of rank 2 or above, got rank 1"),
        ({"value": (2, 3, 0, 1, 1)}, checks.too_small("value", 6, _OF_VALUE, (2, 3, 0, 1, 1))),
        (
            {"value": (2, 3), "elementwise": (5,)},
            checks.too_small("elementwise", 6, _OF_VALUE, (5,)),
        ),
        (
            {"value": (2, 3), "elementwise": (2, 3), "weights": (5,)},
            "Need weights to hold at least 6 elements (one for each channel of value, then of "
            "elementwise), got 5 in shape [5]",
        ),
        (
            {"value": (1, 1, 1, 2), "elementwise": (2,), "weights": (3, 1)},
            checks.too_small("weights", 4, _CHANNELS, (3, 1)),
        ),
        # Of rank 3 the second dimension counts the channels.
        (
            {"value": (1, 3, 1), "elementwise": (3,), "weights": (2,)},
            checks.too_small("weights", 6, _CHANNELS, (2,)),
        ),
        ({"value": (0, 1), "weights": (1,)}, checks.too_small("weights", 2, _CHANNELS, (1,))),
        ({"mult_shift": (0,)}, checks.empty_scalar("mult_shift")),
        ({"value": (0, 1), "mult_shift": (0, 2)}, checks.empty_scalar("mult_shift", (0, 2))),
    ],
    ids=checks.case_name,
)
def test_small_inputs_are_refused(inputs, text):
    """Each input must hold what is read of it; the error names it, what it needs and has."""
    with checks.refused(text):
        _call(**inputs)


def test_no_channels_need_no_weights(assert_bits):
    """Without channels nothing is computed and nothing needed."""
    result = _call(value=(2, 0), elementwise=(0,), weights=(0,))
    assert_bits(result, np.zeros([2, 0], np.int32))


@pytest.mark.parametrize("shape", [(2**31, 0), (0, 2**31), (1, 2**31, 0, 1), (2, 0, 2**32 + 1)])
def test_dimensions_beyond_32_bits_are_refused(shape):
    """Dimensions are 32-bit; one that is not must not be cut to fit, elements or none."""
    with checks.refused(checks.too_long("value", shape)):
        _call(value=checks.empty(shape))


@pytest.mark.parametrize(("dtype", "width", "text"), checks.WIDTHS_REFUSED)
def test_widths_are_refused_at_construction(dtype, width, text):
    """Negative widths, and for integers those above 32, whatever the inputs."""
    for shape in ((1, 1), ()):
        operand = np.ones(shape, dtype)
        with checks.refused(text):
            raw.weighted_add(operand, operand, np.ones([2], dtype), accumulator_size=width)


def test_in_a_graph(assert_bits):
    """The same values and refusals inside a function, whose shapes are unknown."""

    @tf.function(input_signature=[tf.TensorSpec(None, tf.int32)] * 3)
    def add(value, elementwise, weights):
        return raw.weighted_add(value, elementwise, weights, accumulator_size=8)

    ones = np.ones([2, 3], np.int32)
    assert_bits(add(100 * ones, 50 * ones, ones), -106 * ones)
    with checks.refused("Need value of rank 2 or above"):
        add(ones[0], ones[0], ones)
