# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HSoftmax through the runtime: bits, printed lines, shapes, wrapper, the assertion."""

from __future__ import annotations

import re

import hypothesis
import hypothesis.strategies as st
import keras
import numpy as np
import pytest
import registration
import support
import tensorflow as tf

import units
from bitfold import ops

FUNCTION = (
    "void HSoftmaxOp<Device>::Compute(tensorflow::OpKernelContext*) "
    "[with Device = Eigen::ThreadPoolDevice]"
)
TABLE = units.plain_softmax_table()
REGISTRATION = {
    "HSoftmax": registration.Registration(
        inputs=["value: float", "lut_table: uint32"],
        attributes=["is_velquin: bool"],
        output="output: float",
        kernels={("CPU", ""): "HSoftmaxOp<CPUDevice>"},
    )
}
WRAPPERS = {"softmax": None}


def check(value, table=TABLE, *, is_velquin=False):
    """Run HSoftmax and the oracle on the same data and compare bits and printed lines."""
    value = np.asarray(value, np.float32)
    with support.printed() as text:
        actual = units.softmax(value, table, is_velquin=is_velquin).numpy()
    expected, lines = units.reference().softmax(value, table, is_velquin=is_velquin)
    support.assert_bits(actual, expected, value=value, is_velquin=is_velquin)
    support.assert_lines(text.out, lines, value=value)
    assert text.err == ""
    return expected


# ---- Worked values -----------------------------------------------------------------------------


def test_worked_values():
    """65535 * 255 is 2^24 - 2^16 - 255: by 6 and 10 bits 255."""
    table = units.softmax_table(np.full(256, 65535), np.zeros(256), np.full(256, 255))
    result = units.softmax([[3.0, 1.0], [0.0, -256.0]], table, is_velquin=True).numpy()
    assert result.tolist() == [[255.0, 255.0], [255.0, 0.0]]


def test_rank_1_and_0_are_one_vector():
    """Dimension 0 counts vectors from rank 2 on."""
    data = np.float32([5, 1, 0, 3])
    whole = check(data)
    support.assert_bits(check(data.reshape(1, 2, 2)), whole.reshape(1, 2, 2))
    assert (check(data.reshape(4, 1)) != whole.reshape(4, 1)).any()
    check(np.float32(7.0))


@pytest.mark.parametrize("shape", [(0,), (0, 5), (5, 0), (3, 0, 2), (2, 3, 4, 5), (7, 1)])
def test_shapes(shape):
    """Any rank; nothing where there is nothing."""
    rng = np.random.default_rng([5, *shape])
    check(rng.integers(-300, 10, shape))


@pytest.mark.parametrize("is_velquin", [False, True])
@pytest.mark.parametrize("excess", [-1, 0, 1, 2, 1000])
def test_sums_around_24_bits(excess, is_velquin, printed):
    """One variant saturates; the other wraps and says so for each vector that overflows."""
    exponentials = np.zeros(256)
    exponentials[0], exponentials[1] = 65535, 2**24 + excess - 256 * 65535
    table = units.softmax_table(exponentials, 16777215 * 0.96 ** np.arange(256), np.arange(256))
    vector = np.append(np.zeros(256), -1).astype(np.float32)
    value = np.stack([vector, np.full_like(vector, -5), vector])
    value[1, 0] = 0  # does not overflow
    with printed() as text:
        units.softmax(value, table, is_velquin=is_velquin).numpy()
    assert text.out == units.OVERFLOW_LINE * (2 if excess >= 0 and not is_velquin else 0)
    check(value, table, is_velquin=is_velquin)


def test_unordered_sums():
    """Above 2^24 the order of the sum matters: ones after it change nothing, before it they do."""
    exponentials = np.zeros(256)
    exponentials[0], exponentials[1], exponentials[2] = 65535, 256, 1
    k = np.arange(256)
    table = units.softmax_table(exponentials, 255 - k, k)
    vector = np.append(np.zeros(256), np.full(1, -1.0))
    ones = np.full(40, -2.0)
    after = check(np.append(vector, ones)[np.newaxis], table)
    before = check(np.append(ones, vector)[np.newaxis], table)
    assert set(after.ravel()) != set(before.ravel())


# ---- Against the oracle ------------------------------------------------------------------------


@pytest.mark.parametrize("is_velquin", [False, True])
def test_boundaries(is_velquin):
    """Every boundary value with every other, first and second."""
    first, second = support.boundary_pairs(np.float32)
    pairs = np.stack([first.ravel(), second.ravel()], axis=1)
    check(pairs, is_velquin=is_velquin)
    check(np.pad(pairs, [(0, 0), (0, 19)]), is_velquin=is_velquin)


@pytest.mark.parametrize("size", [1, 7, 8, 9, 15, 16, 17, 31, 33, 255, 257, 4096])
def test_random(size):
    """Random tables and data; more than one vector."""
    rng = np.random.default_rng(size)
    for low in (-20, -255, -300, -100000):
        table = rng.integers(0, 2**32, 512, dtype=np.uint32)
        check(rng.integers(low, 1, [3, size]), table, is_velquin=bool(rng.integers(2)))
        check(rng.integers(low, 1, [2, size]) / 4, is_velquin=bool(rng.integers(2)))


