# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HMatmul through the runtime: bits, printed and logged lines, shapes, refusals."""

from __future__ import annotations

import contextlib
import ctypes
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

import bitfold
from bitfold import fpx

TYPES = checks.TYPES
REGISTRATION = {
    "HMatmul": registration.Registration(
        inputs=["a: T", "b: T", "mult_shift: int8"],
        attributes=[
            "transpose_a: bool = false",
            "transpose_b: bool = false",
            "accumulator_size: int",
            registration.ELEMENT_TYPE,
            "use_fp16_acc: bool = false",
            "adj_x: bool = false",
            "adj_y: bool = false",
        ],
        output="product: T",
        kernels={("CPU", t): f"HMatMulOp<{t}>" for t in registration.TYPES},
    )
}
WRAPPERS = {
    "matmul": stated.Wrapper(
        [(2, 3, 4), (2, 4, 5)], {"accumulator_size": 8, "mult_shift": 2}, raw.matmul
    ),
}


@pytest.fixture(scope="session")
def check(reference):
    """Run HMatmul and the oracle on the same data; compare bits, printed lines and the log."""

    def run(a, b, **arguments):
        checks.compare(raw.matmul, reference.matmul, {"a": a, "b": b}, **arguments)

    return run


def dot(row, column, dtype=np.int32, **arguments):
    """Return the product of a row and a column."""
    a, b = np.array([row], dtype), np.array([column], dtype).T
    return raw.matmul(a, b, **arguments).numpy().item()


def mismatch(inner, b_rows):
    """Return what is logged for inner dimensions that differ."""
    return (
        "input and kernel dimensions does not match for matrix mul. "
        f"dataSizeX={inner}\tkernelSizeY={b_rows}"
    )


# ---- Worked values -----------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
def test_product(dtype, assert_bits):
    """Rows by columns."""
    a, b = np.array([[1, 2], [3, 4], [5, 6]], dtype), np.array([[7, 8, 9], [1, 0, -1]], dtype)
    assert_bits(raw.matmul(a, b), (a @ b).astype(dtype))


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize(
    ("weight", "width", "result", "line"),
    [
        (200, 16, -56, support.MATMUL_RED_LINE),
        (128, 16, -128, support.MATMUL_RED_LINE),
        (127, 16, 127, ""),
        (-200, 16, -200, ""),
        (8, 8, -8, support.MATMUL_RED_LINE),
        (600, 16, 344, support.MATMUL_RED_LINE),  # one correction only
    ],
)
def test_weights_above_half_the_width_are_negative(dtype, weight, width, result, line, printed):
    """Every weight has its sign corrected, and a red line says so."""
    with printed() as text:
        assert dot([1], [weight], dtype, accumulator_size=width) == result
    assert (text.out, text.err) == (line, "")


def test_data_is_not_corrected(printed):
    """Only the weights are."""
    with printed() as text:
        assert dot([200], [1], accumulator_size=16) == 200
    assert text.out == ""


def test_one_red_line_for_each_matrix(printed, assert_bits):
    """One line for each entry of the batch that needed a correction, after its sums' lines."""
    a = np.full([3, 2, 1], 8388607, np.float32)
    b = np.array([[[200.0, 200.0]], [[1.0, 1.0]], [[1.0, 200.0]]], np.float32)
    with printed() as text:
        product = raw.matmul(a, b, accumulator_size=16)
    assert product.shape == (3, 2, 2)
    one, minus = support.warning("8388607.000000"), support.warning("-469761984.000000")
    assert float(-56 * np.float32(8388607)) == -469761984.0
    red = support.MATMUL_RED_LINE
    assert text.out == 4 * minus + red + 4 * one + 2 * (one + minus) + red


def test_each_sum_wraps():
    """Every product is added and wrapped by itself."""
    assert dot([100, 100], [1, 1], accumulator_size=8) == -56
    assert dot([100, 50, -10], [1, 1, 1], accumulator_size=8) == -116
    assert dot([100.0, 50.0, -10.0], [1.0, 1.0, 1.0], np.float32, accumulator_size=8) == -116.0
    assert dot([300], [1], accumulator_size=8) == 44
    assert dot([600], [1], accumulator_size=8) == 344  # one wrap only


