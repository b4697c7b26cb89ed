# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Gradients of the additions, the matrix product and the resampler, against their differences."""

from __future__ import annotations

import functools

import numpy as np
import pytest
import support
import tensorflow as tf
from slopes import assert_differences, assert_same, gradients, whole

from bitfold import ops, raw_ops

RNG = np.random.default_rng(37)
SHAPES = pytest.mark.parametrize("shape", [(3, 4), (2, 3, 2, 4)], ids=["matrix", "images"])
# With these no product is rounded where operands are multiples of 4.
SETTINGS = pytest.mark.parametrize(
    "settings",
    [{}, {"mult_shift": 4}, {"mult_shift": -4, "feed_repeat": 2.5}, {"feed_repeat": -1.0}],
    ids=["plain", "divided", "repeated", "never"],
)


def _fours(*shape):
    return whole(RNG, *shape, of=4)


# ---- Additions ---------------------------------------------------------------------------------


@SHAPES
@SETTINGS
def test_add(shape, settings):
    """Value, operand and factor; the operand in a shape of its own."""
    assert_differences(
        lambda value, elementwise, factor: ops.add(value, elementwise, factor=factor, **settings),
        [_fours(*shape), _fours(np.prod(shape)), np.float32(12)],
        step=4.0,
    )


@SHAPES
@SETTINGS
def test_bias_add(shape, settings):
    """Value, bias and factor."""
    assert_differences(
        lambda value, bias, factor: ops.bias_add(value, bias, factor=factor, **settings),
        [_fours(*shape), _fours(4), np.float32(-8)],
        step=4.0,
    )


@SHAPES
@SETTINGS
def test_decomposed_bias_add(shape, settings):
    """Value, both parts and both factors."""
    assert_differences(
        lambda value, a, b, factor_a, factor_b: ops.decomposed_bias_add(
            value, a, b, factor_a=factor_a, factor_b=factor_b, **settings
        ),
        [_fours(*shape), _fours(4), _fours(4), np.float32(16), np.float32(-4)],
        step=4.0,
    )


@SHAPES
@pytest.mark.parametrize("mult_shift", [0, 4])
def test_weighted_add(shape, mult_shift):
    """Both operands and the weights."""
    for weights in (_fours(2, 4), _fours(8)):
        assert_differences(
            functools.partial(ops.weighted_add, mult_shift=mult_shift),
            [_fours(*shape), _fours(*shape), weights],
            step=4.0,
        )


def test_bias_gradient_is_the_stock_one():
    """Plain additions are the stock ones, and so are their gradients."""
    value, bias, upstream = whole(RNG, 2, 3, 2, 4), whole(RNG, 4), whole(RNG, 2, 3, 2, 4)
    wanted = gradients(tf.nn.bias_add, [value, bias], upstream)
    assert_same(gradients(ops.bias_add, [value, bias], upstream), wanted)
    wanted = gradients(tf.add, [value, value], upstream)
    assert_same(gradients(ops.add, [value, value], upstream), wanted)


def test_a_scalar_of_several_elements():
    """The generated op reads the first element of a scalar; the others have a gradient of 0."""
    factor = np.float32([3, 5])
    assert_differences(
        lambda value, elementwise, factor: raw_ops.h_add(
            value=value, elementwise=elementwise, elementwise_factor=factor,
            elementwise_feed_repeat=[1.0], mult_shift=tf.zeros([2], tf.int8), accumulator_size=32,
        ),
        [whole(RNG, 2, 3), whole(RNG, 2, 3), factor],
    )  # fmt: skip


def test_a_shift_that_a_graph_does_not_know():
    """A shift that is an argument divides as a number does, and 0 as 1."""
    value, operand, upstream = _fours(2, 3), _fours(2, 3), _fours(2, 3)
    traced = tf.function(
        lambda value, operand, shift: ops.add(value, operand, mult_shift=shift), autograph=False
    )
    for shift in (0, 4, -2):
        known = gradients(functools.partial(ops.add, mult_shift=shift), [value, operand], upstream)
        later = functools.partial(traced, shift=tf.constant(shift, tf.int8))
        assert_same(gradients(later, [value, operand], upstream), known, shift=shift)


def test_settings_have_no_gradient():
    """The number of passes is a setting, not a factor."""
    repeat = tf.constant(2.0)
    with tf.GradientTape() as tape:
        tape.watch(repeat)
        result = ops.add(whole(RNG, 2, 3), whole(RNG, 2, 3), feed_repeat=repeat)
    assert tape.gradient(result, repeat) is None


