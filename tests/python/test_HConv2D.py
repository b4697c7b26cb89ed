# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HConv2d, HConv2dDilation and HDepthWise through the runtime: bits, lines, refusals."""

from __future__ import annotations

import functools
import re

import checks
import hypothesis
import hypothesis.extra.numpy
import hypothesis.strategies as st
import numpy as np
import pytest
import raw
import registration
import stated
import support
import tensorflow as tf

TYPES = (np.int32, np.float32)
OPS = ("h_conv2d", "h_conv2d_dilation", "h_depth_wise")
InvalidArgument = tf.errors.InvalidArgumentError


def _registration(is_depthwise, *devices):
    return registration.Registration(
        inputs=["input: T", "filter: T", "elementwise: T", "mult_shift: int8"],
        attributes=[
            registration.ELEMENT_TYPE,
            "strides: list(int)",
            "dilations: list(int)",
            "use_cudnn_on_gpu: bool = true",
            'padding: {"SAME", "VALID"}',
            registration.DATA_FORMAT,
            "accumulator_size: int",
            "use_fp16_acc: bool = false",
            f"is_depthwise: bool = {is_depthwise}",
        ],
        kernels=registration.kernels("HConv2dOp", *devices),
    )


REGISTRATION = {
    "HDepthWise": _registration("true", "CPU"),
    "HConv2d": _registration("false", "CPU", "GPU"),
    "HConv2dDilation": _registration("false", "CPU"),
}
WRAPPERS = {
    "conv2d": stated.Wrapper(
        [(2, 5, 4, 2), (3, 3, 2, 4)],
        {"strides": (2, 1), "padding": "VALID", "accumulator_size": 9, "mult_shift": 1},
        raw.convolve,
    ),
    "dilated_conv2d": stated.Wrapper(
        [(2, 5, 4, 2), (3, 3, 2, 4)],
        {"dilations": (2, 1), "accumulator_size": 9, "mult_shift": 2},
        functools.partial(raw.convolve, op="h_conv2d_dilation"),
    ),
    "depthwise_conv2d": stated.Wrapper(
        [(2, 5, 4, 2), (3, 3, 1, 2)],
        {"strides": (2, 1), "padding": "VALID", "accumulator_size": 9, "mult_shift": 1},
        functools.partial(raw.convolve, op="h_depth_wise"),
    ),
}


@pytest.fixture(scope="session")
def check(reference, printed, assert_bits, assert_lines):
    """Run an op and the oracle on the same data and compare bits and printed lines.

    Where an output would have a negative size, checks that the op says so instead.
    """

    def run(input, filter, elementwise=None, *, op="h_conv2d", is_depthwise=None, **arguments):
        depthwise = op == "h_depth_wise" if is_depthwise is None else is_depthwise
        inputs = {"op": op, "depthwise": depthwise, "input": input, "filter": filter, **arguments}
        leading = filter.ndim - 4
        for axis, name in ((0, "height"), (1, "width")):
            sizes = (
                input.shape[axis + 1],
                filter.shape[axis + leading],
                arguments.get("strides", (1, 1))[axis],
                arguments.get("dilations", (1, 1))[axis],
            )
            padding = arguments.get("padding", "SAME")
            outputs = reference.output_size(*sizes, padding)
            if outputs < 0:
                text = (
                    f"Need an output {name} of at least 0, got {outputs} from an input of "
                    f"{sizes[0]}, a filter of {sizes[1]}, a stride of {sizes[2]}, a dilation of "
                    f"{sizes[3]} and {padding} padding"
                )
                with pytest.raises(InvalidArgument, match=re.escape(text)):
                    raw.convolve(input, filter, elementwise, op=op, **arguments)
                return None
        with printed() as text:
            actual = raw.convolve(
                input, filter, elementwise, op=op, is_depthwise=is_depthwise, **arguments
            ).numpy()
        expected, lines = reference.convolve(
            input, filter, elementwise, is_depthwise=depthwise, **arguments
        )
        assert_bits(actual, expected, **inputs)
        assert_lines(text.out, lines, ordered=input.shape[0] < 2, **inputs)
        return actual

    return run


def image(values, dtype=np.int32):
    """Return one image of one channel whose rows are `values`, or [rows, columns, channels]."""
    array = np.asarray(values, dtype)
    return array.reshape(1, *array.shape, *[1] * (3 - array.ndim))


def dot(values, weights, dtype=np.int32, **arguments):
    """Return the single output of a 1x1 filter over channels: values . weights."""
    result = raw.convolve(
        np.asarray(values, dtype).reshape(1, 1, 1, -1),
        np.asarray(weights, dtype).reshape(1, 1, -1, 1),
        **arguments,
    )
    return result.numpy().item()


# ---- Worked values: the accumulator ------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
def test_sum_wraps_into_the_width(dtype):
    """At 8 bits 130 is -126, and -130 is 126."""
    assert dot([100, 30], [1, 1], dtype, accumulator_size=8) == -126
    assert dot([100, 30], [-1, -1], dtype, accumulator_size=8) == 126
    assert dot([1000], [1], dtype, accumulator_size=8) == 744  # one wrap only


