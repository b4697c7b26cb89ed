# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HLayernorm through the runtime: bits, its scalar inputs, refusals, wrapper, the assertions."""

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
from bitfold import ops, raw_ops

COMPUTE = (
    "void HLayernormOp<Device>::Compute(tensorflow::OpKernelContext*) "
    "[with Device = Eigen::ThreadPoolDevice]"
)
LUT = units.plain_lut()
SOURCE = "src/HLayernorm"
REGISTRATION = {
    "HLayernorm": registration.Registration(
        inputs=["value: float", *(f"{name}: uint32" for name in units.SCALARS), "lut: float"],
        attributes=[],
        output="output: float",
        kernels={("CPU", ""): "HLayernormOp<CPUDevice>"},
    )
}
WRAPPERS = {"layer_norm": None}


def check(value, lut=LUT, **scalars):
    """Run HLayernorm and the oracle on the same data and compare bits; False where it has none."""
    value = np.asarray(value, np.float32)
    expected = units.reference().layer_norm(value, lut, **scalars)
    if not isinstance(expected, np.ndarray):
        return False
    actual = units.layer_norm(value, lut, **scalars).numpy()
    support.assert_bits(actual, expected, value=value, **scalars)
    return True


def plain(**changes):
    """Return a usual setting for 4 channels, changed."""
    return {**units.plain_scalars(4), **changes}


DATA = np.float32([1, -2, 3, 40, 5, 6, 7, 8]).reshape(1, 2, 1, 4)


# ---- Against the oracle ------------------------------------------------------------------------


@pytest.mark.parametrize(
    "shape", [(1, 1, 1, 1), (2, 3, 2, 5), (1, 4, 4, 33), (2, 1, 1, 4096), (1, 2, 2, 257)]
)
@pytest.mark.parametrize("wide", [0, 1])
@pytest.mark.parametrize("rms", [0, 1])
def test_usual_settings(shape, wide, rms):
    """Bytes around a zero point, both outputs, with the mean and without."""
    rng = np.random.default_rng(shape)
    scalars = units.plain_scalars(shape[-1], 120)
    scalars |= {"activation_output_mode": wide, "rms_mode_enable": rms, "epsilon": 77}
    assert check(rng.integers(0, 256, shape), **scalars)


@pytest.mark.parametrize("shape", [(0, 2, 2, 3), (2, 0, 2, 3), (2, 2, 0, 3), (1, 1, 1, 0)])
def test_nothing_to_do(shape):
    """No vectors, or vectors without elements, whose sums are formed all the same."""
    assert check(np.zeros(shape), **plain())


# Inputs that fields of 8, 16 and 32 bits narrow, above 2^24 through single precision.
WIDE_INPUTS = [0, 1, 255, 256, 257, 65535, 65536, 70000, 2**24 + 1, 2**31 - 1, 2**31, 2**32 - 1]


@pytest.mark.parametrize("name", units.SCALARS)
def test_scalars_are_narrowed(name):
    """Each scalar through single precision to the low bits of its field."""
    legal = [check(DATA, **plain(**{name: number})) for number in WIDE_INPUTS]
    assert sum(legal) >= 4, "most settings must not end the process"


def test_a_zero_point_of_70000():
    """It becomes 4464, its low 16 bits."""
    shifted = DATA + 4464
    expected = units.layer_norm(DATA, LUT, **plain()).numpy()
    support.assert_bits(units.layer_norm(shifted, LUT, **plain(zero_point=70000)), expected)


def _random_scalars(rng):
    scalars = {name: int(rng.integers(2**32) >> rng.integers(1, 32)) for name in units.SCALARS}
    for name in ("sum_of_x_shift", "sum_of_x_mult_n_shift", "sum_of_x_squares_shift"):
        scalars[name] = int(rng.integers(65))
    scalars["mul_act_exp"] = int(rng.integers(50))
    for name in units.SCALARS[-3:]:
        scalars[name] = int(rng.integers(2))
    scalars["x_squared_mult"] >>= int(rng.integers(16))
    return scalars


def _random_lut(rng):
    kind = rng.integers(3)
    if kind == 0:
        return LUT
    if kind == 1:
        return rng.integers(0, 2**24, 256).astype(np.float32)
    return support.random_values(rng, np.float32, (256,))


@pytest.mark.parametrize("seed", range(8))
def test_random(seed):
    """Any scalars, any table, elements of every kind."""
    rng = np.random.default_rng(seed)
    legal = 0
    for _ in range(60):
        shape = (*rng.integers(1, 3, 3), rng.integers(1, 70))
        value = rng.choice([rng.integers(-200, 200, shape), rng.integers(-(2**20), 2**20, shape)])
        if rng.integers(4) == 0:
            value = support.random_values(rng, np.float32, shape)
        legal += check(value, _random_lut(rng), **_random_scalars(rng))
    assert legal >= 15


