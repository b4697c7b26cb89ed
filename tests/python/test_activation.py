# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HActivation through the runtime: bits, groups, attributes, refusals, wrapper."""

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

REGISTRATION = {
    "HActivation": registration.Registration(
        inputs=[
            "inp: int64",
            "x_points: int64",
            "offsets: int64",
            "slopes_m: int64",
            "slopes_e: int64",
            "size_splits: int64",
        ],
        attributes=[
            "is_8bit_to_16bit_mode: bool",
            "is_velquin: bool",
            "ebias: int",
            "clip_bits: int",
            "beta: int",
            "is_16bit_precision_mode: bool",
            "is_signed_output: bool",
        ],
        output="output: int32",
        kernels={("CPU", ""): "Activation<CPUDevice>"},
    )
}
WRAPPERS = {"activation": None}


def check(inp, tables, size_splits, **settings):
    """Run HActivation and the oracle on the same data and compare bits."""
    inp = np.asarray(inp, np.int64)
    tables = {name: np.asarray(table, np.int64) for name, table in tables.items()}
    size_splits = np.asarray(size_splits, np.int64)
    actual = units.activation(inp, tables, size_splits, **settings).numpy()
    expected = units.reference().activation(inp, tables, size_splits, **settings)
    support.assert_bits(actual, expected, inp=inp, **tables, size_splits=size_splits, **settings)
    return expected


def table(points, offsets, slopes_m, slopes_e):
    """Return the tables of one group."""
    rows = (points, offsets, slopes_m, slopes_e)
    return {
        name: np.array([row], np.int64).reshape(1, -1)
        for name, row in zip(units.ACTIVATION_TABLES, rows, strict=True)
    }


def vector(*values):
    """Return the values as the channels of one position."""
    return np.array(values, np.int64).reshape(1, 1, 1, -1)


RAMP = table([0], [0, 0], [0, 64], [6, 6])  # 0 below 0, x from there on


# ---- Worked values -----------------------------------------------------------------------------


def test_a_breakpoint_belongs_to_the_piece_after_it():
    """The first breakpoint above x decides."""
    steps = table([10, 20, 20, 30], [0, 1, 2, 3, 4], [0] * 5, [6] * 5)
    result = check(vector(9, 10, 19, 20, 29, 30, -(2**31), 2**31 - 1), steps, [8])
    assert result.ravel().tolist() == [0, 1, 1, 3, 3, 4, 0, 4]


def test_clip_comes_before_the_offset():
    """From -clip_bits - 1 to clip_bits, then the offset."""
    scaled = table([], [5], [64], [6])
    result = check(vector(200, -200, 127, -128, 3), scaled, [5], clip_bits=127)
    assert result.ravel().tolist() == [132, -123, 132, -123, 8]


def test_magnitude_and_product():
    """-32.5 as a magnitude gives -32, a tie, and 0; as a product -33 and -1."""
    shifted = table([], [0], [1], [12])
    assert check(vector(-2080), shifted, [1]).item() == 0
    assert check(vector(-2080), shifted, [1], is_velquin=True).item() == -1
    assert check(vector(-2080), shifted, [1], is_16bit_precision_mode=True).item() == -1


def test_8_to_16_bits_multiplies_by_256():
    """Before the shift."""
    scaled = table([], [0], [1], [6])
    settings = {"clip_bits": 10**6, "is_8bit_to_16bit_mode": True}
    assert check(vector(64), scaled, [1], **settings).item() == 256


def test_ebias_adds_to_every_exponent():
    """In 32 bits."""
    for ebias, exponent in ((3, 3), (-2, 8), (2**31 - 1, -(2**31) + 7), (-(2**31), 2**31 - 58)):
        scaled = table([], [0], [64], [exponent])
        check(vector(1, 2, 100), scaled, [3], ebias=ebias)


