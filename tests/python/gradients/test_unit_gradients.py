# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Gradients of the units: slopes of their pieces, and of the real functions of their tables."""

from __future__ import annotations

import functools

import numpy as np
import pytest
import tensorflow as tf
from slopes import assert_same, gradients, graph_gradients, whole

from bitfold import ops, raw_ops, tables
from bitfold.gradients import layer_norm, softmax

RNG = np.random.default_rng(41)

# ---- Activation --------------------------------------------------------------------------------

PIECES = {
    "x_points": [[-2048, 0, 4096], [-512, 1024, 2560]],
    "offsets": [[1, 2, 3, 4], [-5, 0, 5, 10]],
    "slopes_m": [[0, 3, -5, 24], [1, -2, 4, 7]],
    "slopes_e": [[-6, -5, -4, -3], [-3, -4, -5, -6]],
    "size_splits": [2, 1],
    "ebias": 12,
    "clip_bits": 10**6,
}
# The slopes are multiples of 2^-9, so at multiples of 2^9 no product is rounded.
STEP = 512.0
VALUES = (STEP * np.arange(-12, 18)).astype(np.float32).reshape(1, 5, 2, 3)


def _slopes(values, **settings):
    """Return the differences of the activation to the right, and to the left at a piece's end."""

    def results(x):
        integers = x.astype(np.int64)
        return ops.activation(integers, **PIECES, **settings).numpy().astype(np.float64)

    right, left = (results(values + s) - results(values) for s in (STEP, -STEP))
    points = np.array(PIECES["x_points"])[[0, 0, 1]]  # of each channel
    ends = (values[..., np.newaxis] + STEP >= points) & (values[..., np.newaxis] < points)
    return np.where(ends.any(-1), -left, right) / STEP


@pytest.mark.parametrize("is_wide", [False, True])
def test_activation_has_the_slopes_of_its_pieces(is_wide):
    """A breakpoint belongs to the piece after it; groups have their own."""
    wanted = _slopes(VALUES, is_8bit_to_16bit_mode=is_wide)
    assert len(np.unique(wanted)) == 8
    upstream = whole(RNG, *VALUES.shape)

    def function(x):
        return ops.activation(x, **PIECES, is_8bit_to_16bit_mode=is_wide)

    eager = gradients(function, [VALUES], upstream)
    assert_same(eager, [(wanted * upstream).astype(np.float32)])
    assert_same(graph_gradients(function, [VALUES], upstream), eager)


def test_activation_of_one_group():
    """All channels share a row, which need not be told."""
    names = ("x_points", "offsets", "slopes_m", "slopes_e")
    one = {**PIECES, **{name: PIECES[name][:1] for name in names}, "size_splits": None}
    three = {**one, **{name: 3 * one[name] for name in names}, "size_splits": [1, 1, 1]}
    upstream = whole(RNG, *VALUES.shape)
    wanted = gradients(lambda x: ops.activation(x, **three), [VALUES], upstream)
    assert_same(gradients(lambda x: ops.activation(x, **one), [VALUES], upstream), wanted)


def test_clipped_elements_have_no_slope():
    """Results lie in [-clip - 1, clip] before the offset; there the slope counts, beyond it not."""
    values = 32 * np.float32([-5, -3, -2, 0, 1, 2, 3]).reshape(1, 1, 7, 1)
    line = {"x_points": [[0]], "offsets": [[7, 7]], "slopes_m": [[2, 2]], "slopes_e": [[0, 0]]}
    slopes = gradients(
        lambda x: ops.activation(x, **line, ebias=6, clip_bits=2), [values], np.ones_like(values)
    )
    assert slopes[0].numpy().ravel().tolist() == [0, *[1 / 32] * 5, 0]


def test_activation_of_floats_is_that_of_their_whole_numbers(assert_bits):
    """Fractions are cut off; what no int32 holds counts as the least one."""
    values = np.float32([-2.5, 2.5, -0.5, 3e9, -(2.0**31), np.nan]).reshape(1, 1, 2, 3)
    integers = np.int64([-2, 2, 0, -(2**31), -(2**31), -(2**31)]).reshape(1, 1, 2, 3)
    expected = ops.activation(integers, **PIECES).numpy()
    actual = ops.activation(tf.constant(values), **PIECES)
    assert_bits(actual, expected.astype(np.float32))
    array = np.float32([1, 2, 3]).reshape(1, 1, 1, 3)
    assert ops.activation(array, **PIECES).dtype == tf.int32  # it is no tensor, and has no gradient


