# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HStoredLookup through the runtime: bits against the oracle, shapes, refusals."""

from __future__ import annotations

import re

import numpy as np
import oracle
import pytest
import registration
import stored
import support
import tensorflow as tf

from bitfold import ops, raw_ops

REGISTRATION = {
    "HStoredLookup": registration.Registration(
        inputs=["data: T", "table: T_out"],
        attributes=["T: {int8, uint8, int16}", "T_out: {int8, uint8, int16}"],
        output="output: T_out",
        kernels={("CPU", ""): "HStoredLookupOp<CPUDevice>"},
    )
}
WRAPPERS = {"stored_lookup": None}

TYPES = (np.int8, np.uint8, np.int16)


def draw_table(rng, dtype, output):
    """Return any results of all stored integers of a type."""
    return stored.draw(rng, output, [2 ** np.iinfo(dtype).bits])


def reference(data, table):
    """The oracle's result."""
    wide, entries = stored.words(data, table)
    out = np.zeros_like(wide)
    oracle.library().reference_stored_lookup(
        wide.ctypes.data, wide.size, entries.ctypes.data, int(np.iinfo(data.dtype).min),
        out.ctypes.data,
    )  # fmt: skip
    return out.astype(table.dtype)


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("output", TYPES)
def test_random(output, dtype):
    """Any shape, so few elements and so many that the pool's threads share them."""
    rng = np.random.default_rng([TYPES.index(dtype), TYPES.index(output)])
    table = draw_table(rng, dtype, output)
    for shape in ([], [1], [63], [3, 64], [5, 1, 13], [2, 3, 2, 2, 2]):
        data = stored.draw(rng, dtype, shape)
        support.assert_bits(raw_ops.h_stored_lookup(data=data, table=table), reference(data, table))
    data = stored.draw(rng, dtype, [1000 if dtype == np.int16 else 300000])
    support.assert_bits(raw_ops.h_stored_lookup(data=data, table=table), reference(data, table))


@pytest.mark.parametrize("dtype", TYPES)
def test_every_element(dtype):
    """The identity, of all stored integers."""
    limits = np.iinfo(dtype)
    every = np.arange(limits.min, limits.max + 1).astype(dtype)
    support.assert_bits(raw_ops.h_stored_lookup(data=every, table=every), every)


def test_no_elements():
    """Nothing is computed, and the shape stays."""
    result = raw_ops.h_stored_lookup(data=np.zeros([2, 0], np.int8), table=np.zeros(256, np.int16))
    assert result.shape == [2, 0]
    assert result.dtype == tf.int16


@pytest.mark.parametrize(
    ("dtype", "shape", "text"),
    [
        (np.int8, [255], "Need a table of 256 entries for int8, got 255"),
        (np.uint8, [65536], "Need a table of 256 entries for uint8, got 65536"),
        (np.int16, [256], "Need a table of 65536 entries for int16, got 256"),
        (np.int8, [16, 16], "Need a table of rank 1, got shape [16,16]"),
        (np.int8, [], "Need a table of rank 1, got shape []"),
    ],
)
def test_refusals(dtype, shape, text):
    """Tables that do not hold what would be read."""
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        raw_ops.h_stored_lookup(data=np.zeros([3], dtype), table=np.zeros(shape, np.int8))


@pytest.mark.parametrize("data", [[3], [None, 3], None])
@pytest.mark.parametrize("table", [[256], [None], None])
def test_shape_function(data, table):
    """The output has the data's shape."""
    with tf.Graph().as_default():
        result = ops.stored_lookup(
            tf.compat.v1.placeholder(tf.int8, data), tf.compat.v1.placeholder(tf.int16, table)
        )
    assert result.dtype == tf.int16
    assert (result.shape.rank is None) if data is None else (result.shape.as_list() == data)


@pytest.mark.parametrize(
    ("table", "text"),
    [([255], "Need a table of 256 entries for int8, got 255"), ([1, 256], "Shape must be rank 1")],
)
def test_shape_function_refuses(table, text):
    """Where the shapes are known."""
    with tf.Graph().as_default(), pytest.raises(ValueError, match=text):
        ops.stored_lookup(
            tf.compat.v1.placeholder(tf.int8, [3]), tf.compat.v1.placeholder(tf.int8, table)
        )


# ---- The wrapper -------------------------------------------------------------------------------

DATA = np.int8([[-128, -1], [0, 127]])
TABLE = np.arange(256).astype(np.int16)


def test_wrapper():
    """Arrays, tensors, variables."""
    expected = np.int16([[0, 127], [128, 255]])
    for form in (lambda x: x, tf.constant, tf.Variable):
        support.assert_bits(ops.stored_lookup(form(DATA), form(TABLE)), expected)


def test_the_wrapper_refuses_types():
    """What is no stored type."""
    with pytest.raises(TypeError, match="data must be int8 or uint8 or int16, got int32"):
        ops.stored_lookup(DATA.astype(np.int32), TABLE)
    with pytest.raises(TypeError, match="table must be int8 or uint8 or int16, got int32"):
        ops.stored_lookup(DATA, TABLE.astype(np.int32))


def test_in_functions_and_models(tmp_path):
    """Traced, saved, and as a Keras layer."""
    stored.check_in_models(lambda x: ops.stored_lookup(x, TABLE), DATA, tmp_path)