def test_float_shift_multiplies_by_the_reciprocal():
    """7.5 times the float next to 1/3 is 2.5, to even 2; 75 times that of 1/30 is above 2.5."""
    assert dot([7.5], [1.0], np.float32, mult_shift=3) == 2.0
    assert dot([75.0], [1.0], np.float32, mult_shift=30) == 3.0
    assert dot([75.0, 75.0], [1.0, 1.0], np.float32, mult_shift=30) == 6.0


@pytest.mark.parametrize(
    ("product", "shift", "added"),
    [(5, 1, 2), (7, 1, 4), (6, 2, 2), (-5, 1, -2), (-(2**31), 31, -1)],
)
def test_integer_shift_rounds_half_to_even(product, shift, added):
    """Products are shifted right, halves to even."""
    assert dot([product], [1], mult_shift=shift) == added


def test_half_precision(printed):
    """Floats are kept in half precision without a wrap; integers ignore it."""
    with printed() as text:
        assert dot([1.0, 2.0**-11], [1.0, 1.0], np.float32, use_fp16_acc=True) == 1.0
        arguments = {"accumulator_size": 8, "use_fp16_acc": True}
        assert dot([100.0, 50.0], [1.0, 1.0], np.float32, **arguments) == 150.0
        assert dot([100, 50], [1, 1], **arguments) == -106
        assert dot([40000], [1], use_fp16_acc=True) == 40000
    assert text.out == ""


@pytest.mark.parametrize(
    ("total", "line"),
    [
        (8388606.0, ""),
        (8388607.0, support.warning("8388607.000000")),
        (-8388607.0, ""),
        (-8388608.0, support.warning("-8388608.000000")),
        (np.nan, support.warning("nan")),
    ],
)
@pytest.mark.parametrize("use_fp16_acc", [False, True])
def test_out_of_bounds_sums_are_reported(total, line, use_fp16_acc, printed, assert_lines):
    """A line for each sum outside [-8388607, 8388607)."""
    with printed() as text:
        dot([total], [1.0], np.float32, use_fp16_acc=use_fp16_acc)
    assert_lines(text.out, line)


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize(
    ("a", "b"), [((2, 0), (0, 3)), ((0, 2), (2, 3)), ((2, 2), (2, 0)), ((0, 2, 3), (0, 3, 1))]
)
def test_empty_matrices(dtype, a, b, check):
    """Without inner elements the product is 0; without rows, columns or entries it is empty."""
    checks.leave_dirty_memory((2, 3), dtype)
    check(np.ones(a, dtype), np.ones(b, dtype))


# ---- Against the oracle ------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("dtype", "accumulator_size"), [(t, w) for t in TYPES for w in support.WIDTHS[t]]
)
def test_boundaries(dtype, accumulator_size, check):
    """Every boundary value times every other, alone and after another product."""
    values = support.BOUNDARY[dtype]
    column, row = values[:, np.newaxis], values[np.newaxis]
    pairs = np.stack([values, np.roll(values, 7)])
    for mult_shift, use_fp16_acc in itertools.product(support.SHIFTS, (False, True)):
        for a, b in ((column, row), (np.ascontiguousarray(pairs.T), pairs)):
            check(
                a,
                b,
                mult_shift=mult_shift,
                accumulator_size=accumulator_size,
                use_fp16_acc=use_fp16_acc,
            )


