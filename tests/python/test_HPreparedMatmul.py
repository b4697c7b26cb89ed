# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HPreparedMatmul through the runtime: bits, lines, refusals; calls of several sizes."""

from __future__ import annotations

import re
import threading

import hypothesis
import hypothesis.strategies as st
import numpy as np
import pytest
import registration
import stored
import support
import tensorflow as tf

from bitfold import ops, raw_ops

_TYPES = {"int8": "int8_t", "int16": "int16_t"}
REGISTRATION = {
    "HPreparedMatmul": registration.Registration(
        inputs=["first: T", "second: T", "multipliers: float64"],
        attributes=[
            "T: {int8, int16}",
            "T_out: {int8, int16}",
            "transpose_first: bool",
            "transpose_second: bool",
            "first_zero_point: int",
            "second_zero_point: int",
            "accumulator_size: int",
            "mult_shift: int",
            "use_fp16_acc: bool",
            'rounding: {"two_roundings", "short_multiplier", "one_rounding"}',
            "zero_point: int",
            "minimum: int",
            "maximum: int",
        ],
        output="output: T_out",
        kernels={
            ("CPU", f"{dtype} {out}"): f"HPreparedMatmulOp<{_TYPES[dtype]}, {_TYPES[out]}>"
            for dtype in _TYPES
            for out in _TYPES
        },
    )
}
WRAPPERS = {"prepared_matmul": None}

STORED = (np.int8, np.int16)
DEFAULTS = {
    "transpose_first": False,
    "transpose_second": False,
    "first_zero_point": 0,
    "second_zero_point": 0,
    "accumulator_size": 32,
    "mult_shift": 0,
    "use_fp16_acc": False,
    "rounding": "two_roundings",
    "zero_point": 0,
}


def raw(first, second, multipliers, *, dtype=np.int8, **attributes):
    """HPreparedMatmul; the bounds are the type's by default."""
    limits = np.iinfo(dtype)
    bounds = {"minimum": limits.min, "maximum": limits.max}
    return raw_ops.h_prepared_matmul(
        first=first,
        second=second,
        multipliers=multipliers,
        T_out=tf.as_dtype(dtype),
        **(DEFAULTS | bounds | attributes),
    )


def expected(reference, first, second, multipliers, *, dtype=np.int8, **attributes):
    """The oracle's products and requantisation, with the lines."""
    settings = DEFAULTS | attributes
    half, shift = settings["use_fp16_acc"], settings["mult_shift"]
    kind = np.float32 if half else np.int32
    operands = []
    for name, operand in (("first", first), ("second", second)):
        plain = (operand.astype(np.int32) - settings[f"{name}_zero_point"]).astype(kind)
        operands.append(plain.swapaxes(-1, -2) if settings[f"transpose_{name}"] else plain)
    a, b = operands
    rows, columns = a.shape[-2], b.shape[-1]
    front = np.broadcast_shapes(a.shape[:-2], b.shape[:-2])
    if b.ndim == 2:
        a = a.reshape(-1, a.shape[-1])
    else:
        a = np.broadcast_to(a, [*front, *a.shape[-2:]]).reshape(-1, *a.shape[-2:])
        b = np.broadcast_to(b, [*front, *b.shape[-2:]]).reshape(-1, *b.shape[-2:])
    sums, lines, *_ = reference.matmul(
        a,
        b,
        accumulator_size=settings["accumulator_size"],
        mult_shift=1 << shift if half and shift else shift,
        use_fp16_acc=half,
    )
    sums = sums.reshape(*front, rows, columns)
    return stored.requantised(sums, multipliers, settings, dtype), lines


@pytest.fixture(scope="session")
def check(reference, printed, assert_bits, assert_lines):
    """Run the op and the oracle on the same data and compare bits and printed lines."""

    def run(first, second, multipliers, **settings):
        want, lines = expected(reference, first, second, multipliers, **settings)
        with printed() as text:
            actual = raw(first, second, multipliers, **settings).numpy()
        assert_bits(actual, want, **settings)
        assert_lines(text.out, lines, **settings)
        return actual

    return run