@pytest.mark.parametrize(("product", "added"), [(3, 2), (5, 2), (-3, -2), (-1, 0), (7, 4)])
def test_integer_shift_rounds_half_to_even(product, added):
    """Each product is shifted right by 1, halves to even."""
    assert dot([product], [1], mult_shift=1) == added


def test_float_shift_divides_by_its_value():
    """10 / 4 = 2.5 goes to even 2; each product is rounded on its own."""
    assert dot([10], [1], np.float32, mult_shift=4) == 2.0
    assert dot([10, 10], [1, 1], np.float32, mult_shift=4) == 4.0


def test_products_wrap_at_32_bits():
    """A product is a 32-bit one before it is added."""
    assert dot([65536, 1], [65536, 7]) == 7


@pytest.mark.parametrize(
    ("total", "line"),
    [
        (8388606.0, ""),
        (8388607.0, support.warning("8388607.000000")),
        (-8388607.0, ""),
        (-8388608.0, support.warning("-8388608.000000")),
        (np.inf, support.warning("inf")),
        (np.nan, support.warning("nan")),
    ],
)
def test_out_of_bounds_sums_are_reported(total, line, printed, assert_lines):
    """A line for each float sum outside [-8388607, 8388607)."""
    with printed() as text:
        dot([total], [1], np.float32)
    assert_lines(text.out, line)


def test_integers_print_nothing(printed):
    """Only floats are checked against the warning range."""
    with printed() as text:
        dot([2**31 - 1, 2**31 - 1], [1, 1])
    assert text.out == ""


def test_half_precision_does_not_wrap():
    """The half-precision accumulator has no width; products and sums are quantised."""
    arguments = {"dtype": np.float32, "use_fp16_acc": True, "accumulator_size": 8}
    assert dot([100, 30], [1, 1], **arguments) == 130.0
    assert dot([40000], [1], **arguments) == -20000.0
    assert dot([2.0**-11], [1], **arguments) == 0.0


# ---- Worked values: geometry -------------------------------------------------------------------


@pytest.mark.parametrize(
    ("padding", "size", "window", "stride", "dilation", "outputs"),
    [
        ("VALID", 7, 3, 2, 1, 3),
        ("SAME", 7, 3, 2, 1, 4),
        ("VALID", 5, 3, 1, 2, 1),
        ("VALID", 9, 3, 2, 2, 3),
        ("SAME", 9, 5, 3, 1, 3),
        ("VALID", 4, 5, 3, 1, 1),  # larger than the image: -1 / 3 + 1 truncates to 1
        ("VALID", 4, 5, 1, 1, 0),
        ("SAME", 0, 3, 1, 1, 0),
        ("SAME", 0, 3, 2, 1, 1),  # -1 / 2 + 1: an output from no input
        ("SAME", 2, 3, -1, 1, 0),
        ("VALID", 4, 3, 1, 0, 4),  # at a dilation of 0 every tap reads the same place
    ],
)
@pytest.mark.parametrize("op", OPS)
@pytest.mark.parametrize("axis", [1, 2])
def test_output_sizes(op, axis, padding, size, window, stride, dilation, outputs):
    """Output heights and widths: 32-bit arithmetic, division truncates."""
    rows = [size if axis == a else 3 for a in (1, 2)]
    taps = [window if axis == a else 1 for a in (1, 2)]
    result = raw.convolve(
        np.ones([2, *rows, 1], np.int32),
        np.ones([*taps, 1, 1], np.int32),
        op=op,
        strides=tuple(stride if axis == a else 1 for a in (1, 2)),
        dilations=tuple(dilation if axis == a else 1 for a in (1, 2)),
        padding=padding,
    )
    assert result.shape == tuple([2, *(outputs if axis == a else 3 for a in (1, 2)), 1])