@pytest.mark.parametrize("dtype", [tf.float16, tf.float64])
def test_activation_of_other_floats_is_refused(dtype):
    """What is not float32 is not converted in secret."""
    with pytest.raises(TypeError, match=f"value must be int64, got {dtype.name}"):
        ops.activation(tf.zeros([1, 1, 1, 3], dtype), **PIECES)


def test_saved_models_keep_the_slopes(tmp_path):
    """A function that was saved and loaded has the gradients of the one that was saved."""

    class Model(tf.Module):
        @tf.function(input_signature=[tf.TensorSpec([None, 5, 2, 3])], autograph=False)
        def __call__(self, x):
            return ops.conv2d(ops.activation(x, **PIECES), tf.fill([1, 1, 3, 2], 2.0))

    model, upstream = Model(), whole(RNG, 1, 5, 2, 2)
    tf.saved_model.save(model, str(tmp_path))
    loaded = tf.saved_model.load(str(tmp_path))
    wanted = gradients(model, [VALUES], upstream)
    assert np.any(wanted[0])
    assert_same(gradients(loaded, [VALUES], upstream), wanted)


# ---- Softmax -----------------------------------------------------------------------------------


@pytest.mark.parametrize("shape", [(5,), (3, 7), (2, 2, 3)])
def test_softmax_is_the_stock_gradient_times_the_table_s_scales(shape):
    """Dimension 0 counts vectors; of rank 1 there is one."""
    table = tables.softmax(1 / 16)
    scale, steps = (tf.cast(x, tf.float32) for x in softmax.scale_and_steps(table.lut_table))
    value, upstream = whole(RNG, *shape, of=4), whole(RNG, *shape)

    def real(x):
        vectors = tf.reshape(x, [shape[0] if len(shape) > 1 else 1, -1])
        return tf.reshape(steps * tf.nn.softmax(scale * vectors), shape)

    def function(x):
        return ops.softmax(x, **table.keywords)

    eager = gradients(function, [value], upstream)
    assert_same(eager, gradients(real, [value], upstream))
    assert_same(graph_gradients(function, [value], upstream), eager)
    unknown = tf.function(function, input_signature=[tf.TensorSpec(None)], autograph=False)
    assert_same(gradients(unknown, [value], upstream), eager)


def test_a_table_tells_its_scale():
    """The scale that is read of a table is one that has this table; the steps are exact."""
    for input_scale in (*2.0 ** np.arange(-12, 3), *RNG.uniform(0.001, 8, 40)):
        for settings in ({}, {"vector_size": 1000}, {"is_velquin": True}):
            table = tables.softmax(input_scale, **settings)
            scale, steps = softmax.scale_and_steps(tf.constant(table.lut_table))
            again = tables.softmax(scale.numpy(), **settings)
            assert (again.lut_table == table.lut_table).all(), (input_scale, settings)
            assert steps.numpy() * table.output_scale == 1


def test_tables_that_tell_no_scale():
    """Where every exponential but the first is 0 the scale is at least what makes it so."""
    scale, _ = softmax.scale_and_steps(tf.constant(tables.softmax(20.0).lut_table))
    assert scale.numpy() == np.log(65535 / 0.5)
    value = whole(RNG, 2, 3)
    zeros = np.zeros(512, np.uint32)
    assert_same(gradients(lambda x: ops.softmax(x, zeros), [value], value), [0 * value])


# ---- Layer normalisation -----------------------------------------------------------------------

# A table's factor of 1 / sqrt(u).
FACTOR = 32760.0
NORMALISATIONS = {
    "8 bits": ({"output_scale": 1 / 16}, 40),
    "16 bits": ({"is_16bit_output": True, "gain": 2.0, "bias": 0.5}, 40),
    "wide inputs": ({"input_range": (-32000, 32767), "zero_point": 7}, 9000),
    "root mean square": ({"is_rms": True, "epsilon": 0.5}, 40),
    "clipped": ({"output_scale": 1 / 100}, 40),
}