# (a, b)
SHAPES = [
    ((1, 1), (1, 1)),
    ((3, 5), (5, 2)),
    ((2, 17), (17, 35)),
    ((33, 3), (3, 9)),
    ((3, 2, 4), (3, 4, 5)),
    ((2, 3, 1, 4), (2, 3, 4, 2)),
    ((1, 3, 4), (4, 5)),  # the columns take the place of the rows
    ((1, 3, 4), (4, 3)),
    ((1, 2, 1, 4), (4, 1)),
    ((2, 3, 4), (3, 4, 5)),  # more matrices than the batch needs
    ((2, 3), (4, 5)),  # inner dimensions that differ
    ((3, 2, 3), (2, 2)),
    ((1, 2, 3), (1, 5, 7)),
]


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize(("a", "b"), SHAPES, ids=str)
def test_random(dtype, a, b, check):
    """Random data of every magnitude, random settings."""
    rng = np.random.default_rng([37, *a, *b])
    for _ in range(15):
        check(
            support.random_values(rng, dtype, a),
            support.random_values(rng, dtype, b),
            **checks.random_settings(rng, dtype),
        )


@pytest.mark.parametrize("dtype", TYPES)
@hypothesis.given(data=st.data())
def test_property(dtype, data, check):
    """Any numbers under any settings."""
    batch, rows, inner, cols = data.draw(st.tuples(*[st.integers(1, 3)] * 4))
    leading = data.draw(st.sampled_from([(), (batch,)]))
    arrays = data.draw(checks.arrays(dtype, (*leading, rows, inner), (*leading, inner, cols)))
    check(*arrays, **data.draw(checks.settings(dtype)))


# ---- Shapes ------------------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
def test_of_the_leading_dimensions_the_first_alone_counts(dtype, check, assert_bits):
    """[2, 3, 4, 5]: two matrices of 4 x 5 are computed, the rest is 0 whatever memory held."""
    rng = np.random.default_rng(41)
    a = rng.integers(-9, 9, (2, 3, 4, 5)).astype(dtype)
    b = rng.integers(-9, 9, (2, 3, 5, 4)).astype(dtype)
    checks.leave_dirty_memory((2, 3, 4, 4), dtype)
    product = raw.matmul(a, b).numpy()
    assert product.shape == (2, 3, 4, 4)
    expected = a.reshape(6, 4, 5)[:2] @ b.reshape(6, 5, 4)[:2]
    assert_bits(product.reshape(6, 4, 4)[:2], expected.astype(dtype))
    assert not product.reshape(6, 4, 4)[2:].any()
    # A matrix for each entry is enough.
    check(a, b.reshape(6, 5, 4)[:2])


def test_columns_take_the_place_that_they_have_in_b(assert_bits):
    """Of [1, 2, 4] and [4, 3] the shape is [1, 3, 4]: six elements of the product, six zeros."""
    a, b = np.arange(8, dtype=np.int32).reshape(1, 2, 4), np.arange(12, dtype=np.int32)
    checks.leave_dirty_memory((1, 3, 4), np.int32)
    product = raw.matmul(a, b.reshape(4, 3)).numpy()
    assert product.shape == (1, 3, 4)
    assert_bits(product.ravel()[:6], (a[0] @ b.reshape(4, 3)).ravel())
    assert not product.ravel()[6:].any()


@pytest.mark.parametrize("attribute", ["transpose_a", "transpose_b", "adj_x", "adj_y"])
def test_nothing_is_transposed(attribute, assert_bits):
    """The four attributes are for the shape functions alone."""
    a, b = np.arange(4, dtype=np.int32).reshape(2, 2), np.arange(4, 8, dtype=np.int32).reshape(2, 2)
    assert_bits(raw.matmul(a, b, **{attribute: True}), a @ b)


@pytest.mark.parametrize("dtype", TYPES)
def test_inner_dimensions_that_differ_are_logged(dtype, printed, assert_bits):
    """An error for each entry of the batch, zeros, and no failure."""
    checks.leave_dirty_memory((2, 5), dtype)
    with printed() as text:
        product = raw.matmul(np.ones([2, 3], dtype), np.ones([4, 5], dtype)).numpy()
    assert_bits(product, np.zeros([2, 5], dtype))
    assert text.out == ""
    assert checks.logged_errors(text.err) == [mismatch(3, 4)]
    with printed() as text:
        product = raw.matmul(np.ones([2, 1, 3], dtype), np.ones([2, 2, 5], dtype)).numpy()
    assert_bits(product, np.zeros([2, 1, 5], dtype))
    assert checks.logged_errors(text.err) == 2 * [mismatch(3, 2)]