@pytest.mark.parametrize("op", OPS)
@pytest.mark.parametrize(
    ("size", "window", "stride", "seen"),
    [
        (5, 3, 1, [0, 1, 2, 3, 4]),
        (6, 3, 2, [1, 3, 5]),
        (9, 5, 3, [0, 3, 6]),  # an even total padding and an odd window: from the first pixel
        (9, 3, 2, [0, 2, 4, 6, 8]),
        (7, 1, 3, [0, 3, 6]),
    ],
)
def test_same_windows_start(op, size, window, stride, seen):
    """Where SAME places the centre of each window: a filter that sees its centre alone."""
    centre = np.zeros([window, 1, 1, 1], np.int32)
    centre[window // 2] = 1
    for axes in ((0, 1, 2, 3), (0, 2, 1, 3)):
        result = raw.convolve(
            image(np.arange(size)).transpose(axes),
            centre if axes[1] == 1 else centre.transpose(1, 0, 2, 3),
            op=op,
            strides=(stride, 1) if axes[1] == 1 else (1, stride),
        )
        assert result.numpy().ravel().tolist() == seen


def test_taps_run_by_rows_then_channels_then_columns(printed):
    """The order of the additions, read from the sums that are reported."""
    large = 2.0**24
    # Rows, columns, channels of the image; every product is the value itself.
    values = np.array([[[1, 2], [4, 8]], [[16, 32], [64, 128]]], np.float32)
    with printed() as text:
        raw.convolve(
            (values * large)[np.newaxis],
            np.ones([2, 2, 2, 1], np.float32),
            padding="VALID",
            accumulator_size=128,
        )
    order = [1, 4, 2, 8, 16, 64, 32, 128]
    sums = np.cumsum(order) * large
    assert text.out == "".join(support.warning(f"{s:f}") for s in sums)


# ---- Worked values: elementwise ----------------------------------------------------------------


@pytest.mark.parametrize("op", OPS)
def test_elementwise_enters_after_the_centre_row(op):
    """Float addition tells the order: after the rows above and the centre, before those below."""
    large = 2.0**24
    arguments = {"op": op, "padding": "VALID", "accumulator_size": 60}
    ones = np.ones([3, 1, 1, 1], np.float32)

    def total(rows, elementwise):
        value = np.full([1, 1, 1, 1], elementwise, np.float32)
        return raw.convolve(image(rows, np.float32), ones, value, **arguments).numpy().item()

    assert total([large, 0, -large], 1) == 0.0  # lost in 2^24; at the end it would be 1
    assert total([-large, large, 0], 0.5) == 0.5  # at the start it would be lost
    assert total([0, -large, large], 0.5) == 0.0  # before the row below


def test_elementwise_is_not_scaled():
    """The shift scales products only; the width holds for both."""
    assert dot([5], [1], elementwise=np.full([1], 7, np.int32), mult_shift=1) == 9
    assert dot([100], [1], elementwise=np.full([1], 30, np.int32), accumulator_size=8) == -126


@pytest.mark.parametrize("dtype", TYPES)
def test_elementwise_of_another_count_is_ignored(dtype, assert_bits):
    """Whatever its shape, an operand that does not match the output's count is left out."""
    pixels = image([[1, 2], [3, 4]], dtype)
    ones = np.ones([1, 1, 1, 1], dtype)
    for shape in ([0], [], [3], [5], [2, 2, 2], [1, 1, 1, 1]):
        assert_bits(raw.convolve(pixels, ones, np.full(shape, 9, dtype)), pixels)
    for shape in ([4], [2, 2], [1, 4, 1, 1, 1]):
        assert_bits(raw.convolve(pixels, ones, np.full(shape, 9, dtype)), pixels + dtype(9))


@pytest.mark.parametrize("op", OPS)
def test_elementwise_needs_a_centre_row(op, assert_bits):
    """An even filter height at a dilation above 1 has no centre row: elementwise has no effect."""
    pixels = image(np.arange(12).reshape(4, 3))
    nines = np.full([1, 4, 3, 1], 9, np.int32)
    for window, dilation, effect in ((2, 2, 0), (4, 3, 0), (2, 1, 9), (4, 1, 9), (3, 2, 9)):
        zeros = np.zeros([window, 1, 1, 1], np.int32)
        result = raw.convolve(pixels, zeros, nines, op=op, dilations=(dilation, 1))
        assert_bits(result, np.full([1, 4, 3, 1], effect, np.int32))


def test_elementwise_enters_even_where_the_centre_row_is_outside():
    """One output from a window larger than the image: the centre row lies below it."""
    result = raw.convolve(
        image([1, 2]),
        np.ones([5, 1, 1, 1], np.int32),
        np.full([1], 100, np.int32),
        strides=(4, 1),
        padding="VALID",
    )
    assert result.numpy().ravel().tolist() == [103]


# ---- Worked values: depthwise ------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
def test_depthwise_weights_are_corrected(dtype, printed):
    """At 16 bits a weight of 200 is -56, and a red line says so once for the image."""
    weights = np.array([200, 127, -300, 128], dtype).reshape(1, 1, 1, 4)
    with printed() as text:
        result = raw.convolve(
            np.ones([1, 2, 3, 4], dtype), weights, op="h_depth_wise", accumulator_size=16
        )
    assert result.numpy()[0, 0, 0].tolist() == [-56, 127, -300, -128]
    assert text.out == support.RED_LINE


def test_ordinary_weights_are_not_corrected(printed):
    """The correction belongs to depthwise alone, which is an attribute."""
    with printed() as text:
        assert dot([1], [200], accumulator_size=16) == 200
        assert dot([1], [200], accumulator_size=16, op="h_depth_wise", is_depthwise=False) == 200
    assert text.out == ""
    with printed() as text:
        assert dot([1], [200], accumulator_size=16, is_depthwise=True) == -56
    assert text.out == support.RED_LINE


def test_weights_that_are_not_read_are_not_reported(printed):
    """Taps outside the image print nothing."""
    weights = np.array([200, 1, 200], np.int32).reshape(3, 1, 1, 1)
    with printed() as text:
        raw.convolve(image([5]), weights, op="h_depth_wise", accumulator_size=16)
    assert text.out == ""


def test_depthwise_takes_fewer_output_channels(assert_bits):
    """Output channel i reads input channel i; the further ones are left out."""
    pixels = np.array([1, 2, 3], np.int32).reshape(1, 1, 1, 3)
    weights = np.array([10, 20], np.int32).reshape(1, 1, 1, 2)
    result = raw.convolve(pixels, weights, op="h_depth_wise")
    assert_bits(result, np.array([10, 40], np.int32).reshape(1, 1, 1, 2))


def test_depthwise_filter_for_each_image(printed, assert_bits):
    """A fifth dimension gives each image its own filter; each that needs it is reported."""
    pixels = np.ones([4, 1, 1, 1], np.int32)
    weights = np.array([1, 200, 3, 130, 255], np.int32).reshape(5, 1, 1, 1, 1)
    with printed() as text:
        result = raw.convolve(pixels, weights, op="h_depth_wise", accumulator_size=16)
    assert_bits(result, np.array([1, -56, 3, -126], np.int32).reshape(4, 1, 1, 1))
    assert text.out == 2 * support.RED_LINE


@pytest.mark.parametrize("op", ["h_conv2d", "h_conv2d_dilation"])
def test_ordinary_convolution_takes_the_first_filter(op, assert_bits):
    """A fifth dimension is accepted and its first filter used for every image."""
    pixels = np.ones([3, 1, 1, 1], np.int32)
    weights = np.array([7, 8], np.int32).reshape(2, 1, 1, 1, 1)
    assert_bits(raw.convolve(pixels, weights, op=op), 7 * pixels)


def test_filter_with_more_input_channels_is_read_in_part(assert_bits):
    """The image's channels count: of the filter's flat data the first is read."""
    pixels = np.array([1, 10], np.int32).reshape(1, 1, 1, 2)
    weights = np.array([1, 2, 3, 4, 5, 6], np.int32).reshape(1, 1, 3, 2)
    result = raw.convolve(pixels, weights)
    assert_bits(result, np.array([31, 42], np.int32).reshape(1, 1, 1, 2))


# ---- Batches -----------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("batch", [0, 1, 2, 19, 20, 21, 40, 45])
def test_batches(dtype, batch, check):
    """Images in groups of 20; every other one has a filter that needs the red line."""
    rng = np.random.default_rng(batch)
    pixels = support.small_values(rng, dtype, (batch, 4, 3, 2))
    weights = support.small_values(rng, dtype, (batch, 3, 2, 1, 2))
    weights[::2, 1, 0, 0, 0] = 100
    elementwise = support.small_values(rng, dtype, (batch, 4, 3, 2))
    check(pixels, weights, elementwise, op="h_depth_wise", accumulator_size=14)
    check(pixels, support.small_values(rng, dtype, (3, 3, 2, 2)), elementwise, accumulator_size=9)


def test_red_lines_are_whole(printed):
    """One line for each of 45 images, none mixed with another."""
    with printed() as text:
        raw.convolve(
            np.ones([45, 3, 3, 1], np.float32),
            np.full([3, 3, 1, 1], 200, np.float32),
            op="h_depth_wise",
            accumulator_size=16,
        )
    assert text.out == 45 * support.RED_LINE


# ---- Against the oracle ------------------------------------------------------------------------


def elementwise_for(rng, reference, input, filter, make, **arguments):
    """Return None, an operand of the output's count, or one of another count."""
    leading = filter.ndim - 4
    count = input.shape[0] * filter.shape[-1]
    for axis in (0, 1):
        count *= reference.output_size(
            input.shape[axis + 1],
            filter.shape[axis + leading],
            arguments.get("strides", (1, 1))[axis],
            arguments.get("dilations", (1, 1))[axis],
            arguments.get("padding", "SAME"),
        )
    pick = rng.integers(0, 4)
    if pick == 0 or count < 0:
        return None
    return make(rng, input.dtype.type, (count + (pick == 1),))


@pytest.mark.parametrize("op", OPS)
@pytest.mark.parametrize("padding", ["SAME", "VALID"])
def test_geometry(op, padding, check, reference):
    """Small images, windows, strides and dilations, absurd ones included, drawn at random."""
    rng = np.random.default_rng([len(op), len(padding)])
    computed = 0
    for _ in range(600):
        height, width = rng.integers(0, 8, 2)
        channels, outputs = rng.integers(1, 4, 2)
        rows, columns = rng.choice([0, 1, 2, 3, 3, 4, 5], 2)
        if rng.integers(20) == 0:
            channels = outputs = 0
        if op == "h_depth_wise":
            outputs = min(outputs, channels)
        dtype = TYPES[int(rng.integers(2))]
        leading = [3] if op == "h_depth_wise" and rng.integers(3) == 0 else []
        inputs = 1 if op == "h_depth_wise" else channels
        pixels = support.small_values(rng, dtype, (rng.integers(0, 3), height, width, channels))
        weights = support.small_values(rng, dtype, (*leading, rows, columns, inputs, outputs))
        arguments = {
            "strides": tuple(int(s) for s in rng.choice([1, 1, 1, 2, 2, 3, 7, -1, -2], 2)),
            "dilations": tuple(int(d) for d in rng.choice([1, 1, 1, 2, 2, 3, 0, -1], 2)),
            "padding": padding,
        }
        operand = elementwise_for(
            rng, reference, pixels, weights, support.small_values, **arguments
        )
        result = check(
            pixels,
            weights,
            operand,
            op=op,
            accumulator_size=int(rng.choice([8, 10, 32])),
            **arguments,
        )
        computed += result is not None and result.size > 0
    assert computed > 150, "too few cases computed anything"


@pytest.mark.parametrize("op", OPS)
@pytest.mark.parametrize("dtype", TYPES)
def test_values(op, dtype, check):
    """Values of every magnitude at every width, shift and mode."""
    rng = np.random.default_rng([len(op), np.dtype(dtype).num])
    for accumulator_size in support.WIDTHS[dtype]:
        for mult_shift in support.SHIFTS:
            for use_fp16_acc in (False, True):
                inputs = 1 if op == "h_depth_wise" else 2
                check(
                    support.random_values(rng, dtype, (1, 3, 4, 2)),
                    support.random_values(rng, dtype, (3, 2, inputs, 2)),
                    support.random_values(rng, dtype, (1, 3, 4, 2)),
                    op=op,
                    mult_shift=mult_shift,
                    accumulator_size=accumulator_size,
                    use_fp16_acc=use_fp16_acc,
                )


@pytest.mark.parametrize("op", ["h_conv2d", "h_depth_wise"])
@pytest.mark.parametrize("dtype", TYPES)
def test_boundary_products(op, dtype, check):
    """Every boundary weight on every boundary value, one product an output."""
    value, weight = support.boundary_pairs(dtype)
    one_weight = support.BOUNDARY[dtype]
    for accumulator_size in support.WIDTHS[dtype]:
        for mult_shift in support.SHIFTS:
            arguments = {"op": op, "mult_shift": mult_shift, "accumulator_size": accumulator_size}
            if op == "h_depth_wise":
                pixels = value.reshape(1, 1, 1, -1)
                check(pixels, weight.reshape(1, 1, 1, -1), **arguments)
            else:
                pixels = one_weight.reshape(1, 1, -1, 1)
                check(pixels, one_weight.reshape(1, 1, 1, -1), use_fp16_acc=True, **arguments)


def _arrays(dtype, depthwise):
    elements = st.floats(width=32) if dtype is np.float32 else None
    arrays = hypothesis.extra.numpy.arrays

    def of_sizes(sizes):
        batch, height, width, channels, rows, columns, outputs = sizes
        last = (1, channels) if depthwise else (channels, outputs)
        filter_shape = (rows, columns, *last)
        return st.tuples(
            arrays(dtype, (batch, height, width, channels), elements=elements, fill=st.nothing()),
            arrays(dtype, filter_shape, elements=elements, fill=st.nothing()),
        )

    small = st.integers(1, 3)
    return st.tuples(st.integers(1, 2), small, small, small, small, small, small).flatmap(of_sizes)


def _settings(highest_width):
    return {
        "strides": st.tuples(st.integers(1, 3), st.integers(1, 3)),
        "dilations": st.tuples(st.integers(0, 3), st.integers(0, 3)),
        "padding": st.sampled_from(["SAME", "VALID"]),
        "mult_shift": st.integers(-128, 127),
        "accumulator_size": st.integers(0, highest_width),
        "use_fp16_acc": st.booleans(),
    }


@pytest.mark.parametrize("op", OPS)
@hypothesis.given(data=st.data(), arguments=st.fixed_dictionaries(_settings(32)))
def test_integer_property(op, data, arguments, check):
    """Any integers under any settings."""
    check(*data.draw(_arrays(np.int32, op == "h_depth_wise")), op=op, **arguments)


@pytest.mark.parametrize("op", OPS)
@hypothesis.given(data=st.data(), arguments=st.fixed_dictionaries(_settings(200)))
def test_float_property(op, data, arguments, check):
    """Any floats under any settings."""
    check(*data.draw(_arrays(np.float32, op == "h_depth_wise")), op=op, **arguments)


# ---- The shape function ------------------------------------------------------------------------


@pytest.mark.parametrize("op", OPS[:2])
@pytest.mark.parametrize(
    ("input", "filter", "arguments", "expected"),
    [
        ([2, 7, 9, 3], [3, 3, 3, 5], {}, [2, 7, 9, 5]),
        ([2, 7, 9, 3], [3, 3, 3, 5], {"padding": "VALID"}, [2, 5, 7, 5]),
        ([2, 7, 9, 3], [3, 3, 3, 5], {"padding": "VALID", "strides": (2, 3)}, [2, 3, 3, 5]),
        ([2, 7, 9, 3], [3, 3, 3, 5], {"strides": (2, 2)}, [2, 4, 5, 5]),
        ([2, 7, 9, 3], [3, 3, 3, 5], {"padding": "VALID", "dilations": (2, 1)}, [2, 3, 7, 5]),
        ([None, 7, None, 3], [3, 3, None, 5], {"padding": "VALID"}, [None, 5, None, 5]),
        ([2, 3, 7, 9], [3, 3, 3, 5], {"data_format": "NCHW"}, [2, 5, 7, 9]),
        (None, [3, 3, 3, 5], {}, [None, None, None, 5]),
        ([2, 7, 9, 3], None, {}, [2, 7, 9, None]),
    ],
)
def test_inferred_shapes(op, input, filter, arguments, expected):
    """The ordinary ops have the runtime's rule for a convolution."""
    assert checks.inferred(raw.convolve, input, filter, op=op, **arguments) == expected


@pytest.mark.parametrize("op", OPS[:2])
@pytest.mark.parametrize(
    ("input", "filter", "arguments", "text"),
    [
        ([2, 7, 9, 3], [3, 3, 3, 5], {"strides": (1, 1, 1)}, "stride attribute to contain 4"),
        ([2, 7, 9], [3, 3, 3, 5], {}, "Shape must be rank 4 but is rank 3"),
        ([2, 7, 9, 3], [1, 3, 3, 3, 5], {}, "Shape must be rank 4 but is rank 5"),
    ],
)
def test_shapes_refused_by_the_rule(op, input, filter, arguments, text):
    """The counts and ranks that the runtime's rule refuses."""
    with pytest.raises(ValueError, match=re.escape(text)):
        checks.inferred(raw.convolve, input, filter, op=op, **arguments)


@pytest.mark.parametrize(
    ("input", "filter", "arguments", "expected"),
    [
        ([2, 7, 9, 3], [3, 3, 3, 1], {}, [2, 7, 9, 3]),
        # Inferred: the channels times the filter's last dimension.
        ([2, 7, 9, 3], [3, 3, 3, 2], {}, [2, 7, 9, 6]),
        ([2, 7, 9, 1], [3, 3, 1, 2], {"padding": "VALID"}, [2, 5, 7, 2]),
        ([2, 7, 9, 3], [3, 3, 3, 1], {"strides": (2, 3)}, [2, 4, 3, 3]),
        ([2, 7, 9, 3], [3, 5, 3, 1], {"padding": "VALID", "dilations": (3, 2)}, [2, 1, 1, 3]),
        # With a filter for each image every dimension lies one further on.
        ([2, 7, 9, 3], [2, 3, 5, 3, 4], {"padding": "VALID"}, [2, 5, 5, 12]),
        ([2, 7, 9, 3], [None] * 5, {}, [2, 7, 9, None]),
        # The format tells the places of the input's dimensions and of the strides.
        ([2, 3, 7, 9], [3, 3, 3, 1], {"data_format": "NCHW"}, [2, 3, 7, 9]),
        (
            [2, 3, 7, 9],
            [3, 3, 3, 2],
            {"data_format": "NCHW", "padding": "VALID", "strides": (1, 1, 2, 3)},
            [2, 6, 3, 3],
        ),
        (
            [2, 3, 7, 9],
            [3, 3, 3, 1],
            {"data_format": "NCHW", "padding": "VALID", "dilations": (1, 1, 3, 4)},
            [2, 3, 1, 1],
        ),
        # Partly unknown.
        ([None, 7, 9, 3], [3, 3, 3, 1], {"padding": "VALID"}, [None, 5, 7, 3]),
        ([2, None, 9, 3], [3, 3, 3, 1], {"padding": "VALID"}, [2, None, 7, 3]),
        ([2, 7, 9, None], [3, 3, 3, 1], {}, [2, 7, 9, 3]),
        ([2, 7, 9, 3], [3, 3, None, 2], {}, [2, 7, 9, 6]),
        ([2, 7, 9, 3], [3, 3, 3, None], {}, [2, 7, 9, None]),
        ([2, 7, 9, 3], [None, 3, 3, 1], {"padding": "VALID"}, [2, None, 7, 3]),
        ([2, 7, 9, 3], None, {}, [2, 7, 9, None]),
        (None, [3, 3, 3, 2], {}, [None, None, None, 6]),
        (None, None, {"padding": "VALID"}, [None] * 4),
    ],
)
def test_inferred_shapes_depthwise(input, filter, arguments, expected):
    """The depthwise op has a rule of its own: depth in times the filter's last dimension."""
    assert checks.inferred(raw.convolve, input, filter, op="h_depth_wise", **arguments) == expected


@pytest.mark.parametrize(
    ("input", "filter", "arguments", "text"),
    [
        (
            [2, 7, 9, 3],
            [3, 3, 3, 1],
            {"strides": (1, 1, 1)},
            "DepthwiseConv2D requires the stride attribute to contain 4 values, but got: 3",
        ),
        (
            [2, 7, 9, 3],
            [3, 3, 3, 1],
            {"strides": (1, 1, 1, 1, 1)},
            "DepthwiseConv2D requires the stride attribute to contain 4 values, but got: 5",
        ),
        (
            [2, 7, 9, 3],
            [3, 3, 3, 1],
            {"dilations": (1,)},
            "Conv2D requires the dilation attribute to contain 4 values, but got: 1",
        ),
        # The strides are looked at first.
        (
            [2, 7, 9, 3],
            [3, 3, 3, 1],
            {"strides": (1, 1, 1), "dilations": (1,)},
            "DepthwiseConv2D requires the stride attribute to contain 4 values, but got: 3",
        ),
        ([2, 7, 9], [3, 3, 3, 1], {}, "Shape must be rank 4 but is rank 3"),
        ([2, 7, 9, 3], [3, 3, 1], {}, "Shape must be at least rank 4 but is rank 3"),
        # The kernel computes this filter; the rule does not know it.
        ([2, 7, 9, 3], [3, 3, 1, 3], {}, "Dimensions must be equal, but are 3 and 1"),
        ([2, 7, 9, 3], [2, 3, 3, 1, 3], {}, "Dimensions must be equal, but are 3 and 1"),
        ([2, 3, 7, 9], [3, 3, 1, 1], {"data_format": "NCHW"}, "Dimensions must be equal"),
    ],
)
def test_shapes_refused_by_the_rule_depthwise(input, filter, arguments, text):
    """Counts of strides and dilations, ranks, and channels that do not match."""
    with pytest.raises(ValueError, match=re.escape(text)):
        checks.inferred(raw.convolve, input, filter, op="h_depth_wise", **arguments)


# ---- Refusals ----------------------------------------------------------------------------------


def _call(op="h_conv2d", input=(1, 3, 3, 2), filter=(1, 1, 2, 1), mult_shift=(1,), **arguments):
    """Run an op on ones of the given shapes; `input` and `filter` may be tensors instead."""

    def tensor(x):
        return x if tf.is_tensor(x) else np.ones(x, np.int32)

    arguments = {"accumulator_size": 16, "strides": [1] * 4, "dilations": [1] * 4, **arguments}
    return getattr(raw.raw_ops, op)(
        tensor(input),
        tensor(filter),
        np.zeros([0], np.int32),
        np.ones(mult_shift, np.int8),
        padding=arguments.pop("padding", "SAME"),
        **arguments,
    )


@pytest.mark.parametrize("op", OPS)
@pytest.mark.parametrize(
    ("inputs", "text"),
    [
        ({"input": (3, 3, 2)}, "Need input of rank 4, got shape [3,3,2]"),
        ({"input": (1, 1, 3, 3, 2)}, "Need input of rank 4, got shape [1,1,3,3,2]"),
        ({"input": ()}, "Need input of rank 4, got shape []"),
        ({"filter": (1, 2, 1)}, "Need filter of rank 4 or above, got shape [1,2,1]"),
        ({"filter": ()}, "Need filter of rank 4 or above, got shape []"),
        (
            {"mult_shift": (0,)},
            "Need mult_shift to hold at least 1 element (its element 0 is read), "
            "got 0 in shape [0]",
        ),
        ({"strides": [1, 1]}, "Need strides to have at least 3 values, got 2"),
        ({"strides": []}, "Need strides to have at least 3 values, got 0"),
        ({"dilations": [1]}, "Need dilations to have at least 3 values, got 1"),
        (
            {"strides": [1, 0, 2, 1]},
            "Need strides other than 0, got 0 along the height and 2 along the width",
        ),
        (
            {"strides": [1, 2, 0, 1]},
            "Need strides other than 0, got 2 along the height and 0 along the width",
        ),
        ({"accumulator_size": -1}, "Need accumulator_size >= 0, got -1"),
        ({"accumulator_size": 33}, "Need accumulator_size <= 32 for int32 data, got 33"),
        # Attributes are looked at before inputs, the width first.
        ({"accumulator_size": -1, "strides": []}, "Need accumulator_size >= 0, got -1"),
        ({"strides": [], "input": ()}, "Need strides to have at least 3 values, got 0"),
    ],
    ids=lambda x: "-".join(f"{k}{x[k]}" for k in x) if isinstance(x, dict) else "",
)
def test_malformed_calls_are_refused(op, inputs, text):
    """Ranks, scalars and attributes; the error says what is needed and what came."""
    with pytest.raises(InvalidArgument, match=re.escape(text)):
        _call(op, **inputs)


@pytest.mark.parametrize("op", OPS)
@pytest.mark.parametrize(
    ("window", "arguments", "text"),
    [
        (
            (5, 1),
            {"padding": "VALID"},
            "Need an output height of at least 0, got -1 from an input of 3, a filter of 5, "
            "a stride of 1, a dilation of 1 and VALID padding",
        ),
        (
            (1, 3),
            {"padding": "VALID", "dilations": [1, 1, 3, 1]},
            "Need an output width of at least 0, got -3 from an input of 3, a filter of 3, "
            "a stride of 1, a dilation of 3 and VALID padding",
        ),
        (
            (1, 1),
            {"strides": [1, -1, 1, 1]},
            "Need an output height of at least 0, got -1 from an input of 3, a filter of 1, "
            "a stride of -1, a dilation of 1 and SAME padding",
        ),
    ],
)
def test_negative_output_sizes_are_refused(op, window, arguments, text):
    """Where the formulas give a negative size; the error names all that made it."""
    channels = (1, 1) if op == "h_depth_wise" else (2, 1)
    with pytest.raises(InvalidArgument, match=re.escape(text)):
        _call(op, filter=(*window, *channels), **arguments)


_ORDINARY = "height x width x {} input channels x output channels"
_DEPTHWISE = "images x height x width x output channels"


@pytest.mark.parametrize(
    ("op", "input", "filter", "text"),
    [
        (
            op,
            (1, 3, 3, 3),
            (2, 1, 2, 5),
            f"Need filter to hold at least 30 elements ({_ORDINARY.format(3)}), "
            "got 20 in shape [2,1,2,5]",
        )
        for op in OPS[:2]
    ]
    + [
        (
            "h_conv2d",
            (1, 3, 3, 2),
            (0, 1, 1, 2, 1),
            f"Need filter to hold at least 2 elements ({_ORDINARY.format(2)}), "
            "got 0 in shape [0,1,1,2,1]",
        ),
        (
            "h_conv2d",
            (0, 3, 3, 2),
            (1, 1, 1, 1),
            f"Need filter to hold at least 2 elements ({_ORDINARY.format(2)}), "
            "got 1 in shape [1,1,1,1]",
        ),
        (
            "h_depth_wise",
            (1, 3, 3, 2),
            (1, 1, 1, 3),
            "Need input to have at least the 3 output channels of a depthwise filter, got 2 in "
            "shape [1,3,3,2]",
        ),
        (
            "h_depth_wise",
            (3, 3, 3, 2),
            (2, 1, 1, 1, 2),
            "Need filter to have a first dimension of at least 3 (one filter for each image), got "
            "shape [2,1,1,1,2]",
        ),
        (
            "h_depth_wise",
            (1, 3, 3, 2),
            (2, 3, 0, 2),
            f"Need filter to hold at least 12 elements ({_DEPTHWISE}), got 0 in shape [2,3,0,2]",
        ),
        (
            "h_depth_wise",
            (3, 3, 3, 2),
            (3, 1, 2, 0, 2),
            f"Need filter to hold at least 12 elements ({_DEPTHWISE}), got 0 in shape [3,1,2,0,2]",
        ),
    ],
)
def test_small_filters_are_refused(op, input, filter, text):
    """Channel counts that would read past the end of the filter or the image."""
    with pytest.raises(InvalidArgument, match=re.escape(text)):
        _call(op, input=input, filter=filter)


@pytest.mark.parametrize("op", OPS)
@pytest.mark.parametrize("name", ["input", "filter"])
@pytest.mark.parametrize("shape", [(2**31, 0, 1, 1), (0, 1, 1, 2**31), (0, 2**32 + 1, 1, 1)])
def test_dimensions_beyond_32_bits_are_refused(op, name, shape):
    """Dimensions are 32-bit; one that is not must not be cut to fit, elements or none."""
    text = (
        f"Need every dimension of {name} to be at most 2147483647, got shape "
        f"[{','.join(map(str, shape))}]"
    )
    tensor = tf.reshape(tf.zeros([0], tf.int32), tf.constant(shape, tf.int64))
    with pytest.raises(InvalidArgument, match=re.escape(text)):
        _call(op, **{name: tensor})


def test_outputs_that_no_tensor_holds_are_refused():
    """An absurd dilation asks for 2^63 elements: an error, not a crash."""
    with pytest.raises(InvalidArgument, match="overflow"):
        _call(
            input=(1, 2, 2, 1),
            filter=(3, 3, 1, 8),
            dilations=[1, -(2**29), -(2**29), 1],
            padding="VALID",
        )


@pytest.mark.parametrize("op", OPS)
def test_spatial_values_are_read_at_1_and_2(op, assert_bits):
    """Of strides and dilations the values 1 and 2 are read, whatever stands around them."""
    pixels = image(np.arange(25).reshape(5, 5))
    taps = np.ones([2, 2, 1, 1], np.int32)
    operands = (pixels, taps, np.zeros([0], np.int32), np.zeros([1], np.int8))
    call = getattr(raw.raw_ops, op)
    settings = {"padding": "VALID", "accumulator_size": 32}
    plain = call(*operands, strides=[1, 2, 1, 1], dilations=[1, 1, 3, 1], **settings)
    odd = call(*operands, strides=[9, 2, 1], dilations=[0, 1, 3, 7, 7], **settings)
    assert plain.shape == (1, 2, 2, 1)
    assert_bits(odd, plain.numpy())


@pytest.mark.parametrize("op", OPS)
def test_data_format_is_not_read(op, assert_bits):
    """Tensors are NHWC whatever the attribute says."""
    pixels = image(np.arange(12).reshape(4, 3))
    taps = np.ones([3, 3, 1, 1], np.int32)
    plain = raw.convolve(pixels, taps, op=op)
    assert_bits(raw.convolve(pixels, taps, op=op, data_format="NCHW"), plain.numpy())