@hypothesis.settings(derandomize=True, deadline=None)
@hypothesis.given(
    value=st.lists(st.floats(width=32) | st.integers(-300, 0).map(float), min_size=1, max_size=40),
    vectors=st.integers(1, 3),
    seed=st.integers(0, 2**32 - 1),
    is_velquin=st.booleans(),
)
def test_property(value, vectors, seed, is_velquin):
    """Any floats under any table."""
    table = np.random.default_rng(seed).integers(0, 2**32, 512, dtype=np.uint32)
    check(np.tile(np.float32(value), (vectors, 1)), table, is_velquin=is_velquin)


# ---- Assertion, refusals, shapes ---------------------------------------------------------------


@pytest.mark.parametrize("size", [511, 513, 0])
def test_a_table_of_another_size_ends_the_process(size):
    """The C library's message, under the unit's name."""
    code = f"units.softmax(np.ones([2, 2], np.float32), np.zeros({size}, np.uint32), "
    code += "is_velquin=False)"
    units.ends_with(code, "src/HSoftmax", FUNCTION, "lut_table_flat.size() == 512")


def test_a_table_of_any_shape():
    """512 elements in any shape."""
    support.assert_bits(
        units.softmax(np.float32([[1, 2]]), TABLE.reshape(256, 2), is_velquin=True),
        units.softmax(np.float32([[1, 2]]), TABLE, is_velquin=True).numpy(),
    )


@pytest.mark.parametrize("shape", [[2, 3], [None, 3], [], [4], None])
def test_shape_function(shape):
    """The output has the value's shape."""
    with tf.Graph().as_default():
        value = tf.compat.v1.placeholder(tf.float32, shape)
        table = tf.compat.v1.placeholder(tf.uint32, None)
        result = units.softmax(value, table, is_velquin=False)
    assert (result.shape.rank is None) if shape is None else (result.shape.as_list() == shape)


def test_the_variant_is_required():
    """The attribute has no default."""
    with pytest.raises(TypeError, match="is_velquin"):
        units.raw_ops.h_softmax(np.float32([1.0]), TABLE)


# ---- The wrapper -------------------------------------------------------------------------------

DATA = np.float32([[5, 1, 0, -3], [-200, 4, 4, 4]])


@pytest.mark.parametrize("is_velquin", [False, True])
def test_wrapper(is_velquin):
    """Arrays, lists, tensors, variables, narrower types, a table of 256 rows."""
    expected = units.softmax(DATA, TABLE, is_velquin=is_velquin).numpy()
    for value in (DATA, DATA.tolist(), tf.constant(DATA), tf.Variable(DATA), DATA.astype("f2")):
        for table in (TABLE, TABLE.tolist(), tf.constant(TABLE), TABLE.reshape(256, 2)):
            support.assert_bits(ops.softmax(value, table, is_velquin=is_velquin), expected)
    support.assert_bits(ops.softmax(DATA, TABLE), units.softmax(DATA, TABLE, is_velquin=False))


@pytest.mark.parametrize(
    ("value", "table", "text"),
    [
        (DATA.astype(np.int32), TABLE, "value must be float32, got int32"),
        (DATA.astype(np.float64), TABLE, "value must be float32, got float64"),
        (DATA, TABLE.astype(np.float32) + 0.5, "lut_table must be an integer"),
        (DATA, tf.constant(TABLE, tf.uint64), "lut_table must be uint32, got uint64"),
        (DATA, tf.zeros([512], tf.int32), "lut_table must be uint32, got int32"),
    ],
)
def test_other_types_are_refused(value, table, text):
    """Types that would lose something."""
    with pytest.raises(TypeError, match=re.escape(text)):
        ops.softmax(value, table)


@pytest.mark.parametrize("entry", [-1, 2**32])
def test_table_entries_beyond_32_bits_are_refused(entry):
    """Words are unsigned."""
    table = TABLE.astype(np.int64)
    table[3] = entry
    with pytest.raises(ValueError, match="lut_table must lie in"):
        ops.softmax(DATA, table)


def test_in_functions_and_models(tmp_path):
    """Traced, saved, and as a Keras layer."""
    expected = units.softmax(DATA, TABLE, is_velquin=True).numpy()

    def call(x):
        return ops.softmax(x, TABLE, is_velquin=True)

    support.assert_bits(tf.function(call, autograph=False)(DATA), expected)
    module = tf.Module()
    spec = tf.TensorSpec([None, None], tf.float32)
    module.call = tf.function(call, input_signature=[spec], autograph=False)
    tf.saved_model.save(module, str(tmp_path / "model"))
    support.assert_bits(tf.saved_model.load(str(tmp_path / "model")).call(DATA), expected)

    symbolic = keras.Input([4])
    model = keras.Model(symbolic, call(symbolic))
    support.assert_bits(model.predict(DATA, verbose=0), expected)
    assert not model.layers[-1].supports_jit
    model.save(tmp_path / "model.keras")
    support.assert_bits(keras.models.load_model(tmp_path / "model.keras")(DATA), expected)