@hypothesis.settings(derandomize=True, deadline=None)
@hypothesis.given(
    value=st.lists(
        st.floats(-(2.0**20), 2.0**20, width=32) | st.floats(width=32), min_size=1, max_size=40
    ),
    seed=st.integers(0, 2**32 - 1),
)
def test_property(value, seed):
    """Any floats under any scalars that do not end the process."""
    rng = np.random.default_rng(seed)
    value = np.float32(value).reshape(1, 1, 1, -1)
    hypothesis.assume(check(value, _random_lut(rng), **_random_scalars(rng)))


def test_not_a_number_and_beyond_32_bits():
    """Converted like every float that no integer holds."""
    special = np.float32([np.nan, np.inf, -np.inf, 2**31, -(2.0**31), 2**30, 1e30, -1e-45, 0.99])
    for size in (1, 3, 40):
        for x in special:
            value = np.resize(np.append(x, [1, 2, 3]), size).reshape(1, 1, 1, size)
            assert check(value, **plain(x_squared_mult=0, epsilon=2**30))


# ---- Refusals ----------------------------------------------------------------------------------


@pytest.mark.parametrize("shape", [(), (4,), (2, 4), (1, 2, 4), (1, 1, 1, 2, 4)])
def test_other_ranks_are_refused(shape):
    """The error names the shape."""
    text = f"Need value of rank 4, got shape [{','.join(map(str, shape))}]"
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        units.layer_norm(np.ones(shape, np.float32), LUT, **plain())


@pytest.mark.parametrize("name", units.SCALARS)
def test_empty_scalars_are_refused(name):
    """Before anything is read of them."""
    inputs = {key: np.array([number], np.uint32) for key, number in plain().items()}
    inputs[name] = np.zeros([0], np.uint32)
    text = f"Need {name} to hold at least 1 element (its element 0 is read), got 0 in shape [0]"
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        raw_ops.h_layernorm(value=DATA, lut=LUT, **inputs)


def test_scalars_read_element_0():
    """Scalars may be of any shape."""
    inputs = {key: np.array([[number, 999]], np.uint32) for key, number in plain().items()}
    expected = units.layer_norm(DATA, LUT, **plain()).numpy()
    support.assert_bits(
        raw_ops.h_layernorm(value=DATA, lut=LUT.reshape(16, 16), **inputs), expected
    )


def test_dimensions_beyond_32_bits_are_refused():
    """A dimension must not be cut to fit."""
    value = tf.reshape(tf.zeros([0]), tf.constant([2**31, 0, 1, 1], tf.int64))
    text = "Need every dimension of value to be at most 2147483647"
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        units.layer_norm(value, LUT, **plain())


@pytest.mark.parametrize("shape", [[1, 2, 3, 4], [None, None, 3, 4], None, [2]])
def test_shape_function(shape):
    """The output has the value's shape."""
    with tf.Graph().as_default():
        value = tf.compat.v1.placeholder(tf.float32, shape)
        result = units.layer_norm(value, LUT, **plain())
    assert (result.shape.rank is None) if shape is None else (result.shape.as_list() == shape)


# ---- Assertions --------------------------------------------------------------------------------

ROUNDING = "int64_t right_shift_bankers_rounding(int64_t, uint8_t, uint8_t)"


