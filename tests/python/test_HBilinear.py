# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HBilinear through the runtime: bits, printed lines, refusals."""

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
INPUTS = (
    "im_out_upper_left",
    "im_out_upper_right",
    "im_out_bottom_left",
    "im_out_bottom_right",
    "one_m_rx_one_m_ry",
    "rx_one_m_ry",
    "ry_one_m_rx",
    "rx_ry",
)
# Widths below 0 are not refused here.
WIDTHS = {t: (*support.WIDTHS[t], -1, -200) for t in TYPES}
REGISTRATION = {
    "HBilinear": registration.Registration(
        inputs=[*(f"{name}: T" for name in INPUTS), "mult_shift: int8", "bias: float"],
        attributes=[registration.ELEMENT_TYPE, "accumulator_size: int", "float_accumulator: bool"],
        kernels=registration.kernels("HBilinearOp"),
    )
}
WRAPPERS = {
    "bilinear": stated.Wrapper(
        [(2, 3, 4, 2)] * 4 + [(3, 4, 2)] * 4,
        {"accumulator_size": 7, "mult_shift": 2, "bias": 5.0},
        raw.bilinear,
    ),
}


@pytest.fixture(scope="session")
def check(reference):
    """Run HBilinear and the oracle on the same data and compare bits and printed lines."""

    def run(*inputs, **arguments):
        named = dict(zip(INPUTS, inputs, strict=True))
        checks.compare(raw.bilinear, reference.bilinear, named, **arguments)

    return run


def one(neighbours, dtype=np.int32, weights=(1, 1, 1, 1), **arguments):
    """Return the result for a single element."""
    inputs = [np.array([x], dtype) for x in (*neighbours, *weights)]
    return raw.bilinear(*inputs, **arguments).numpy().item()


# ---- Worked values -----------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("float_accumulator", [False, True])
def test_each_neighbour_has_its_weight(dtype, float_accumulator):
    """Upper left, upper right, bottom left, bottom right, and the bias."""
    arguments = {"weights": (1, 10, 100, 1000), "bias": 7.0, "float_accumulator": float_accumulator}
    assert one((1, 2, 3, 4), dtype, **arguments) == 4328


@pytest.mark.parametrize("position", range(4))
def test_float_shift_multiplies_by_the_reciprocal(position):
    """5 times 1/2 goes to even 2; 75 times the float next to 1/30 is above 2.5."""
    for product, shift, scaled in ((5.0, 2, 2.0), (75.0, 30, 3.0)):
        neighbours = [0.0] * 4
        neighbours[position] = product
        assert one(neighbours, np.float32, mult_shift=shift) == scaled


@pytest.mark.parametrize("position", range(4))
@pytest.mark.parametrize(("product", "shift", "scaled"), [(5, 1, 2), (7, 1, 4), (6, 2, 2)])
def test_integer_shift_rounds_half_to_even(position, product, shift, scaled):
    """Each product is shifted right, halves to even."""
    neighbours = [0] * 4
    neighbours[position] = product
    assert one(neighbours, mult_shift=shift) == scaled


def test_each_addition_folds():
    """An intermediate sum of 40000 is -25536 in 16 bits before the next product is added."""
    arguments = {"accumulator_size": 16}
    assert one((40000.0, 0.0, 0.0, 0.0), np.float32, **arguments) == -25536.0
    # -25536 - 20000 wraps to 20000; 20000 + 20000 to -25536.
    assert one((40000.0, -20000.0, 20000.0, 0.0), np.float32, **arguments) == -25536.0
    assert one((40000, -20000, 20000, 0), **arguments) == -25536
    assert one((400000, 0, 0, 0), **arguments) == 137856  # one fold for each of four additions
    # The bias is in before the first fold.
    assert one((100, 0, 0, 0), bias=100.0, accumulator_size=8) == -56


def test_bias_of_integers_is_truncated():
    """0.9 counts as 0: the products' 130 gives -126."""
    arguments = {"bias": 0.9, "accumulator_size": 8}
    assert one((100, 30, 0, 0), **arguments) == -126
    assert one((1, 0, 0, 0), bias=-1.9) == 0
    assert one((0, 0, 0, 0), np.float32, bias=0.9) == np.float32(0.9)
    assert one((0, 0, 0, 0), bias=-1.9, float_accumulator=True) == -1


def test_float_mode_of_integers_wraps_at_32_bits(printed):
    """No shift, no width; the sum wraps at 32 bits alone."""
    arguments = {"float_accumulator": True, "mult_shift": 3, "accumulator_size": 8, "bias": 5.0}
    with printed() as text:
        assert one((100, 200, 300, 400), **arguments) == 1005
        assert one((2**31 - 1, 0, 0, 0), **arguments) == -(2**31) + 4
        assert one((65536, 0, 0, 0), weights=(65536, 1, 1, 1), **arguments) == 5
    assert (text.out, text.err) == ("", "")