def test_inner_dimensions_that_differ_in_a_function(printed, assert_bits):
    """Where the shapes are unknown while tracing, the kernel logs; known ones are refused."""
    unknown = tf.function(raw.matmul, input_signature=[tf.TensorSpec([None, None], tf.int32)] * 2)
    a, b = np.ones([2, 3], np.int32), np.ones([4, 5], np.int32)
    with printed() as text:
        product = unknown(a, b).numpy()
    assert_bits(product, np.zeros([2, 5], np.int32))
    assert checks.logged_errors(text.err) == [mismatch(3, 4)]
    with pytest.raises(ValueError, match="Dimensions must be equal, but are 3 and 4"):
        tf.function(raw.matmul)(tf.constant(a), tf.constant(b))


def test_shift_reads_element_0(assert_bits):
    """The shift may be of any shape; the first element counts."""
    a = np.array([[6]], np.int32)
    for shift in (np.array(1, np.int8), np.array([[1, 7]], np.int8)):
        product = raw.raw_ops.h_matmul(a, a, shift, accumulator_size=32)
        assert_bits(product, np.array([[18]], np.int32))


# ---- The counters of the narrow floats ---------------------------------------------------------


def test_counters_are_reset():
    """Each call sets the four counters of `bitfold.fpx` to 0, also one that is refused."""
    one = np.ones([1, 1], np.int32)
    library = ctypes.CDLL(bitfold.library_path())
    for call in (lambda: raw.matmul(one, one), lambda: raw.matmul(one[0], one)):
        for name in ("g_32toX_of", "g_32toX_uf", "g_resizeX_of", "g_resizeX_uf"):
            ctypes.c_int32.in_dll(library, name).value = 7
        assert fpx.counters() == (7, 7, 7, 7)
        with contextlib.suppress(tf.errors.InvalidArgumentError):
            call()
        assert not any(fpx.counters())


# ---- The shape function ------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("a", "b", "attributes", "expected"),
    [
        ([2, 3], [3, 5], {}, [2, 5]),
        ([None, 3], [3, None], {}, [None, None]),
        ([2, 3], None, {}, [2, None]),
        ([3, 2], [3, 5], {"transpose_a": True}, [2, 5]),
        ([2, 3], [5, 3], {"transpose_b": True}, [2, 5]),
        # Any other rank of a: a batch of matrices.
        ([4, 2, 3], [4, 3, 5], {}, [4, 2, 5]),
        ([None, 2, None], [4, 3, 5], {}, [4, 2, 5]),
        ([4, 3, 2], [4, 3, 5], {"adj_x": True}, [4, 2, 5]),
        ([4, 2, 3], [4, 5, 3], {"adj_y": True}, [4, 2, 5]),
        ([7, 4, 2, 3], [7, 4, 3, 5], {}, [7, 4, 2, 5]),
    ],
)
def test_inferred_shapes(a, b, attributes, expected):
    """The runtime's rules for a product of matrices, or of batches of them."""
    assert checks.inferred(raw.matmul, a, b, **attributes) == expected


@pytest.mark.parametrize(
    ("a", "b", "text"),
    [
        ([2, 3], [4, 5], "Dimensions must be equal, but are 3 and 4"),
        ([2, 3], [1, 3, 5], "Shape must be rank 2 but is rank 3"),
        ([4, 2, 3], [4, 2, 5], "Dimensions must be equal, but are 3 and 2"),
        ([4, 2, 3], [3, 5], "Shapes must be equal rank"),
        ([4, 2, 3], [1, 3, 5], "Dimension 0 in both shapes must be equal, but are 4 and 1"),
        ([4, 2, 3], [5], "Shape must be at least rank 2 but is rank 1"),
        ([3], [3, 5], "Shape must be at least rank 2 but is rank 1"),
    ],
)
def test_shapes_refused_by_the_rule(a, b, text):
    """Inner dimensions that differ, and ranks."""
    with pytest.raises(ValueError, match=re.escape(text)):
        checks.inferred(raw.matmul, a, b)