def test_the_magnitude_of_the_smallest_product():
    """2^30 * 2^25 * 256 is -2^63 in 64 bits, whose magnitude is 2^63."""
    for exponent in range(70):
        smallest = table([], [3], [2**25], [exponent])
        settings = {"clip_bits": 2**31 - 9, "is_8bit_to_16bit_mode": True}
        check(vector(*[2**30] * 17), smallest, [17], **settings)


def test_low_words_count():
    """Of each element, breakpoint aside, the low 32 bits."""
    scaled = table([2**31], [2**32 + 5, 0], [64 + 2**40, 0], [6 - 2**33, 0])
    assert check(vector(2**32 + 7, -(2**32) - 7), scaled, [2]).ravel().tolist() == [12, -2]


@pytest.mark.parametrize("point", [-(2**63), -(2**31) - 1, -(2**31), -(2**31) + 1])
@pytest.mark.parametrize("count", [1, 2, 9])
def test_breakpoints_that_every_input_reaches(point, count):
    """The pieces before them are never used."""
    points = [point] * count + [50]
    pieces = count + 2
    steps = table(points, 10 * np.arange(pieces), np.full(pieces, 64), np.full(pieces, 6))
    check(vector(-(2**31), -(2**31) + 1, -1, 0, 49, 50, 2**31 - 1), steps, [7])


# ---- Groups ------------------------------------------------------------------------------------


def test_groups_follow_each_other():
    """Groups of 0 and below take no channel; channels that no group takes are 0."""
    tables = {
        "x_points": [[0], [0], [0]],
        "offsets": [[1, 1], [2, 2], [3, 3]],
        "slopes_m": [[0, 0]] * 3,
        "slopes_e": [[6, 6]] * 3,
    }
    inp = np.full([2, 1, 2, 6], 9)
    result = check(inp, tables, [2, -5, 3])
    assert result.reshape(4, 6).tolist() == [[1, 1, 3, 3, 3, 0]] * 4
    result = check(inp, tables, [0, 6])
    assert set(result.ravel()) == {2}


@pytest.mark.parametrize("splits", [[], [0], [-3, 0]])
def test_channels_of_no_group_are_zero(splits):
    """Never what the memory held before."""
    full = tf.ones([1, 64, 64, 3], tf.int32)
    blocks = [full + i for i in range(16)]
    del blocks
    groups = len(splits)
    tables = {name: np.zeros([groups, 2], np.int64) for name in units.ACTIVATION_TABLES}
    assert not check(np.ones([1, 64, 64, 3]), tables, splits).any()


@pytest.mark.parametrize("shape", [(0, 2, 2, 3), (2, 0, 2, 3), (2, 2, 0, 3), (1, 1, 1, 0)])
def test_nothing_to_do(shape):
    """No positions, or no channels."""
    check(np.zeros(shape), RAMP, [shape[3]])


def test_rows_of_groups_without_channels_are_not_needed():
    """Only groups with channels count as read."""
    check(vector(1, 2), RAMP, [2, 0, -1])


# ---- Against the oracle ------------------------------------------------------------------------

CLIPS = (127, 0, -1, -2, 255, 32767, 2**31 - 1, -(2**31))


def _random_case(rng, points):
    """Return any input under any tables and settings."""
    splits = rng.integers(-1, 20, rng.integers(1, 4))
    channels = int(np.maximum(splits, 0).sum() + rng.integers(0, 3))
    tables = {"x_points": units.random_int64(rng, [splits.size, points])}
    if rng.integers(3):
        tables["x_points"] = rng.integers(-300, 300, [splits.size, points])
    if rng.integers(4):
        tables["x_points"].sort(axis=1)
    for name in units.ACTIVATION_TABLES[1:]:
        shape = [splits.size, points + 1 + rng.integers(0, 3)]
        small = rng.integers(-70, 70, shape)
        tables[name] = np.where(rng.integers(0, 5, shape), small, units.random_int64(rng, shape))
    shape = (*rng.integers(1, 4, 3), channels)
    small = rng.integers(-400, 400, shape)
    inp = np.where(rng.integers(0, 3, shape), small, units.random_int64(rng, shape))
    settings = {
        name: bool(rng.integers(2))
        for name in ("is_8bit_to_16bit_mode", "is_velquin", "is_16bit_precision_mode")
    }
    settings |= {"clip_bits": int(rng.choice(CLIPS)), "beta": int(rng.integers(-(2**31), 2**31))}
    settings["ebias"] = int(rng.choice([0, 3, 7, 12, -9, 2**31 - 1, -(2**31)]))
    settings["is_signed_output"] = bool(rng.integers(2))
    return inp, tables, splits, settings


