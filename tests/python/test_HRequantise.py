# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HRequantise through the runtime: bits against the oracle and the mobile runtime, refusals."""

from __future__ import annotations

import ctypes
import re

import hypothesis
import hypothesis.strategies as st
import keras
import numpy as np
import one_layer
import oracle
import pytest
import registration
import support
import tensorflow as tf

from bitfold import ops, raw_ops
from bitfold._frame.multipliers import quantise_multipliers

REGISTRATION = {
    "HRequantise": registration.Registration(
        inputs=["sums: T", "multipliers: float64"],
        attributes=[
            "T: {int32, int64}",
            "T_out: {int8, int16, int32}",
            'rounding: {"two_roundings", "short_multiplier", "one_rounding"}',
            "shift: int",
            "zero_point: int",
            "minimum: int",
            "maximum: int",
        ],
        output="output: T_out",
        kernels={("CPU", ""): "HRequantiseOp<CPUDevice>"},
    )
}
WRAPPERS = {"requantise": None}

ROUNDINGS = ("two_roundings", "short_multiplier", "one_rounding")
FORMS = [
    (sums, rounding)
    for sums in (np.int32, np.int64)
    for rounding in ROUNDINGS
    if (sums, rounding) != (np.int64, "two_roundings")
]
OUTPUTS = (np.int8, np.int16, np.int32)


def raw(sums, multipliers, *, rounding, shift=0, zero_point=0, minimum=None, maximum=None, dtype):
    """HRequantise; the bounds are the type's by default."""
    limits = np.iinfo(dtype)
    return raw_ops.h_requantise(
        sums=sums,
        multipliers=multipliers,
        rounding=rounding,
        shift=shift,
        zero_point=zero_point,
        minimum=limits.min if minimum is None else minimum,
        maximum=limits.max if maximum is None else maximum,
        T_out=tf.as_dtype(dtype),
    )


def reference(sums, multipliers, *, rounding, shift, zero_point, minimum, maximum, dtype):
    """The oracle's result."""
    wide = np.ascontiguousarray(sums, np.int64)
    multipliers = np.ascontiguousarray(multipliers)
    words = (ROUNDINGS.index(rounding), shift, zero_point, minimum, maximum)
    settings = (ctypes.c_int32 * 5)(*words)
    out = np.zeros(wide.shape, np.int32)
    status = oracle.library().reference_requantise(
        wide.ctypes.data, wide.size, multipliers.ctypes.data, multipliers.size, settings,
        out.ctypes.data,
    )  # fmt: skip
    assert status == 0, f"the oracle refuses with {status}"
    return out.astype(dtype)


def check(sums, multipliers, **settings):
    """Run HRequantise and the oracle on the same data and compare bits."""
    limits = np.iinfo(settings["dtype"])
    defaults = {"shift": 0, "zero_point": 0, "minimum": limits.min, "maximum": limits.max}
    expected = reference(sums, multipliers, **{**defaults, **settings})
    actual = raw(sums, multipliers, **settings)
    shown = np.broadcast_to(multipliers, sums.shape)
    support.assert_bits(actual, expected, sums=sums, multipliers=shown, **settings)
    return expected


def draw_sums(rng, dtype, shape):
    """Return sums of every magnitude, the type's ends among them."""
    limits = np.iinfo(dtype)
    sums = rng.integers(limits.min, limits.max, shape, dtype, endpoint=True)
    sums >>= rng.integers(0, limits.bits, shape, dtype)
    ends = rng.choice([limits.min, limits.min + 1, -1, 0, 1, limits.max - 1, limits.max], shape)
    return np.where(rng.integers(0, 8, shape) == 0, ends, sums).astype(dtype)


def draw_multipliers(rng, rounding, count, shift=0):
    """Return multipliers that the rounding takes, many of them powers of two."""
    low, high = {"two_roundings": (-31, 31), "short_multiplier": (-31, 7)}.get(rounding, (-60, 40))
    exponents = rng.integers(low, high - shift + 1, count)
    fractions = np.where(rng.integers(0, 3, count), rng.uniform(0.5, 1 - 2**-31, count), 0.5)
    return np.where(rng.integers(0, 20, count), np.ldexp(fractions, exponents), 0.0)