# ---- Refusals ----------------------------------------------------------------------------------


def _call(a=(1, 1), b=(1, 1), mult_shift=(1,)):
    """HMatmul on ones of the given shapes, which may be tensors instead."""
    return raw.raw_ops.h_matmul(
        checks.ones(a, np.int32),
        checks.ones(b, np.int32),
        checks.ones(mult_shift, np.int8),
        accumulator_size=16,
    )


_RANKS = "Need a and b of rank 2 or above, b of no more than a, got ranks"
_MATRICES = "a matrix for each entry of the batch"


@pytest.mark.parametrize(
    ("inputs", "text"),
    [
        ({"a": ()}, f"{_RANKS} 0 and 2"),
        ({"a": (1,)}, f"{_RANKS} 1 and 2"),
        ({"b": (1,)}, f"{_RANKS} 2 and 1"),
        ({"b": ()}, f"{_RANKS} 2 and 0"),
        ({"b": (1, 1, 1)}, f"{_RANKS} 2 and 3"),
        (
            {"a": (2, 3, 4), "b": (4, 5)},
            "Need b to hold at least 40 elements (a matrix for each entry of the batch), "
            "got 20 in shape [4,5]",
        ),
        ({"a": (3, 1, 2), "b": (2, 2, 2)}, checks.too_small("b", 12, _MATRICES, (2, 2, 2))),
        ({"mult_shift": (0,)}, checks.empty_scalar("mult_shift")),
        ({"a": (0, 1), "mult_shift": (0, 2)}, checks.empty_scalar("mult_shift", (0, 2))),
        (
            {"a": (1, 5, 2), "b": (2, 3)},
            "Need a and b of ranks that let the product hold 1 matrices of 5 x 3, got shapes "
            "[1,5,2] and [2,3], whose product has the shape [1,3,2]",
        ),
        # Also where nothing would be computed for want of a match.
        ({"a": (2, 3), "b": (4, 5), "mult_shift": (0,)}, checks.empty_scalar("mult_shift")),
    ],
    ids=checks.case_name,
)
def test_malformed_inputs_are_refused(inputs, text):
    """Ranks, matrices that b lacks, and products that the shape does not hold."""
    with checks.refused(text):
        _call(**inputs)


@pytest.mark.parametrize("shape", [(2**31, 0), (0, 2**31), (2**31, 0, 1)])
def test_dimensions_beyond_32_bits_are_refused(shape):
    """Dimensions are 32-bit; one that is not must not be cut to fit."""
    with checks.refused(checks.too_long("a", shape)):
        _call(a=checks.empty(shape))
    with checks.refused(checks.too_long("b", shape)):
        _call(a=np.ones([1] * len(shape), np.int32).shape, b=checks.empty(shape))


@pytest.mark.parametrize(("dtype", "width", "text"), checks.WIDTHS_REFUSED)
def test_widths_are_refused_at_construction(dtype, width, text):
    """Negative widths, and for integers those above 32, whatever the inputs."""
    for shape in ((1, 1), ()):
        operand = np.ones(shape, dtype)
        with checks.refused(text):
            raw.matmul(operand, operand, accumulator_size=width)


def test_in_a_graph(assert_bits):
    """The same values and refusals inside a function, whose ranks are unknown."""

    @tf.function(input_signature=[tf.TensorSpec(None, tf.int32)] * 2)
    def multiply(a, b):
        return raw.matmul(a, b, accumulator_size=8)

    a, b = np.array([[[100, 50]]] * 2, np.int32), np.ones([2, 2, 1], np.int32)
    assert_bits(multiply(a, b), np.full([2, 1, 1], -106, np.int32))
    with checks.refused(f"{_RANKS} 2 and 3"):
        multiply(a[0], b)