def test_float_mode_groups_the_sum(printed):
    """((bottom left + bottom right) + (upper left + upper right)) + bias, and no line."""
    arguments = {"float_accumulator": True, "mult_shift": 3, "accumulator_size": 8}
    with printed() as text:
        assert one((1.0, 2.0**24, 0.0, 0.0), np.float32, bias=1.0, **arguments) == 2.0**24
        # One after the other these would give 2.
        assert one((2.0**24, 1.0, 1.0, -(2.0**24)), np.float32, **arguments) == 1.0
        assert one((3e38, 3e38, -3e38, -3e38), np.float32, **arguments) != 0.0
        assert one((9e6, 0.0, 0.0, 0.0), np.float32, **arguments) == 9e6
    assert (text.out, text.err) == ("", "")


@pytest.mark.parametrize("position", range(4))
@pytest.mark.parametrize(
    ("total", "line"),
    [(8388606.0, ""), (8388607.0, "8388607.000000"), (-8388607.0, ""), (np.nan, "nan")],
)
def test_out_of_bounds_sums_are_reported(position, total, line, printed, assert_lines):
    """A line for each of the sums outside [-8388607, 8388607), from the product's on."""
    neighbours = [0.0] * 4
    neighbours[position] = total
    with printed() as text:
        one(neighbours, np.float32)
    assert_lines(text.out, support.warning(line) * (4 - position) if line else "")


def test_integers_print_nothing(printed):
    """Only floats are checked against the warning range."""
    with printed() as text:
        one((2**31 - 1, 2**31 - 1, 5, 9), bias=3e9)
    assert (text.out, text.err) == ("", "")


@pytest.mark.parametrize("dtype", TYPES)
def test_weights_are_shared_by_the_batch(dtype, assert_bits):
    """Items with equal neighbours give equal outputs, whatever the shape of the weights."""
    rng = np.random.default_rng(43)
    item = [support.random_values(rng, dtype, (2, 3, 5)) for _ in range(4)]
    weights = [support.random_values(rng, dtype, (30,)) for _ in range(4)]
    single = raw.bilinear(*(x[np.newaxis] for x in item), *weights, accumulator_size=24).numpy()
    batch = raw.bilinear(
        *(np.stack([x] * 3) for x in item),
        *(w.reshape(5, 6) for w in weights),
        accumulator_size=24,
    )
    assert_bits(batch, np.concatenate([single] * 3))


@pytest.mark.parametrize("shape", [(3,), (1, 0), (2, 4, 0, 3)])
def test_ranks_and_empty_items(shape, check):
    """Any rank from 1 on; items may be empty."""
    for dtype in TYPES:
        check(*[np.full(shape, 3, dtype)] * 4, *[np.full(shape[1:], 2, dtype)] * 4)


# ---- Against the oracle ------------------------------------------------------------------------


@pytest.mark.parametrize(("dtype", "accumulator_size"), [(t, w) for t in TYPES for w in WIDTHS[t]])
def test_boundaries(dtype, accumulator_size, check):
    """Every boundary value against every other, with weights and biases of every magnitude."""
    values = support.BOUNDARY[dtype]
    first, second = support.boundary_pairs(dtype)
    neighbours = [first, second, second, first]
    biases = itertools.cycle(support.FLOAT_BOUNDARY[::5].tolist())
    for turn, (mult_shift, mode) in enumerate(itertools.product(support.SHIFTS, (False, True))):
        plain = np.ones_like(values)
        weights = [np.roll(values, turn), np.roll(values, 3 * turn), plain, plain]
        for order in (slice(None), slice(None, None, -1)):
            check(
                *neighbours,
                *(weights[order] if turn else [plain] * 4),
                bias=next(biases) if turn else 0.0,
                mult_shift=mult_shift,
                accumulator_size=accumulator_size,
                float_accumulator=mode,
            )


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("shape", [(1,), (3, 5), (2, 3, 5, 7), (1, 17, 1, 3), (4, 33)], ids=str)
def test_random(dtype, shape, check):
    """Random data of every magnitude, random settings, elements to spare."""
    rng = np.random.default_rng([47, *shape])
    item = int(np.prod(shape[1:]))
    for _ in range(15):
        spare = rng.integers(0, 3, 4)
        settings = checks.random_settings(rng, dtype)
        settings["float_accumulator"] = settings.pop("use_fp16_acc")
        check(
            *(support.random_values(rng, dtype, shape) for _ in range(4)),
            *(support.random_values(rng, dtype, (item + n,)) for n in spare),
            bias=support.random_values(rng, np.float32, (1,)).item(),
            **settings,
        )