def draw(rng, dtype=np.int8, out=np.int8):
    """Return the tensors and the attributes of a call."""
    rows, inner, columns = map(int, rng.integers(1, rng.choice([6, 40]), 3))
    front = rng.integers(1, 4, rng.integers(0, 3))
    fronts = [[int(rng.choice([1, n])) for n in front][rng.integers(0, 2) :] for _ in range(2)]
    transposed = [bool(x) for x in rng.integers(0, 2, 2)]
    shapes = [[rows, inner], [inner, columns]]
    first, second = (
        stored.draw(rng, dtype, [*lead, *(reversed(shape) if turned else shape)])
        for lead, shape, turned in zip(fronts, shapes, transposed, strict=True)
    )
    half = bool(rng.integers(0, 4) == 0)
    shift = int(rng.choice([0, 0, 1, 3, 6 if half else 24]))
    limits = np.iinfo(out)
    minimum, maximum = (int(x) for x in np.sort(rng.integers(limits.min, limits.max + 1, 2)))
    bits = limits.bits - rng.integers(6, 24, columns if rng.integers(2) else 1) - shift
    settings = {
        "transpose_first": transposed[0],
        "transpose_second": transposed[1],
        "first_zero_point": int(stored.draw(rng, dtype, [])),
        "second_zero_point": int(stored.draw(rng, dtype, [])) if rng.integers(2) else 0,
        "accumulator_size": int(rng.choice([32, 24, 16, rng.integers(1, 33)])),
        "mult_shift": shift,
        "use_fp16_acc": half,
        "rounding": str(rng.choice(stored.ROUNDINGS)),
        "zero_point": int(stored.draw(rng, out, [])),
        "dtype": out,
    }
    if rng.integers(2):
        settings |= {"minimum": minimum, "maximum": maximum}
    multipliers = np.ldexp(rng.uniform(0.5, 1, bits.shape), np.clip(bits, -31, 7 - shift))
    return (first, second, multipliers), settings


# ---- Against the oracle ------------------------------------------------------------------------


@pytest.mark.parametrize("out", STORED)
@pytest.mark.parametrize("dtype", STORED)
def test_random(check, dtype, out):
    """Any shapes, any arithmetic."""
    rng = np.random.default_rng([dtype().itemsize, out().itemsize])
    for _ in range(60):
        tensors, settings = draw(rng, dtype, out)
        check(*tensors, **settings)


@hypothesis.given(seed=st.integers(0, 2**32 - 1))
def test_property(check, seed):
    """The same, whatever the seed."""
    tensors, settings = draw(np.random.default_rng(seed))
    check(*tensors, **settings)


@pytest.mark.parametrize("half", [False, True])
@pytest.mark.parametrize("front", [[], [2], [24]])
def test_large_products(check, front, half):
    """So many outputs that the pool's threads share them: rows of a pair, or pairs."""
    rng = np.random.default_rng(len(front))
    check(
        stored.draw(rng, np.int8, [*front, 200, 40]),
        stored.draw(rng, np.int8, [*front, 60, 40]),
        [1e-3],
        transpose_second=True,
        first_zero_point=-5,
        second_zero_point=9,
        use_fp16_acc=half,
    )


def test_lines_of_corrected_weights(printed):
    """One for each pair of matrices, but one for a matrix that all rows meet."""
    first = np.ones([3, 1, 2], np.int8)
    second = np.full([3, 2, 1], 100, np.int8)
    for operand, count in ((second, 3), (second[:1], 3), (second[0], 1)):
        with printed() as text:
            raw(first, operand, [1.0], accumulator_size=15)
        assert text.out.count("weights should be uint8 for matmul") == count


