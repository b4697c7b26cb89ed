# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HStoredQuantise through the runtime: bits against the oracle, shapes, refusals."""

from __future__ import annotations

import re

import hypothesis
import hypothesis.strategies as st
import numpy as np
import oracle
import pytest
import registration
import stored
import support
import tensorflow as tf

from bitfold import ops, raw_ops

REGISTRATION = {
    "HStoredQuantise": registration.Registration(
        inputs=["values: float"],
        attributes=["T_out: {int8, uint8, int16}", "output_scale: float", "output_zero_point: int"],
        output="output: T_out",
        kernels={("CPU", ""): "HStoredQuantiseOp<CPUDevice>"},
    )
}
WRAPPERS = {"stored_quantise": None}

TYPES = (np.int8, np.uint8, np.int16)


def raw(values, scale, zero_point=0, dtype=np.int8):
    """HStoredQuantise."""
    return raw_ops.h_stored_quantise(
        values=values,
        output_scale=scale,
        output_zero_point=zero_point,
        T_out=tf.as_dtype(dtype),
    )


def check(values, scale, zero_point, dtype):
    """Run HStoredQuantise and the oracle on the same data and compare bits."""
    limits = np.iinfo(dtype)
    (settings,) = stored.words([zero_point, limits.min, limits.max])
    out = np.zeros(values.shape, np.int32)
    reference = oracle.library().reference_stored_quantise
    reference(values.ctypes.data, values.size, float(scale), settings.ctypes.data, out.ctypes.data)
    actual = raw(values, float(scale), zero_point, dtype)
    support.assert_bits(actual, out.astype(dtype), values=values, scale=scale)


@pytest.mark.parametrize("dtype", TYPES)
def test_random(dtype):
    """Numbers at halves and beside them, and any bits, on the pool's threads too."""
    rng = np.random.default_rng(dtype().itemsize)
    limits = np.iinfo(dtype)
    for count in (1, 7, 64, 1000, 300000):
        scale = np.float32(np.ldexp(rng.uniform(0.5, 1), rng.integers(-20, 20)))
        zero_point = 0 if dtype == np.int16 else int(rng.integers(limits.min, limits.max))
        halves = (rng.integers(-70000, 70000, count) / 2).astype(np.float32) * scale
        values = np.nextafter(halves, rng.choice(np.float32([-np.inf, 0, np.inf]), count))
        bits = rng.integers(0, 2**32, count, np.uint32).view(np.float32)
        check(np.where(rng.integers(0, 4, count) == 0, bits, values), scale, zero_point, dtype)


@hypothesis.given(
    value=st.floats(width=32),
    scale=st.floats(2.0**-149, 2.0**127, width=32),
    zero_point=st.integers(-128, 127),
)
def test_property(value, scale, zero_point):
    """Any number, by any scale, subnormal ones too."""
    check(np.float32([value]), np.float32(scale), zero_point, np.int8)


def test_no_number():
    """NaN is the zero point, infinities are the ends."""
    result = raw(np.float32([np.nan, np.inf, -np.inf]), 0.5, 7, np.uint8)
    support.assert_bits(result, np.uint8([7, 255, 0]))


def test_no_elements():
    """Nothing is computed, and the shape stays."""
    assert raw(np.zeros([2, 0], np.float32), 1.0).shape == [2, 0]


@pytest.mark.parametrize(
    ("scale", "zero_point", "dtype", "text"),
    [
        (0.0, 0, np.int8, "Need a finite output_scale above 0, got 0"),
        (np.inf, 0, np.int8, "Need a finite output_scale above 0, got inf"),
        (1.0, -1, np.uint8, "Need output_zero_point in [0, 255] for uint8, got -1"),
        (1.0, -129, np.int8, "Need output_zero_point in [-128, 127] for int8, got -129"),
        (1.0, 1, np.int16, "Need output_zero_point in [0, 0] for int16, got 1"),
    ],
)
def test_refusals(scale, zero_point, dtype, text):
    """What is no scale or zero point."""
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        raw(np.zeros([2], np.float32), scale, zero_point, dtype)


@pytest.mark.parametrize("shape", [[], [3], [None, 3], None])
def test_shape_function(shape):
    """The output has the values' shape."""
    with tf.Graph().as_default():
        values = tf.compat.v1.placeholder(tf.float32, shape)
        result = ops.stored_quantise(values, output_scale=1.0, dtype=tf.int16)
    assert result.dtype == tf.int16
    assert (result.shape.rank is None) if shape is None else (result.shape.as_list() == shape)


# ---- The wrapper -------------------------------------------------------------------------------

VALUES = np.float32([[0.1, -3.0, 7.5], [100.0, 0.74, -0.76]])
SETTINGS = {"output_zero_point": 5, "dtype": tf.uint8}


@pytest.mark.parametrize("name", [None, *SETTINGS])
def test_every_setting_reaches_its_attribute(name):
    """The wrapper's keywords are the op's attributes."""
    settings = {} if name is None else {name: SETTINGS[name]}
    dtype = settings.get("dtype", tf.int8).as_numpy_dtype
    expected = raw(VALUES, 0.5, settings.get("output_zero_point", 0), dtype).numpy()
    for form in (lambda x: x, tf.constant, tf.Variable):
        result = ops.stored_quantise(form(VALUES), output_scale=0.5, **settings)
        support.assert_bits(result, expected)


@pytest.mark.parametrize(
    ("arguments", "text"),
    [
        ({"values": VALUES.astype(float)}, "values must be float32, got float64"),
        ({"dtype": tf.int32}, "dtype must be int8, uint8 or int16, got int32"),
        ({"output_scale": None}, "output_scale must be a number, got None"),
    ],
    ids=str,
)
def test_the_wrapper_refuses(arguments, text):
    """Other types."""
    with pytest.raises(TypeError, match=re.escape(text)):
        ops.stored_quantise(**{"values": VALUES, "output_scale": 1.0, **arguments})


def test_in_functions_and_models(tmp_path):
    """Traced, saved, and as a Keras layer."""
    stored.check_in_models(lambda x: ops.stored_quantise(x, output_scale=0.5), VALUES, tmp_path)