# ---- Against the oracle ------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", OUTPUTS)
@pytest.mark.parametrize(("sums", "rounding"), FORMS)
def test_random(sums, rounding, dtype):
    """Any rank from 1 on, one multiplier and one for each channel, any settings."""
    rng = np.random.default_rng([sums().itemsize, ROUNDINGS.index(rounding), dtype().itemsize])
    limits = np.iinfo(dtype)
    for rank in (1, 2, 3, 4, 5) * 8:
        shape = (*rng.integers(1, 5, rank - 1), rng.choice([1, 2, 3, 7, 16, 65, 300]))
        shift = int(rng.choice([0, 0, 1, 7]))
        minimum, maximum = np.sort(rng.integers(limits.min, limits.max, 2, endpoint=True))
        if rng.integers(2):
            minimum, maximum = limits.min, limits.max
        check(
            draw_sums(rng, sums, shape),
            draw_multipliers(rng, rounding, shape[-1] if rng.integers(2) else 1, shift),
            rounding=rounding,
            shift=shift,
            zero_point=int(rng.integers(limits.min, limits.max, endpoint=True)),
            minimum=int(minimum),
            maximum=int(maximum),
            dtype=dtype,
        )


@pytest.mark.parametrize(("sums", "rounding"), FORMS)
def test_large_tensors(sums, rounding):
    """So many elements that the pool's threads share them."""
    rng = np.random.default_rng(5)
    shape = (3, 70, 50, 37)
    multipliers = draw_multipliers(rng, rounding, shape[-1])
    check(draw_sums(rng, sums, shape), multipliers, rounding=rounding, dtype=np.int16)


@hypothesis.given(
    form=st.sampled_from(FORMS),
    seed=st.integers(0, 2**32 - 1),
    sum_=st.integers(-(2**63), 2**63 - 1),
    fraction=st.floats(0.5, 1, exclude_max=True),
)
def test_property(form, seed, sum_, fraction):
    """One sum and one multiplier of any bits among the others."""
    sums, rounding = form
    rng = np.random.default_rng(seed)
    values = draw_sums(rng, sums, [6, 5])
    values[1, 2] = sum_ >> (64 - np.iinfo(sums).bits)
    multipliers = draw_multipliers(rng, rounding, 5)
    multipliers[2] = np.ldexp(fraction, rng.integers(-31, 6))
    check(values, multipliers, rounding=rounding, dtype=np.int32, zero_point=seed % 256 - 128)


@pytest.mark.parametrize("shape", [[0], [0, 3], [2, 0, 3], [2, 3, 0]])
@pytest.mark.parametrize("count", [1, None])
def test_no_elements(shape, count):
    """Nothing is computed, and the shape stays."""
    multipliers = np.full([shape[-1] if count is None else count], 0.5)
    result = raw(np.zeros(shape, np.int32), multipliers, rounding=ROUNDINGS[0], dtype=np.int8)
    assert result.shape == shape
    assert result.dtype == tf.int8


def test_quantised_multipliers():
    """The helper gives the oracle's mantissas and exponents."""
    rng = np.random.default_rng(8)
    exponents = np.arange(-1074, 1024)
    fractions = [1.0, 1 + 2**-31, 2 - 2**-31, 2 - 2**-30, 1 + 3 * 2**-32, 2 - 2**-52]
    values = np.concatenate(
        [
            [0.0, np.finfo(float).max],
            np.ldexp(np.repeat(fractions, exponents.size), np.tile(exponents, len(fractions))),
            np.ldexp(rng.uniform(0.5, 1, 20000), rng.integers(-40, 40, 20000)),
        ]
    )
    with np.errstate(over="ignore"):
        values = np.concatenate([values, np.nextafter(values, 0), np.nextafter(values, np.inf)])
    values = np.ascontiguousarray(values[np.isfinite(values)])
    mantissas, found = np.zeros((2, values.size), np.int32)
    oracle.library().reference_quantise_multipliers(
        values.ctypes.data, values.size, mantissas.ctypes.data, found.ctypes.data
    )
    actual = quantise_multipliers(values)
    support.assert_bits(actual[0], mantissas, multipliers=values)
    support.assert_bits(actual[1], found, multipliers=values)
    assert [x.shape for x in quantise_multipliers(np.ones([2, 3]))] == [(2, 3)] * 2


# ---- Against the mobile runtime's reference kernels --------------------------------------------