@pytest.mark.parametrize(
    ("code", "function", "expression"),
    [
        ("value = np.ones([1, 1, 1, 4097], 'f4')", COMPUTE, "vector_size <= MAX_VECTOR_SIZE"),
        (
            "value = np.ones([1, 1, 1048577, 1], 'f4')",
            COMPUTE,
            "(width_size * hight_size) <= MAX_NUM_VECTORS_IN_BATCH",
        ),
        (
            "value = np.ones([0, 1025, 1024, 1], 'f4')",
            COMPUTE,
            "(width_size * hight_size) <= MAX_NUM_VECTORS_IN_BATCH",
        ),
        ("lut = np.ones(255, 'f4')", COMPUTE, "lut_table_flat.size() == LUT_DEPTH"),
        ("lut = np.ones(257, 'f4')", COMPUTE, "lut_table_flat.size() == LUT_DEPTH"),
        (
            "value = np.full([1, 1, 1, 4], 9, 'f4'); scalars |= dict(zero_point=9, epsilon=0)",
            "void normalize_vector(const float*, float*, int32_t, const float*, "
            "const LayerNormParams&)",
            "variance > 0",
        ),
        (
            "value = np.full([1, 1, 1, 4], 2.0**28, 'f4')",
            "uint64_t get_sum_squares_of_x_minus_zp_times_n(const float*, uint16_t, uint16_t, "
            "uint16_t)",
            "sum_squares_of_x_minus_zp_times_n < ((uint64_t)1 << N_SUM_SQUARES_BITS)",
        ),
        ("scalars['sum_of_x_shift'] = 65", ROUNDING, "shift_amount <= 64"),
        ("scalars['sum_of_x_mult_n_shift'] = 255", ROUNDING, "shift_amount <= 64"),
        ("scalars['sum_of_x_squares_shift'] = 65", ROUNDING, "shift_amount <= 64"),
        ("scalars['mul_act_exp'] = 59", ROUNDING, "shift_amount <= 64"),
    ],
    ids=lambda x: x[:40] if isinstance(x, str) else None,
)
def test_assertions_end_the_process(code, function, expression):
    """The C library's message, under the unit's name, in the release build."""
    setup = "value, lut = np.ones([1, 1, 1, 4], 'f4'), units.plain_lut()\n"
    setup += "scalars = units.plain_scalars(4)\n"
    call = "\nunits.layer_norm(value, lut, **scalars)"
    units.ends_with(setup + code + call, SOURCE, function, expression)


def test_the_limits_themselves():
    """4096 channels and 2^20 positions pass."""
    assert check(np.ones([1, 1, 1, 4096]), **plain())
    assert check(np.ones([1, 1024, 1024, 1]), **plain())


# ---- The wrapper -------------------------------------------------------------------------------


def wrapped(value, lut=LUT):
    """The wrapper with the usual setting."""
    return ops.layer_norm(value, lut, **plain())


def test_wrapper():
    """Arrays, lists, tensors, variables, narrower types; scalars as numbers and tensors."""
    expected = units.layer_norm(DATA, LUT, **plain()).numpy()
    for value in (DATA, DATA.tolist(), tf.constant(DATA), tf.Variable(DATA), DATA.astype("f2")):
        for lut in (LUT, LUT.tolist(), tf.constant(LUT)):
            support.assert_bits(wrapped(value, lut), expected)
    tensors = {name: tf.constant(number, tf.uint32) for name, number in plain().items()}
    support.assert_bits(ops.layer_norm(DATA, LUT, **tensors), expected)


@pytest.mark.parametrize("name", units.SCALARS)
def test_every_scalar_reaches_its_input(name):
    """The wrapper's keywords are the op's inputs."""
    change = {name: 1 if name.endswith(("mode", "enable")) else 3}
    scalars = plain(epsilon=50, **{}) | change
    expected = units.layer_norm(DATA, LUT, **scalars).numpy()
    support.assert_bits(ops.layer_norm(DATA, LUT, **scalars), expected)


@pytest.mark.parametrize("number", [-1, 2**32])
@pytest.mark.parametrize("name", units.SCALARS)
def test_scalars_out_of_range_are_refused(name, number):
    """Scalars are unsigned 32-bit numbers."""
    with pytest.raises(ValueError, match=f"{name} must lie in"):
        ops.layer_norm(DATA, LUT, **plain(**{name: number}))


@pytest.mark.parametrize("argument", ["value", "lut"])
def test_other_types_are_refused(argument):
    """Data and table are float32."""
    arguments = {"value": DATA, "lut": LUT}
    arguments[argument] = arguments[argument].astype(np.float64)
    with pytest.raises(TypeError, match=f"{argument} must be float32, got float64"):
        ops.layer_norm(**arguments, **plain())


def test_in_functions_and_models(tmp_path):
    """Traced, saved, and as a Keras layer."""
    expected = units.layer_norm(DATA, LUT, **plain()).numpy()
    support.assert_bits(tf.function(wrapped, autograph=False)(DATA), expected)
    module = tf.Module()
    spec = tf.TensorSpec([None] * 4, tf.float32)
    module.call = tf.function(wrapped, input_signature=[spec], autograph=False)
    tf.saved_model.save(module, str(tmp_path / "model"))
    support.assert_bits(tf.saved_model.load(str(tmp_path / "model")).call(DATA), expected)

    symbolic = keras.Input([2, 1, 4])
    model = keras.Model(symbolic, wrapped(symbolic))
    support.assert_bits(model.predict(DATA, verbose=0), expected)
    assert not model.layers[-1].supports_jit
    model.save(tmp_path / "model.keras")
    support.assert_bits(keras.models.load_model(tmp_path / "model.keras")(DATA), expected)
