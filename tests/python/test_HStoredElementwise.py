# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HStoredElementwise through the runtime: bits against the oracle, shapes, refusals."""

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
    "HStoredElementwise": registration.Registration(
        inputs=["first: T", "second: T"],
        attributes=[
            "T: {int8, int16}",
            'operation: {"add", "subtract", "multiply"}',
            "first_scale: float",
            "first_zero_point: int",
            "second_scale: float",
            "second_zero_point: int",
            "output_scale: float",
            "output_zero_point: int",
            "minimum: int",
            "maximum: int",
        ],
        kernels={("CPU", ""): "HStoredElementwiseOp<CPUDevice>"},
    )
}
WRAPPERS = {"stored_elementwise": None}

OPERATIONS = ("add", "subtract", "multiply")
PLACES = ("first", "second", "output")
TYPES = (np.int8, np.int16)


def raw(first, second, **changes):
    """HStoredElementwise; what is left out is as plain as can be."""
    limits = np.iinfo(np.asarray(first).dtype)
    attributes = {f"{place}_scale": 1.0 for place in PLACES}
    attributes |= {f"{place}_zero_point": 0 for place in PLACES}
    attributes |= {"operation": "add", "minimum": limits.min, "maximum": limits.max}
    return raw_ops.h_stored_elementwise(first=first, second=second, **attributes | changes)


def reference(first, second, **attributes):
    """The oracle's result."""
    a, b = np.broadcast_arrays(first, second)
    scales = np.float32([attributes[f"{place}_scale"] for place in PLACES])
    settings = [OPERATIONS.index(attributes["operation"]), first.dtype.itemsize * 8]
    settings += [attributes[f"{place}_zero_point"] for place in PLACES]
    settings += [attributes["minimum"], attributes["maximum"]]
    a, b, settings = stored.words(a, b, settings)
    out = np.zeros_like(a)
    oracle.library().reference_stored_elementwise(
        a.ctypes.data, b.ctypes.data, a.size, scales.ctypes.data, settings.ctypes.data,
        out.ctypes.data,
    )  # fmt: skip
    return out.astype(first.dtype)


def check(first, second, **attributes):
    """Run HStoredElementwise and the oracle on the same data and compare bits."""
    limits = np.iinfo(first.dtype)
    attributes = {"minimum": limits.min, "maximum": limits.max} | attributes
    expected = reference(first, second, **attributes)
    support.assert_bits(raw(first, second, **attributes), expected, **attributes)


def draw_attributes(rng, dtype, operation):
    """Return scales near one another, or far apart, that the op takes."""
    limits = np.iinfo(dtype)
    first, second = np.ldexp(rng.uniform(0.5, 1, 2), rng.integers(-6, 6, 2)).astype(np.float32)
    spare = rng.integers(0, 12)
    output = (first * second if operation == "multiply" else max(first, second)) * 2.0**-spare
    if operation == "multiply":
        output *= 2.0 ** rng.integers(-10, 30)
    minimum, maximum = np.sort(rng.integers(limits.min, limits.max, 2, endpoint=True))
    bounds = (minimum, maximum) if rng.integers(2) else (limits.min, limits.max)
    points = rng.integers(-128, 128, 3) if dtype == np.int8 else np.zeros(3, int)
    attributes = {f"{p}_zero_point": int(z) for p, z in zip(PLACES, points, strict=True)}
    scales = zip(PLACES, (first, second, np.float32(output)), strict=True)
    attributes |= {f"{place}_scale": float(scale) for place, scale in scales}
    return attributes | {
        "operation": operation, "minimum": int(bounds[0]), "maximum": int(bounds[1])
    }  # fmt: skip


# ---- Against the oracle ------------------------------------------------------------------------


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("operation", OPERATIONS)
def test_random(operation, dtype):
    """Any shapes that broadcast to each other, scalars among them, any attributes."""
    rng = np.random.default_rng([OPERATIONS.index(operation), dtype().itemsize])
    for rank in (0, 1, 2, 3, 4, 5) * 8:
        shape = rng.choice([1, 2, 3, 7, 20], rank)
        sizes = [np.where(rng.integers(0, 3, rank), shape, 1) for _ in range(2)]
        sizes[0] = sizes[0][rng.integers(0, rank + 1) if rng.integers(2) else 0 :]
        operands = [stored.draw(rng, dtype, s) for s in (sizes if rng.integers(2) else sizes[::-1])]
        check(*operands, **draw_attributes(rng, dtype, operation))


@pytest.mark.parametrize("dtype", TYPES)
@pytest.mark.parametrize("second", [(3, 70, 50, 37), (37,), (3, 1, 1, 37), (70, 50, 1), ()])
def test_large_tensors(second, dtype):
    """So many elements that the pool's threads share them."""
    rng = np.random.default_rng(5)
    first = stored.draw(rng, dtype, (3, 70, 50, 37))
    attributes = draw_attributes(rng, dtype, "add")
    check(first, stored.draw(rng, dtype, second), **attributes)


@hypothesis.given(
    dtype=st.sampled_from(TYPES),
    operation=st.sampled_from(OPERATIONS),
    seed=st.integers(0, 2**32 - 1),
)
def test_property(dtype, operation, seed):
    """Any pairs of elements."""
    rng = np.random.default_rng(seed)
    operands = [stored.draw(rng, dtype, [40]) for _ in range(2)]
    check(*operands, **draw_attributes(rng, dtype, operation))