@pytest.mark.parametrize("dtype", TYPES)
@hypothesis.given(data=st.data())
def test_property(dtype, data, check):
    """Any numbers under any settings."""
    shape = data.draw(checks.shapes(1, 2, 3))
    arrays = data.draw(checks.arrays(dtype, *[shape] * 4, *[shape[1:]] * 4))
    settings = data.draw(checks.settings(dtype, bias=checks.numbers(np.float32)))
    settings["float_accumulator"] = settings.pop("use_fp16_acc")
    check(*arrays, **settings)


# ---- The shape function ------------------------------------------------------------------------


@pytest.mark.parametrize("shape", checks.KEPT_SHAPES)
def test_the_rule_keeps_the_shape(shape):
    """The op has the shape of its first input, as far as that is known."""
    assert checks.inferred(raw.bilinear, shape, *[[7]] * 7) == shape


# ---- Refusals ----------------------------------------------------------------------------------

_AS_MANY = "as many as im_out_upper_left"
_EACH = "one for each element of a batch item"


def _call(mult_shift=(1,), bias=(1,), dtype=np.int32, float_accumulator=False, **shapes):
    """HBilinear on ones of the given shapes, which may be tensors; [2, 3] and [3] by default."""
    inputs = [
        checks.ones(shapes.get(name, (2, 3) if i < 4 else (3,)), dtype)
        for i, name in enumerate(INPUTS)
    ]
    return raw.raw_ops.h_bilinear(
        *inputs,
        checks.ones(mult_shift, np.int8),
        checks.ones(bias, np.float32),
        accumulator_size=shapes.get("accumulator_size", 16),
        float_accumulator=float_accumulator,
    )


@pytest.mark.parametrize("name", INPUTS[1:])
def test_small_inputs_are_refused(name):
    """Each neighbour and weight must hold what is read of it."""
    needed, what = (6, _AS_MANY) if name in INPUTS[:4] else (3, _EACH)
    for shape in ((needed - 1,), (0,), (1, 1)):
        with checks.refused(checks.too_small(name, needed, what, shape)):
            _call(**{name: shape})


def test_the_texts_of_small_inputs():
    """As they read."""
    text = (
        "Need im_out_bottom_left to hold at least 6 elements (as many as im_out_upper_left), "
        "got 5 in shape [1,5]"
    )
    with checks.refused(text):
        _call(im_out_bottom_left=(1, 5))
    text = (
        "Need rx_ry to hold at least 3 elements (one for each element of a batch item), "
        "got 2 in shape [2]"
    )
    with checks.refused(text):
        _call(rx_ry=(2,))


@pytest.mark.parametrize("shape", [(), (0,), (0, 3), (0, 0)])
def test_batches_of_0_are_refused(shape):
    """There must be an item; a scalar has no batch."""
    text = (
        "Need im_out_upper_left with a batch of at least 1 as dimension 0, "
        f"got shape [{','.join(map(str, shape))}]"
    )
    with checks.refused(text):
        _call(im_out_upper_left=shape)


@pytest.mark.parametrize("float_accumulator", [False, True])
def test_empty_scalars_are_refused(float_accumulator):
    """Shift and bias are read in both modes."""
    with checks.refused(checks.empty_scalar("mult_shift", (0, 2))):
        _call(mult_shift=(0, 2), float_accumulator=float_accumulator)
    with checks.refused(checks.empty_scalar("bias")):
        _call(bias=(0,), float_accumulator=float_accumulator)


def test_widths_of_integers():
    """Above 32 they are refused, unless the mode takes no width; of floats none is."""
    with checks.refused("Need accumulator_size <= 32 for int32 data, got 33"):
        _call(accumulator_size=33)
    assert _call(accumulator_size=33, float_accumulator=True).shape == (2, 3)
    assert _call(accumulator_size=2**31 - 1, dtype=np.float32).numpy().max() == 5.0
    assert _call(accumulator_size=-(2**31), dtype=np.float32).shape == (2, 3)


def test_scalars_read_element_0(assert_bits):
    """Shift and bias may be of any shape; the first element counts."""
    ones = np.ones([1], np.int32)
    result = raw.raw_ops.h_bilinear(
        6 * ones, ones, ones, ones, ones, ones - 1, ones - 1, ones - 1,
        np.array(1, np.int8), np.array([[2.0, 9.0]], np.float32),
        accumulator_size=32, float_accumulator=False,
    )  # fmt: skip
    assert_bits(result, 5 * ones)


def test_in_a_graph(assert_bits):
    """The same values and refusals inside a function, whose shapes are unknown."""

    @tf.function(input_signature=[tf.TensorSpec(None, tf.int32)] * 8)
    def resize(*inputs):
        return raw.bilinear(*inputs, accumulator_size=8)

    ones = np.ones([2, 3], np.int32)
    weights = [ones[0]] * 4
    assert_bits(resize(100 * ones, 50 * ones, -10 * ones, 0 * ones, *weights), -116 * ones)
    with checks.refused(checks.too_small("rx_ry", 3, _EACH, (2,))):
        resize(ones, ones, ones, ones, *weights[:3], ones[0, :2])