INPUT_SCALE, OUTPUT_SCALE = np.float32(0.0123), np.float32(0.0457)


def _by_layer(sums, scales, *, dense, zero_point=0, by_one=False):
    """Compare the op with a layer, whose multipliers are formed as the runtime forms them."""
    input_scale, output_scale = (1.0, 1.0) if by_one else (INPUT_SCALE, OUTPUT_SCALE)
    expected = one_layer.requantised(
        sums,
        scales,
        dense=dense,
        input_scale=input_scale,
        output_scale=output_scale,
        zero_point=zero_point,
    )
    multipliers = float(input_scale) * scales.astype(float) / float(output_scale)
    eight = sums.dtype == np.int32
    rounding = "one_rounding" if dense else "two_roundings" if eight else "short_multiplier"
    dtype = np.int8 if eight else np.int16
    actual = raw(sums, multipliers, rounding=rounding, zero_point=zero_point, dtype=dtype)
    shown = np.broadcast_to(multipliers, sums.shape)
    support.assert_bits(actual, expected, sums=sums, multipliers=shown)


@pytest.mark.parametrize("dense", [False, True], ids=["convolution", "dense"])
@pytest.mark.parametrize("dtype", [np.int32, np.int64])
def test_layers(dense, dtype):
    """Sums of every size and results that the output's type holds, a scale for each channel."""
    rng = np.random.default_rng([dense, dtype().itemsize])
    count, most = 20000, 100 if dtype == np.int32 else 30000
    sums = draw_sums(rng, dtype, count)
    if dtype == np.int64:
        sums >>= 17  # as many bits as the runtime vouches for
    to_all = rng.uniform(0, most, count) / (np.abs(sums.astype(float)) + 1)
    _by_layer(sums, to_all.astype(np.float32).clip(2.0**-28, 400), dense=dense)
    any_scale = np.ldexp(rng.uniform(0.5, 1, count), rng.integers(-25, 7, count))
    _by_layer(sums, any_scale.astype(np.float32), dense=dense)


@pytest.mark.parametrize("dense", [False, True], ids=["convolution", "dense"])
@pytest.mark.parametrize("dtype", [np.int32, np.int64])
def test_layers_at_ties(dense, dtype):
    """Scales that are powers of two: most results lie half-way between two."""
    rng = np.random.default_rng(3)
    sums = rng.integers(-300, 300, 5000).astype(dtype)
    scales = np.ldexp(np.float32(0.5), rng.integers(-8, 7, 5000)).astype(np.float32)
    _by_layer(sums, scales, dense=dense, by_one=True)


def test_dense_layers_at_ties_of_double_precision():
    """Sums of odd multiples of half the divisor: quotients in double precision tell ways apart."""
    rng = np.random.default_rng(4)
    for divisor in (3, 5, 7, 49, 243, 4095):
        scales = (2 * rng.integers(0, 60, 500) + 1).astype(np.float32)
        sums = (divisor * rng.choice([-5, -3, -1, 1, 3, 5], 500)).astype(np.int64)
        expected = one_layer.requantised(sums, scales, dense=True, output_scale=2.0 * divisor)
        multipliers = scales.astype(float) / (2.0 * divisor)
        actual = raw(sums, multipliers, rounding="one_rounding", dtype=np.int16)
        support.assert_bits(actual, expected, sums=sums, multipliers=multipliers)


@pytest.mark.parametrize("dense", [False, True], ids=["convolution", "dense"])
@pytest.mark.parametrize("zero_point", [-128, -100, 0, 127])
def test_layers_with_large_multipliers(dense, zero_point):
    """Sums that the shift wraps, results that no int32 holds, and the zero point after them."""
    rng = np.random.default_rng(6)
    sums = draw_sums(rng, np.int32, 6000)
    scales = np.ldexp(rng.uniform(0.5, 1, 6000), rng.integers(-3, 32, 6000)).astype(np.float32)
    _by_layer(sums, scales.clip(None, 2.0**30), dense=dense, zero_point=zero_point, by_one=True)


# ---- Refusals ----------------------------------------------------------------------------------

SUMS = np.array([[10, -20, 30], [1000, -2000, 3000]], np.int32)