@pytest.mark.parametrize(
    ("shapes", "result"),
    [
        (([0, 4, 5], [0, 5, 3]), (0, 4, 3)),
        (([0, 4, 5], [5, 3]), (0, 4, 3)),
        (([2, 0, 5], [2, 5, 3]), (2, 0, 3)),
        (([4, 5], [5, 0]), (4, 0)),
        (([2, 1, 4, 5], [0, 5, 3]), (2, 0, 4, 3)),
    ],
)
def test_no_outputs(shapes, result):
    """Nothing is computed, and all is checked as else."""
    first, second = (np.zeros(shape, np.int8) for shape in shapes)
    found = raw(first, second, [0.5], dtype=np.int16)
    assert found.shape == result
    assert found.dtype == tf.int16
    with pytest.raises(tf.errors.InvalidArgumentError, match="Need 1 multiplier"):
        raw(first, second, np.zeros([2]))


def test_no_inner_element():
    """A sum of nothing is 0, which is stored as the zero point."""
    for front in ([], [2]):
        first, second = np.zeros([*front, 3, 0], np.int8), np.zeros([*front, 0, 2], np.int8)
        found = raw(first, second, [0.5], zero_point=-7).numpy()
        support.assert_bits(found, np.full([*front, 3, 2], -7, np.int8))


# ---- Refusals ----------------------------------------------------------------------------------

FIRST = np.arange(-12, 12, dtype=np.int8).reshape(2, 3, 4)
SECOND = np.arange(-20, 20, dtype=np.int8).reshape(2, 4, 5)


@pytest.mark.parametrize(
    ("changes", "text"),
    [
        (
            {"first": FIRST[0, 0]},
            "Need operands of rank 2 or above, got shapes [4] and [2,4,5]",
        ),
        ({"second": np.int8(1)}, "Need operands of rank 2 or above, got shapes [2,3,4] and []"),
        (
            {"second": SECOND[:, :3]},
            "Need one inner dimension, got 4 and 3 of shapes [2,3,4] and [2,3,5]",
        ),
        ({"transpose_first": True}, "Need one inner dimension, got 3 and 4 of shapes"),
        ({"transpose_second": True}, "Need one inner dimension, got 4 and 5 of shapes"),
        (
            {"second": SECOND.repeat(2, 0)[:3]},
            "Need leading dimensions that broadcast to each other, got shapes [2,3,4] and [3,4,5]",
        ),
        ({"multipliers": np.ones([3])}, "Need 1 multiplier or one for each of the 5 channels"),
        ({"multipliers": np.ones([1, 5])}, "Need multipliers of rank 1, got shape [1,5]"),
        ({"multipliers": [np.nan]}, "finite and not negative, got nan in channel 0"),
        ({"multipliers": [2.0**30], "mult_shift": 1}, "Need exponents from -31 to 31 for two"),
        (
            {"first": np.zeros([0, 1 << 29], np.int8), "second": np.zeros([1 << 29, 0], np.int8)},
            "Need sizes of at most 268435456 and fewer than 2^31 elements of an operand and a "
            "product, got 0 rows, an inner dimension of 536870912 and 0 columns",
        ),
        (
            {"first": np.zeros([1 << 20, 0], np.int8), "second": np.zeros([0, 1 << 12], np.int8)},
            "Need sizes of at most 268435456 and fewer than 2^31 elements",
        ),
        ({"first_zero_point": 128}, "Need a first_zero_point in [-128, 127], got 128"),
        ({"second_zero_point": -129}, "Need a second_zero_point in [-128, 127], got -129"),
        ({"accumulator_size": -1}, "Need accumulator_size >= 0, got -1"),
        ({"accumulator_size": 33}, "accumulator_size"),
        ({"mult_shift": -1}, "Need a mult_shift in [0, 31], got -1"),
        ({"mult_shift": 32}, "Need a mult_shift in [0, 31], got 32"),
        (
            {"mult_shift": 7, "use_fp16_acc": True},
            "Need a mult_shift in [0, 6] in half precision, got 7",
        ),
        ({"zero_point": 128}, "Need a zero_point in [-128, 127], got 128"),
        ({"maximum": 128}, "Need -128 <= minimum <= maximum <= 127"),
    ],
    ids=str,
)
def test_refusals(changes, text):
    """What is needed and what came, before anything is computed."""
    arguments = {"first": FIRST, "second": SECOND, "multipliers": [0.5]}
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        raw(**(arguments | changes))