def _real(value, scalars):
    """Return the unit's function on real numbers, of its scalars, in double precision."""
    n = scalars
    shift = n["mul_act_exp"] + (11 if n["activation_ebias_mode"] else 6)
    unit, largest = (8, 32767) if n["activation_output_mode"] else (1024, 255)
    gain = FACTOR * 2.0 ** (n["exponent_sub_value"] - shift) * n["mul_act_man"] / unit
    d = tf.cast(value, tf.float64) - n["zero_point"]
    m = tf.reduce_sum(d, -1, keepdims=True) / 2.0 ** n["sum_of_x_shift"]
    m = 0 * m if n["rms_mode_enable"] else m
    mean = m * n["sum_of_x_mult"] / 2.0 ** n["sum_of_x_mult_n_shift"]
    squares = tf.reduce_sum(d**2, -1, keepdims=True) * n["x_squared_mult"]
    variance = squares / 2.0 ** n["sum_of_x_squares_shift"] + n["epsilon"] - m**2
    result = gain * (d - mean) / tf.sqrt(variance) + n["mul_act_bias"] / unit
    return tf.clip_by_value(result, 0, largest)


@pytest.mark.parametrize("name", NORMALISATIONS)
def test_layer_norm_is_the_gradient_of_its_rules_on_real_numbers(name):
    """Of the rules in stock ops, in double precision, rounded to single once."""
    settings, spread = NORMALISATIONS[name]
    table = tables.layer_norm(16, **settings)
    value = np.rint(RNG.normal(0, spread, (2, 3, 2, 16))).astype(np.float32)
    upstream = whole(RNG, *value.shape)

    def real(x):
        return tf.cast(_real(x, table.scalars), tf.float32)

    def function(x):
        return ops.layer_norm(x, **table.keywords)

    results = real(tf.constant(value)).numpy()
    distance = table.output_scale * np.abs(function(value).numpy() - results).max()
    distances = value - table.scalars["zero_point"]
    centre = 0 if table.scalars["rms_mode_enable"] else distances.mean(-1, keepdims=True)
    spreads = np.sqrt(((distances - centre) ** 2).mean(-1))
    assert distance <= 2 * table.max_error(spreads.min(), np.abs(distances.mean(-1)).max())
    assert (name == "clipped") == (results == 255).any()
    eager = gradients(function, [value], upstream)
    assert_same(eager, gradients(real, [value], upstream))
    assert_same(graph_gradients(function, [value], upstream), eager)


def test_a_table_tells_its_factor():
    """It is the one that the tables are made with."""
    assert layer_norm.table_factor(tf.constant(tables.layer_norm(64).lut)).numpy() == FACTOR


def test_layer_norm_reads_the_unit_s_fields():
    """Fields keep as many bits as the unit has, and the larger shift counts."""
    table = tables.layer_norm(16, is_16bit_output=True, gain=2.0)
    value = np.rint(RNG.normal(0, 40, (1, 2, 2, 16))).astype(np.float32)
    upstream = whole(RNG, *value.shape)
    scalars = {**table.scalars, "activation_ebias_mode": 1}
    wanted = gradients(lambda x: tf.cast(_real(x, scalars), tf.float32), [value], upstream)
    scalars["zero_point"] += 2**16
    scalars["exponent_sub_value"] += 2**8
    function = functools.partial(raw_ops.h_layernorm, lut=table.lut, **scalars)
    assert_same(gradients(lambda x: function(value=x), [value], upstream), wanted)


def test_second_gradients():
    """A gradient consists of stock ops: that of a softmax has one of its own, of a line it is 0."""
    table, value = tables.softmax(1 / 16), tf.constant(whole(RNG, 1, 1, 2, 3, of=4))

    def second(function):
        with tf.GradientTape() as outer:
            outer.watch(value)
            with tf.GradientTape() as inner:
                inner.watch(value)
                loss = tf.reduce_sum(function(value)[..., 0] ** 2)
            slope = inner.gradient(loss, value)
        return outer.gradient(slope, value)

    assert np.any(second(lambda x: ops.softmax(x, **table.keywords)))
    slopes = gradients(
        lambda x: ops.activation(x, **PIECES), [value], np.ones(value.shape, np.float32)
    )
    wanted = 2 * slopes[0] ** 2 * np.float32([1, 0, 0])
    assert_same([second(lambda x: ops.activation(x, **PIECES))], [wanted])