def test_other_ranks_are_refused():
    """The generated op computes a part of them."""
    value = tf.ones([2, 3, 4])
    with tf.GradientTape() as tape:
        tape.watch(value)
        result = raw_ops.h_add(
            value=value, elementwise=value, elementwise_factor=1, elementwise_feed_repeat=1,
            mult_shift=0, accumulator_size=32,
        )  # fmt: skip
    with pytest.raises(ValueError, match="Need a value of rank 2 or 4 for a gradient of HAdd"):
        tape.gradient(result, value)


# ---- Matrix product ----------------------------------------------------------------------------


@pytest.mark.parametrize("mult_shift", [0, 4])
@pytest.mark.parametrize("batch", [(), (2,)], ids=["matrices", "a batch"])
def test_matmul(batch, mult_shift):
    """Both operands, of one product or several."""
    assert_differences(
        functools.partial(ops.matmul, mult_shift=mult_shift),
        [_fours(*batch, 2, 3), _fours(*batch, 3, 4)],
        step=4.0,
    )


def test_matmul_of_unknown_ranks():
    """A graph that knows no rank gives the same."""
    operands, upstream = [whole(RNG, 2, 2, 3), whole(RNG, 2, 3, 4)], whole(RNG, 2, 2, 4)
    unknown = [tf.TensorSpec(None, tf.float32)] * 2
    traced = tf.function(lambda a, b: ops.matmul(a, b), input_signature=unknown, autograph=False)
    assert_same(gradients(traced, operands, upstream), gradients(ops.matmul, operands, upstream))
    assert_same(gradients(ops.matmul, operands, upstream), gradients(tf.matmul, operands, upstream))


@pytest.mark.parametrize("width", [0, 1, 2, 16, 32, 64, 66, 130])
def test_weights_count_as_the_unit_reads_them(width):
    """The data's gradient meets the corrected weight; the weight's passes the correction."""
    a = np.float32([[1, -2, 3], [0, 1, 1]])
    b = np.float32([[249, -249], [128, 126], [0, 300]])
    function = functools.partial(ops.matmul, accumulator_size=width)
    upstream = np.float32([[1, 2], [3, -4]])
    with support.printed():
        of_a, of_b = gradients(function, [a, b], upstream)
        # One element of the data at a time shows the weight as it was read, in a wide accumulator.
        read = b.copy()
        if width in (0, 1, 2):
            read[b > 0] -= 2  # the largest weight is 0, the period 2
        elif width == 16:
            read[b > 127] -= 256
        elif width > 64:
            read -= 2
    assert_same([of_a, of_b], [upstream @ read.T, a.T @ upstream], width=width)


def test_wraps_and_roundings_pass_straight_through():
    """A narrow accumulator, half precision and a divisor that rounds change no gradient."""
    operands, upstream = [whole(RNG, 4, 9, of=9), whole(RNG, 9, 5)], whole(RNG, 4, 5, of=3)
    wanted = gradients(tf.matmul, operands, upstream)
    with support.printed():
        for settings in ({"accumulator_size": 10}, {"use_fp16_acc": True}):
            function = functools.partial(ops.matmul, **settings)
            assert_same(gradients(function, operands, upstream), wanted, **settings)
    assert (ops.matmul(*operands, accumulator_size=10) != tf.matmul(*operands)).numpy().any()
    divided = gradients(functools.partial(ops.matmul, mult_shift=3), operands, upstream)
    assert_same(divided, gradients(tf.matmul, operands, upstream / 3))


# ---- Resampler ---------------------------------------------------------------------------------


@pytest.mark.parametrize("settings", [{}, {"mult_shift": 4}, {"float_accumulator": True}])
def test_bilinear(settings):
    """Neighbours, weights, which all items of a batch share, and the bias."""
    neighbours = [_fours(2, 3, 2) for _ in range(4)]
    weights = [_fours(*shape) for shape in ((3, 2), (6,), (1, 3, 2), (6, 1))]
    assert_differences(
        lambda *operands: ops.bilinear(*operands[:-1], bias=operands[-1], **settings),
        [*neighbours, *weights, np.float32(8)],
        step=4.0,
    )


def test_second_gradients_are_the_stock_ones():
    """Products of operands have mixed second derivatives."""
    a, b = tf.constant(whole(RNG, 2, 3)), tf.constant(whole(RNG, 3, 4))

    def second(product):
        with tf.GradientTape() as outer:
            outer.watch([a, b])
            with tf.GradientTape() as inner:
                inner.watch(a)
                loss = tf.reduce_sum(product(a, b) ** 2)
            slope = inner.gradient(loss, a)
        return outer.gradient(slope, [a, b])

    assert_same(second(ops.matmul), second(tf.matmul))