def test_a_refused_call_loses_nothing():
    """What was made before is used again, or made anew."""
    want = raw(FIRST, SECOND, [0.5]).numpy()
    with pytest.raises(tf.errors.InvalidArgumentError):
        raw(FIRST, SECOND[:, :3], [0.5])
    support.assert_bits(raw(FIRST, SECOND, [0.5]), want)


@pytest.mark.parametrize(
    ("shapes", "attributes", "result"),
    [
        (([2, 3, 4], [2, 4, 5], [1]), {}, [2, 3, 5]),
        (([2, 4, 3], [2, 4, 5], [5]), {"transpose_first": True}, [2, 3, 5]),
        (([2, 3, 4], [5, 4], [1]), {"transpose_second": True}, [2, 3, 5]),
        (([7, 1, 3, 4], [6, 4, 5], None), {}, [7, 6, 3, 5]),
        (([None, 3, None], [None, 4, 5], None), {}, [None, 3, 5]),
        (([None, 3, 4], [8, 4, None], None), {}, [8, 3, None]),
        ((None, [4, 5], None), {}, None),
        ((None, None, None), {}, None),
    ],
)
def test_shape_function(shapes, attributes, result):
    """What is known of the sizes is known of the output's."""
    with tf.Graph().as_default():
        types = (tf.int8, tf.int8, tf.float64)
        inputs = [tf.compat.v1.placeholder(*pair) for pair in zip(types, shapes, strict=True)]
        found = raw(*inputs, dtype=np.int16, **attributes)
        assert found.dtype == tf.int16
        assert (found.shape.as_list() if found.shape.rank is not None else None) == result


@pytest.mark.parametrize(
    ("shapes", "text"),
    [
        (([3], [3, 2], [1]), "Shape must be at least rank 2 but is rank 1"),
        (([2, 3], [], [1]), "Shape must be at least rank 2 but is rank 0"),
        (([2, 3], [3, 2], [1, 2]), "Shape must be rank 1 but is rank 2"),
        (([2, 3], [4, 2], [1]), "Dimensions must be equal, but are 3 and 4"),
        (([2, 2, 3], [3, 3, 2], [1]), "Dimensions must be equal, but are 2 and 3"),
    ],
)
def test_shape_function_refuses(shapes, text):
    """Where the shapes are known."""
    types = (tf.int8, tf.int8, tf.float64)
    with tf.Graph().as_default(), pytest.raises(ValueError, match=re.escape(text)):
        raw(*(tf.compat.v1.placeholder(*pair) for pair in zip(types, shapes, strict=True)))


# ---- Several calls of a kernel -----------------------------------------------------------------


def test_sizes_and_multipliers_change_from_call_to_call():
    """A function of any sizes gives what a call of its own gives."""
    rng = np.random.default_rng(3)
    call = tf.function(
        lambda a, b, m: ops.prepared_matmul(a, b, m, second_zero_point=5),
        autograph=False,
        reduce_retracing=True,
    )
    cases = [
        ([], [], [0.01]),
        ([2], [2], [0.02]),
        ([2], [], [0.02]),
        ([1, 3], [2, 1], [0.1]),
        ([2], [2], np.geomspace(0.01, 1, 6)),
    ]
    for front, other, m in cases:
        a = stored.draw(rng, np.int8, [*front, 5, 7])
        b = stored.draw(rng, np.int8, [*other, 7, 6])
        m = tf.constant(m, tf.float64)
        for operands in ((a, b), (a[..., :2, :], b)):
            want = raw(*operands, m, second_zero_point=5).numpy()
            support.assert_bits(call(*map(tf.constant, operands), m), want)