@pytest.mark.parametrize(
    ("changes", "text"),
    [
        ({"sums": np.int32(7)}, "Need sums of rank 1 or more, got a scalar"),
        (
            {"multipliers": np.ones([1, 3])},
            "Need multipliers of rank 1, got shape [1,3]",
        ),
        ({"multipliers": np.float64(1)}, "Need multipliers of rank 1, got shape []"),
        (
            {"multipliers": np.ones([2])},
            "Need 1 multiplier or one for each of the 3 channels of sums, got 2",
        ),
        (
            {"multipliers": np.ones([0])},
            "Need 1 multiplier or one for each of the 3 channels of sums, got 0",
        ),
        (
            {"multipliers": np.array([1, -0.5, 1])},
            "Need multipliers that are finite and not negative, got -0.5 in channel 1",
        ),
        (
            {"multipliers": np.array([np.nan])},
            "Need multipliers that are finite and not negative, got nan in channel 0",
        ),
        (
            {"multipliers": np.array([1, 1, np.inf])},
            "Need multipliers that are finite and not negative, got inf in channel 2",
        ),
        (
            {"multipliers": np.array([1, 2.0**31, 1])},
            "Need exponents from -31 to 31 for two_roundings, got 32 (multiplier 2147483648 with "
            "a shift of 0) in channel 1",
        ),
        (
            {"shift": 31},
            "Need exponents from -31 to 31 for two_roundings, got 32 (multiplier 1 with a shift of "
            "31) in channel 0",
        ),
        (
            {"rounding": "short_multiplier", "shift": 7},
            "Need exponents from -31 to 7 for short_multiplier, got 8 (multiplier 1 with a shift "
            "of 7) in channel 0",
        ),
        (
            {"shift": -33},
            "Need exponents from -31 to 31 for two_roundings, got -32 (multiplier 1 with a shift "
            "of -33) in channel 0",
        ),
        (
            {"rounding": "one_rounding", "shift": 1024},
            "Need multipliers that the shift leaves finite, got infinity (multiplier 1 with a "
            "shift of 1024) in channel 0",
        ),
        (
            {"sums": SUMS.astype(np.int64)},
            "Need int32 sums for two_roundings, got int64",
        ),
        ({"zero_point": 128}, "Need a zero_point in [-128, 127], got 128"),
        (
            {"zero_point": -32769, "dtype": np.int16},
            "Need a zero_point in [-32768, 32767], got -32769",
        ),
        (
            {"minimum": 5, "maximum": 4},
            "Need -128 <= minimum <= maximum <= 127, got a minimum of 5 and a maximum of 4",
        ),
        (
            {"minimum": -129},
            "Need -128 <= minimum <= maximum <= 127, got a minimum of -129 and a maximum of 127",
        ),
        (
            {"maximum": 32768, "dtype": np.int16},
            "Need -32768 <= minimum <= maximum <= 32767, got a minimum of -32768 and a maximum of "
            "32768",
        ),
    ],
    ids=str,
)
def test_refusals(changes, text):
    """What is needed and what came, before anything is computed."""
    arguments = {"sums": SUMS, "multipliers": np.ones([3]), "rounding": "two_roundings"}
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        raw(**{**arguments, "dtype": np.int8, **changes})


@pytest.mark.parametrize("rounding", ["three_roundings", ""])
def test_other_roundings_are_refused(rounding):
    """By the runtime, which knows the allowed ones."""
    with pytest.raises(tf.errors.InvalidArgumentError, match="rounding"):
        raw(SUMS, np.ones([1]), rounding=rounding, dtype=np.int8)


def _inferred(sums, multipliers):
    with tf.Graph().as_default():
        return raw(
            tf.compat.v1.placeholder(tf.int32, sums),
            tf.compat.v1.placeholder(tf.float64, multipliers),
            rounding="two_roundings",
            dtype=np.int16,
        )


@pytest.mark.parametrize("sums", [[3], [None, 3], [1, None, 2, 3], [2, None], None])
@pytest.mark.parametrize("multipliers", [[1], [3], [None], None])
def test_shape_function(sums, multipliers):
    """The output has the sums' shape."""
    result = _inferred(sums, multipliers)
    assert result.dtype == tf.int16
    assert (result.shape.rank is None) if sums is None else (result.shape.as_list() == sums)