@pytest.mark.parametrize("points", [0, 1, 2, 7, 8, 9, 31, 32, 33, 40])
def test_random(points):
    """Any tables, any settings."""
    rng = np.random.default_rng(points)
    for _ in range(40):
        inp, tables, splits, settings = _random_case(rng, points)
        check(inp, tables, splits, **settings)


@pytest.mark.parametrize("size", [1, 7, 8, 9, 15, 16, 17, 255, 256, 257, 4096])
def test_sizes(size):
    """Around every lane and tile width, one group and two."""
    rng = np.random.default_rng(size)
    inp = rng.integers(-100, 100, [2, 1, 1, size])
    check(inp, RAMP, [size], clip_bits=50)
    check(inp, {k: np.tile(v, (2, 1)) for k, v in RAMP.items()}, [size // 2, size - size // 2])


@hypothesis.settings(derandomize=True, deadline=None)
@hypothesis.given(
    points=st.integers(0, 12),
    seed=st.integers(0, 2**32 - 1),
    extreme=st.integers(-(2**63), 2**63 - 1),
    changes=st.fixed_dictionaries(
        {
            "ebias": st.integers(-(2**31), 2**31 - 1) | st.integers(-9, 20),
            "clip_bits": st.integers(-(2**31), 2**31 - 1) | st.integers(0, 300),
        }
    ),
)
def test_property(points, seed, extreme, changes):
    """Any settings, one any value among the others."""
    inp, tables, splits, settings = _random_case(np.random.default_rng(seed), points)
    if inp.size:
        inp.ravel()[seed % inp.size] = extreme
    check(inp, tables, splits, **{**settings, **changes})


def test_unused_attributes():
    """`beta` and `is_signed_output` change nothing."""
    expected = check(vector(-5, 0, 300), RAMP, [3])
    for beta in (-(2**31), 7, 2**31 - 1):
        result = units.activation(
            vector(-5, 0, 300), RAMP, np.int64([3]), beta=beta, is_signed_output=False
        )
        support.assert_bits(result, expected)


# ---- Refusals ----------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("changes", "splits", "text"),
    [
        (
            {"x_points": [0, 1]},
            [3],
            "Need x_points of shape [1, 0] or larger (groups, pieces), got [0,1]",
        ),
        (
            {"offsets": [1, 1]},
            [3],
            "Need offsets of shape [1, 2] or larger (groups, pieces), got [1,1]",
        ),
        (
            {"slopes_m": [0, 2]},
            [3],
            "Need slopes_m of shape [1, 2] or larger (groups, pieces), got [0,2]",
        ),
        (
            {"slopes_e": [1, 0]},
            [3],
            "Need slopes_e of shape [1, 2] or larger (groups, pieces), got [1,0]",
        ),
        (
            {},
            [1, 1],
            "Need x_points of shape [2, 0] or larger (groups, pieces), got [1,1]",
        ),
        (
            {},
            [4],
            "Need size_splits to sum to at most the 3 channels of inp, got 4",
        ),
        (
            {},
            [3, -1, 2**62, 2**62],
            "Need size_splits to sum to at most the 3 channels of inp, got 9223372036854775807",
        ),
    ],
    ids=str,
)
def test_malformed_tables_are_refused(changes, splits, text):
    """Before anything is read of them."""
    tables = RAMP | {name: np.zeros(shape, np.int64) for name, shape in changes.items()}
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        units.activation(vector(1, 2, 3), tables, np.int64(splits))


@pytest.mark.parametrize(
    "code",
    [
        "inp = np.ones([1, 1, 2], 'i8')",
        "tables['x_points'] = np.ones([1], 'i8')",
        "tables['slopes_e'] = np.ones([1, 1, 2], 'i8')",
        "splits = np.ones([1, 1], 'i8')",
    ],
)
def test_other_ranks_end_the_process(code):
    """Through the runtime's own check."""
    setup = """
inp, splits = np.ones([1, 1, 1, 1], 'i8'), np.ones([1], 'i8')
tables = {n: np.zeros([1, 1 + (n != "x_points")], 'i8') for n in units.ACTIVATION_TABLES}
"""
    result = units.run(setup + code + "\nunits.activation(inp, tables, splits)")
    assert result.returncode == -6, result.stderr
    assert "Check failed" in result.stderr


@pytest.mark.parametrize("shape", [[1, 2, 3, 4], [None, None, 3, 4], None, [2]])
def test_shape_function(shape):
    """The output has the input's shape."""
    with tf.Graph().as_default():
        inp = tf.compat.v1.placeholder(tf.int64, shape)
        result = units.activation(inp, RAMP, np.int64([1]))
    assert result.dtype == tf.int32
    assert (result.shape.rank is None) if shape is None else (result.shape.as_list() == shape)


@pytest.mark.parametrize("attribute", ["ebias", "clip_bits", "beta"])
@pytest.mark.parametrize("number", [2**40, -(2**31) - 1])
@pytest.mark.parametrize("in_function", [False, True])
def test_attributes_beyond_32_bits(attribute, number, in_function):
    """The runtime's error says which attribute; the process goes on."""
    output = units.survives(f"""
tables = {{n: np.zeros([1, 1 + (n != "x_points")], 'i8') for n in units.ACTIVATION_TABLES}}
x, splits = np.ones([1, 1, 1, 1], 'i8'), np.ones([1], 'i8')
call = lambda **k: units.activation(x, tables, splits, **k)
function = tf.function(call, autograph=False) if {in_function} else call
for _ in range(2):
    try:
        function({attribute}={number})
        print("accepted")
    except tf.errors.OpError as error:
        print(type(error).__name__, error.message.splitlines()[0])
print(call().numpy().ravel(), tf.constant(1).numpy())
""")
    first, second, last = output.splitlines()
    for message in (first, second):
        assert message.startswith("InvalidArgumentError")
        assert attribute in message
    assert last == "[0] 1"


# ---- The wrapper -------------------------------------------------------------------------------

DATA = np.random.default_rng(3).integers(-300, 300, [2, 2, 1, 5])
TABLES = table([-50, 0, 70], [1, 2, 3, 4], [3, -40, 64, 9], [6, 7, 6, 5])
SETTINGS = {
    "ebias": 1,
    "clip_bits": 90,
    "is_8bit_to_16bit_mode": True,
    "is_16bit_precision_mode": True,
    "is_velquin": True,
}


def wrapped(value, **settings):
    """The wrapper on the tables above."""
    return ops.activation(value, **TABLES, **settings)


@pytest.mark.parametrize("name", [None, *SETTINGS])
def test_every_setting_reaches_its_attribute(name):
    """The wrapper's keywords are the op's attributes."""
    settings = {} if name is None else {name: SETTINGS[name]}
    expected = units.activation(DATA, TABLES, np.int64([5]), **settings).numpy()
    support.assert_bits(wrapped(DATA, **settings), expected)


def test_wrapper():
    """Arrays, lists, tensors, variables, narrower types; one group of all channels by default."""
    expected = units.activation(DATA, TABLES, np.int64([5])).numpy()
    forms = (DATA, DATA.tolist(), tf.constant(DATA), tf.Variable(DATA), DATA.astype(np.int16))
    for value in (*forms, tf.constant(DATA, tf.int32)):
        support.assert_bits(wrapped(value), expected)
        support.assert_bits(wrapped(value, size_splits=[5]), expected)
    lists = {name: value.tolist() for name, value in TABLES.items()}
    support.assert_bits(ops.activation(DATA, **lists), expected)
    two = {name: np.tile(value, (2, 1)) for name, value in TABLES.items()}
    support.assert_bits(ops.activation(DATA, **two, size_splits=np.int32([2, 3])), expected)


@pytest.mark.parametrize("argument", ["value", *units.ACTIVATION_TABLES, "size_splits"])
def test_fractions_are_refused(argument):
    """All inputs are whole numbers; a float32 tensor as value is cut to such (gradients)."""
    arguments = {"value": DATA, **TABLES, "size_splits": np.array([5])}
    arguments[argument] = arguments[argument] + 0.5
    with pytest.raises(TypeError, match=f"{argument} must be an integer"):
        ops.activation(**arguments)
    dtype = tf.float64 if argument == "value" else tf.float32
    arguments[argument] = tf.constant(arguments[argument], dtype)
    with pytest.raises(TypeError, match=f"{argument} must be int64, got {dtype.name}"):
        ops.activation(**arguments)


@pytest.mark.parametrize("name", ["ebias", "clip_bits"])
@pytest.mark.parametrize("number", [2**31, 2**40, -(2**31) - 1])
def test_numbers_beyond_32_bits_are_refused(name, number):
    """An error that names the argument, whoever finds it, and the process goes on."""
    output = units.survives(f"""
from bitfold import ops
zeros = np.zeros([1, 2], np.int64)
try:
    ops.activation(np.zeros([1, 1, 1, 1], np.int64), [[0]], zeros, zeros, zeros, {name}={number})
except (ValueError, tf.errors.InvalidArgumentError) as error:
    print("{name}" in str(error))
""")
    assert output == "True\n"


@pytest.mark.parametrize("name", ["ebias", "clip_bits"])
def test_settings_that_are_no_integers_are_refused(name):
    """A fraction must not be dropped silently."""
    with pytest.raises(TypeError, match=name):
        wrapped(DATA, **{name: 1.5})


def test_in_functions_and_models(tmp_path):
    """Traced, with the channels unknown, saved, and as a Keras layer."""
    expected = wrapped(DATA, **SETTINGS).numpy()

    def call(x):
        return wrapped(x, **SETTINGS)

    support.assert_bits(tf.function(call, autograph=False)(DATA), expected)
    module = tf.Module()
    spec = tf.TensorSpec([None] * 4, tf.int64)
    module.call = tf.function(call, input_signature=[spec], autograph=False)
    tf.saved_model.save(module, str(tmp_path / "model"))
    support.assert_bits(tf.saved_model.load(str(tmp_path / "model")).call(DATA), expected)

    symbolic = keras.Input([2, 1, 5], dtype="int64")
    model = keras.Model(symbolic, call(symbolic))
    support.assert_bits(model.predict(DATA, verbose=0), expected)
    assert not model.layers[-1].supports_jit
    model.save(tmp_path / "model.keras")
    support.assert_bits(keras.models.load_model(tmp_path / "model.keras")(DATA), expected)


def test_all_attributes_are_required():
    """None of them has a default in the generated op."""
    for name in units.ACTIVATION_SETTINGS:
        settings = {k: v for k, v in units.ACTIVATION_SETTINGS.items() if k != name}
        with pytest.raises(TypeError, match=name):
            raw_ops.h_activation(inp=DATA, size_splits=np.int64([5]), **TABLES, **settings)