@pytest.mark.parametrize(
    ("first", "second", "common"),
    [([0], [], [0]), ([2, 0], [1, 1], [2, 0]), ([2, 1, 3], [0, 1], [2, 0, 3])],
)
def test_no_elements(first, second, common):
    """Nothing is computed, and the shape is the common one."""
    assert raw(np.zeros(first, np.int8), np.zeros(second, np.int8)).shape == common


# ---- Refusals ----------------------------------------------------------------------------------

FIRST = np.int8([[1, 2, 3], [4, 5, 6]])


@pytest.mark.parametrize(
    ("changes", "text"),
    [
        (
            {"second": FIRST[:, :2]},
            "Need operands that broadcast to each other, got shapes [2,3] and [2,2]",
        ),
        ({"first_scale": 0.0}, "Need a finite first_scale above 0, got 0"),
        ({"second_scale": -1.0}, "Need a finite second_scale above 0, got -1"),
        ({"output_scale": np.inf}, "Need a finite output_scale above 0, got inf"),
        ({"output_scale": np.nan}, "Need a finite output_scale above 0, got nan"),
        (
            {"first_zero_point": 128},
            "Need first_zero_point in [-128, 127] for int8, got 128",
        ),
        (
            {"first": FIRST.astype(np.int16), "second": FIRST.astype(np.int16),
             "output_zero_point": 1},
            "Need output_zero_point in [0, 0] for int16, got 1",
        ),
        (
            {"minimum": 5, "maximum": 4},
            "Need -128 <= minimum <= maximum <= 127, got a minimum of 5 and a maximum of 4",
        ),
        (
            {"output_scale": 2.0**-19},
            "Need twice the larger scale of the operands / (2^20 * output_scale) above 0 and below "
            "1, got 1",
        ),
        (
            {"operation": "multiply", "output_scale": 2.0**-31},
            "Need first_scale * second_scale / output_scale below 2^31, got 2.14748365e+09",
        ),
        (
            {"operation": "multiply", "first_scale": 1e30, "second_scale": 1e30},
            "Need first_scale * second_scale / output_scale below 2^31, got inf",
        ),
    ],
    ids=str,
)  # fmt: skip
def test_refusals(changes, text):
    """What is needed and what came, before anything is computed."""
    with pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text)):
        raw(**{"first": FIRST, "second": FIRST, **changes})


@pytest.mark.parametrize(
    ("first", "second", "common"),
    [
        ([2, 3], [3], [2, 3]), ([None, 3], [1, 3], [None, 3]), ([], [4], [4]),
        ([2, None], [2, 5], [2, 5]), (None, [3], None),
    ],
)  # fmt: skip
def test_shape_function(first, second, common):
    """The output has the common shape, as far as it is known."""
    with tf.Graph().as_default():
        operands = [tf.compat.v1.placeholder(tf.int8, shape) for shape in (first, second)]
        scales = {f"{place}_scale": 1.0 for place in PLACES}
        result = ops.stored_elementwise(*operands, **scales)
    assert (result.shape.rank is None) if common is None else (result.shape.as_list() == common)


# ---- The wrapper -------------------------------------------------------------------------------

SCALES = {"first_scale": 0.5, "second_scale": 0.25, "output_scale": 0.7}
SETTINGS = {
    "operation": "subtract", "first_scale": 0.3, "first_zero_point": 3, "second_scale": 0.9,
    "second_zero_point": -4, "output_scale": 0.2, "output_zero_point": 5, "minimum": -9,
    "maximum": 3,
}  # fmt: skip


@pytest.mark.parametrize("name", [None, *SETTINGS])
def test_every_setting_reaches_its_attribute(name):
    """The wrapper's keywords are the op's attributes."""
    settings = SCALES | ({} if name is None else {name: SETTINGS[name]})
    expected = raw(FIRST, FIRST[:1], **settings).numpy()
    for form in (lambda x: x, tf.constant, tf.Variable):
        result = ops.stored_elementwise(form(FIRST), form(FIRST[:1]), **settings)
        support.assert_bits(result, expected)


@pytest.mark.parametrize(
    ("arguments", "error", "text"),
    [
        ({"first": FIRST.astype(np.int32)}, TypeError, "first must be int8 or int16, got int32"),
        ({"second": FIRST.astype(np.int16)}, TypeError, "second must be int8, got int16"),
        (
            {"operation": "divide"},
            ValueError,
            "operation must be one of add, subtract, multiply, got 'divide'",
        ),
        ({"minimum": 1.5}, TypeError, "minimum must be an integer, got 1.5"),
        ({"first_scale": "1"}, TypeError, "first_scale must be a number, got '1'"),
    ],
    ids=str,
)
def test_the_wrapper_refuses(arguments, error, text):
    """Types, and what is no operation."""
    with pytest.raises(error, match=re.escape(text)):
        ops.stored_elementwise(**{"first": FIRST, "second": FIRST, **SCALES, **arguments})


def test_in_functions_and_models(tmp_path):
    """Traced, saved, and as a Keras layer."""
    stored.check_in_models(lambda x: ops.stored_elementwise(x, x, **SCALES), FIRST, tmp_path)