@pytest.mark.parametrize(
    ("sums", "multipliers", "text"),
    [
        ([], [1], "Shape must be at least rank 1 but is rank 0"),
        ([2, 3], [], "Shape must be rank 1 but is rank 0"),
        ([2, 3], [1, 3], "Shape must be rank 1 but is rank 2"),
        ([2, 3], [2], "Need 1 multiplier or one for each of the 3 channels of sums, got 2"),
    ],
)
def test_shape_function_refuses(sums, multipliers, text):
    """Where the shapes are known."""
    with pytest.raises(ValueError, match=re.escape(text)):
        _inferred(sums, multipliers)


# ---- The wrapper -------------------------------------------------------------------------------

MULTIPLIERS = np.array([0.3, 0.01, 0.002])
SETTINGS = {
    "rounding": "one_rounding",
    "zero_point": -3,
    "minimum": -7,
    "maximum": 9,
    "dtype": tf.int16,
    "shift": 2,
}


@pytest.mark.parametrize("name", [None, *SETTINGS])
def test_every_setting_reaches_its_attribute(name):
    """The wrapper's keywords are the op's attributes."""
    settings = {} if name is None else {name: SETTINGS[name]}
    generated = {"rounding": "two_roundings", "dtype": np.int8} | settings
    generated["dtype"] = tf.as_dtype(generated["dtype"]).as_numpy_dtype
    expected = raw(SUMS, MULTIPLIERS, **generated).numpy()
    support.assert_bits(ops.requantise(SUMS, MULTIPLIERS, **settings), expected)


def test_wrapper():
    """Arrays, lists, tensors, variables, narrower types; one multiplier as a number."""
    expected = raw(SUMS, MULTIPLIERS, rounding=ROUNDINGS[0], dtype=np.int8).numpy()
    multipliers = (MULTIPLIERS, MULTIPLIERS.tolist(), tf.constant(MULTIPLIERS))
    for sums in (SUMS, SUMS.tolist(), tf.constant(SUMS), tf.Variable(SUMS), SUMS.astype(np.int16)):
        for factors in multipliers:
            support.assert_bits(ops.requantise(sums, factors), expected)
    single = raw(SUMS, [0.5], rounding=ROUNDINGS[0], dtype=np.int8).numpy()
    for factor in (0.5, [0.5], np.float32(0.5), tf.constant(0.5, tf.float64)):
        support.assert_bits(ops.requantise(SUMS, factor), single)


def test_lists_and_wide_sums():
    """A list is int32 where that holds it; an array keeps its type."""
    support.assert_bits(ops.requantise([5, -5], 1), np.int8([5, -5]))
    support.assert_bits(ops.requantise([], 1), np.int8([]))
    wide = ops.requantise([2**40, -5], 2**-35, rounding="one_rounding", dtype="int16")
    support.assert_bits(wide, np.int16([32, 0]))
    with pytest.raises(TypeError, match="sums must be int32 for two_roundings, got int64"):
        ops.requantise([2**40], 1)
    with pytest.raises(TypeError, match="sums must be int32 for two_roundings, got int64"):
        ops.requantise(SUMS.astype(np.int64), 1)