def test_threads_share_a_kernel():
    """Calls at the same time, of several sizes, get their own results."""
    rng = np.random.default_rng(12)
    operands = [
        tuple(tf.constant(stored.draw(rng, np.int8, [4, n, n])) for _ in range(2)) for n in (9, 17)
    ]
    call = tf.function(
        lambda a, b: ops.prepared_matmul(a, b, [2.0**-9]), autograph=False, reduce_retracing=True
    )
    want = [call(*pair).numpy() for pair in operands]
    wrong = []

    def work(turn):
        for i in range(50):
            which = (turn + i // (1 + turn)) % 2
            if (call(*operands[which]).numpy() != want[which]).any():
                wrong.append(which)

    threads = [threading.Thread(target=work, args=[t]) for t in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not wrong


# ---- The wrapper -------------------------------------------------------------------------------

SQUARE = np.arange(-18, 18, dtype=np.int8).reshape(6, 6)
SETTINGS = {
    "transpose_first": (True, "transpose_first"),
    "transpose_second": (True, "transpose_second"),
    "first_zero_point": (3, "first_zero_point"),
    "second_zero_point": (-4, "second_zero_point"),
    "accumulator_size": (9, "accumulator_size"),
    "mult_shift": (2, "mult_shift"),
    "use_fp16_acc": (True, "use_fp16_acc"),
    "rounding": ("one_rounding", "rounding"),
    "zero_point": (-7, "zero_point"),
    "minimum": (-1, "minimum"),
    "maximum": (2, "maximum"),
    "dtype": (np.int16, "dtype"),
}


@pytest.mark.parametrize("name", [None, *SETTINGS])
def test_every_setting_reaches_its_attribute(name):
    """The wrapper's keywords are the op's attributes."""
    value, attribute = SETTINGS.get(name, (None, None))
    want = raw(SQUARE, SQUARE, [0.07], **({} if name is None else {attribute: value}))
    settings = {} if name is None else {name: value}
    found = ops.prepared_matmul(SQUARE, SQUARE, [0.07], **settings)
    support.assert_bits(found, want.numpy())


def test_forms():
    """Arrays, tensors, variables; lists of multipliers."""
    want = raw(FIRST, SECOND, [0.5]).numpy()
    for form in (np.asarray, tf.constant, tf.Variable):
        support.assert_bits(ops.prepared_matmul(*map(form, (FIRST, SECOND, np.array([0.5])))), want)
    support.assert_bits(ops.prepared_matmul(FIRST, SECOND, [0.5]), want)


@pytest.mark.parametrize(
    ("changes", "error", "text"),
    [
        ({"dtype": tf.int32}, TypeError, "dtype must be int8 or int16, got int32"),
        ({"first": FIRST.astype(np.int32)}, TypeError, "first must be int8 or int16, got int32"),
        ({"second": SECOND.astype(float)}, TypeError, "second must be int8 or int16, got float64"),
        ({"second": SECOND.astype(np.int16)}, Exception, "int16"),
        ({"zero_point": 1.5}, TypeError, "zero_point must be an integer, got 1.5"),
        ({"first": FIRST[0, 0]}, (ValueError, tf.errors.InvalidArgumentError), "rank"),
        ({"rounding": "none"}, (ValueError, tf.errors.InvalidArgumentError), "rounding"),
    ],
    ids=str,
)
def test_the_wrapper_refuses(changes, error, text):
    """Eagerly, and in a function's graph."""
    arguments = {"first": FIRST, "second": SECOND, "multipliers": [0.5]} | changes

    def call():
        return ops.prepared_matmul(**arguments)

    for function in (call, tf.function(call, autograph=False)):
        with pytest.raises(error, match=re.escape(text)):
            function()


def test_in_functions_and_models(tmp_path):
    """Traced, saved, and as a Keras layer."""
    stored.check_in_models(
        lambda x: ops.prepared_matmul(x, SECOND[:1], [0.5], second_zero_point=3), FIRST, tmp_path
    )