@pytest.mark.parametrize(
    ("arguments", "error", "text"),
    [
        ({"sums": SUMS.astype(float)}, TypeError, "sums must be int32 for two_roundings, got flo"),
        (
            {"sums": SUMS.astype(np.uint32), "rounding": "one_rounding"},
            TypeError,
            "sums must be int32 or int64 for one_rounding, got uint32",
        ),
        ({"sums": 7}, ValueError, "sums must have rank 1 or more, got a scalar"),
        ({"multipliers": ["1"]}, TypeError, "multipliers must be real numbers, got ['1']"),
        (
            {"multipliers": tf.constant([1.0])},
            TypeError,
            "multipliers must be float64, got float32",
        ),
        (
            {"multipliers": [1.0, 2.0]},
            ValueError,
            "multipliers must be one number or of shape [1] or [C] with C 3, the channels of sums, "
            "got shape (2,)",
        ),
        (
            {"multipliers": np.ones([1, 3])},
            ValueError,
            "multipliers must be one number or of shape [1] or [C] with C 3, the channels of sums, "
            "got shape (1, 3)",
        ),
        (
            {"multipliers": [1, -1, 1]},
            ValueError,
            "multipliers must be finite and not negative, got -1.0 in channel 1",
        ),
        (
            {"multipliers": [1, 1, np.nan]},
            ValueError,
            "multipliers must be finite and not negative, got nan in channel 2",
        ),
        (
            {"multipliers": [1, 2.0**31, 1]},
            ValueError,
            "multipliers must have exponents from -31 to 31 for two_roundings, got 2147483648.0 "
            "with a shift of 0 in channel 1",
        ),
        (
            {"rounding": "short_multiplier", "shift": 7},
            ValueError,
            "multipliers must have exponents from -31 to 7 for short_multiplier, got 1.0 with a "
            "shift of 7 in channel 0",
        ),
        (
            {"shift": 2**31 - 1},
            ValueError,
            "multipliers must have exponents from -31 to 31 for two_roundings, got 1.0 with a "
            "shift of 2147483647 in channel 0",
        ),
        (
            {"rounding": "one_rounding", "shift": 1024},
            ValueError,
            "multipliers must stay finite after the shift, got 1.0 with a shift of 1024 in "
            "channel 0",
        ),
        (
            {"rounding": "none"},
            ValueError,
            "rounding must be one of two_roundings, short_multiplier, one_rounding, got 'none'",
        ),
        ({"dtype": tf.uint8}, TypeError, "dtype must be int8, int16 or int32, got uint8"),
        ({"shift": 1.5}, TypeError, "shift must be an integer, got 1.5"),
        ({"zero_point": 200}, ValueError, "zero_point must lie in [-128, 127], got 200"),
        (
            {"minimum": 3, "maximum": 2},
            ValueError,
            "minimum and maximum must be in order and lie in [-128, 127], got 3 and 2",
        ),
        (
            {"maximum": 128},
            ValueError,
            "minimum and maximum must be in order and lie in [-128, 127], got -128 and 128",
        ),
    ],
    ids=str,
)
def test_the_wrapper_refuses(arguments, error, text):
    """Early, and in a function's graph the same."""
    arguments = {"sums": SUMS, "multipliers": np.ones([3])} | arguments

    def call():
        return ops.requantise(**arguments)

    for function in (call, tf.function(call, autograph=False)):
        with pytest.raises(error, match=re.escape(text)):
            function()


def test_refusals_where_shapes_are_partly_known():
    """The channels are what counts; multipliers in a tensor are looked at when the op runs."""
    spec = tf.TensorSpec([None, 3], tf.int32)
    factors = tf.TensorSpec([None], tf.float64)
    with pytest.raises(ValueError, match="multipliers must be one number or of shape"):
        tf.function(lambda x: ops.requantise(x, [1, 2]), autograph=False).get_concrete_function(
            spec
        )
    call = tf.function(ops.requantise, input_signature=[spec, factors], autograph=False)
    support.assert_bits(call(SUMS, MULTIPLIERS), ops.requantise(SUMS, MULTIPLIERS).numpy())
    with pytest.raises(tf.errors.InvalidArgumentError, match="Need 1 multiplier or one for each"):
        call(SUMS, [1.0, 2.0])
    with pytest.raises(tf.errors.InvalidArgumentError, match="not negative, got -1 in channel 0"):
        call(SUMS, [-1.0])


def test_in_functions_and_models(tmp_path):
    """Traced, saved, and as a Keras layer."""
    settings = {"zero_point": 4, "dtype": tf.int16, "rounding": "short_multiplier"}
    expected = ops.requantise(SUMS, MULTIPLIERS, **settings).numpy()

    def call(x):
        return ops.requantise(x, MULTIPLIERS, **settings)

    support.assert_bits(tf.function(call, autograph=False)(SUMS), expected)
    module = tf.Module()
    spec = tf.TensorSpec([None, 3], tf.int32)
    module.call = tf.function(call, input_signature=[spec], autograph=False)
    tf.saved_model.save(module, str(tmp_path / "model"))
    support.assert_bits(tf.saved_model.load(str(tmp_path / "model")).call(SUMS), expected)

    symbolic = keras.Input([3], dtype="int32")
    model = keras.Model(symbolic, call(symbolic))
    support.assert_bits(model.predict(SUMS, verbose=0), expected)
    model.save(tmp_path / "model.keras")
    support.assert_bits(keras.models.load_model(tmp_path / "model.keras")(SUMS), expected)
