# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Shapes that the wrappers know before anything runs; the ops' own rules are in their tests."""

from __future__ import annotations

import re

import numpy as np
import pytest
import tensorflow as tf

import bitfold
from bitfold._frame import shapes

# (function, input, filter, arguments, result)
WRAPPED = [
    ("conv2d", [2, 7, 9, 3], [3, 3, 3, 4], {}, [2, 7, 9, 4]),
    ("conv2d", [2, 7, 9, 3], [3, 3, 3, 4], {"strides": 2}, [2, 4, 5, 4]),
    ("conv2d", [2, 7, 9, 3], [3, 5, 3, 4], {"padding": "VALID", "strides": [2, 3]}, [2, 3, 2, 4]),
    ("conv2d", [2, 7, 9, 3], [3, 3, 3, 4], {"padding": "VALID", "dilations": 2}, [2, 3, 5, 4]),
    # A window larger than the image gives one output at a stride that divides toward zero.
    ("conv2d", [1, 4, 3, 1], [5, 5, 1, 2], {"padding": "VALID", "strides": 3}, [1, 1, 1, 2]),
    ("conv2d", [1, 4, 4, 1], [5, 5, 1, 2], {"padding": "VALID"}, [1, 0, 0, 2]),
    ("conv2d", [1, 0, 5, 1], [3, 3, 1, 2], {"strides": 2}, [1, 1, 3, 2]),
    ("conv2d", [1, 0, 5, 1], [3, 3, 1, 2], {}, [1, 0, 5, 2]),
    ("conv2d", [0, 4, 4, 1], [3, 3, 1, 2], {}, [0, 4, 4, 2]),
    ("conv2d", [2, 7, 9, 3], [1, 3, 5, 3, 4], {"padding": "VALID"}, [2, 5, 5, 4]),
    ("dilated_conv2d", [2, 7, 9, 3], [3, 3, 3, 4], {"dilations": [2, 3]}, [2, 7, 9, 4]),
    (
        "dilated_conv2d",
        [2, 7, 9, 3],
        [3, 3, 3, 4],
        {"dilations": [2, 3], "padding": "VALID"},
        [2, 3, 3, 4],
    ),
    ("depthwise_conv2d", [2, 7, 9, 3], [3, 3, 3, 1], {}, [2, 7, 9, 3]),
    ("depthwise_conv2d", [2, 7, 9, 3], [3, 3, 1, 3], {"strides": 2}, [2, 4, 5, 3]),
    ("depthwise_conv2d", [2, 7, 9, 3], [3, 3, 1, 2], {"padding": "VALID"}, [2, 5, 7, 2]),
    ("depthwise_conv2d", [2, 7, 9, 3], [3, 3, 2, 1], {"padding": "VALID"}, [2, 5, 7, 2]),
    ("depthwise_conv2d", [2, 7, 9, 1], [3, 3, 1, 1], {"dilations": 2}, [2, 7, 9, 1]),
    ("depthwise_conv2d", [2, 7, 9, 3], [2, 3, 3, 3, 1], {"padding": "VALID"}, [2, 5, 7, 3]),
    ("depthwise_conv2d", [2, 7, 9, 3], [2, 3, 3, 1, 3], {"padding": "VALID"}, [2, 5, 7, 3]),
]
_IDS = [f"{name}-{x}-{f}-{a}" for name, x, f, a, _ in WRAPPED]


@pytest.mark.parametrize("padding", ["SAME", "VALID"])
@pytest.mark.parametrize("dilation", [1, 2, 3, -1])
@pytest.mark.parametrize("stride", [1, 2, 3, 5, -1, -2])
def test_output_sizes_are_the_kernels(padding, stride, dilation):
    """The one rule of geometry that Python states again gives what the kernel allocates."""
    for size in range(7):
        for window in range(1, 5):
            pixels = np.zeros([1, size, 1, 1], np.int32)
            weights = np.zeros([window, 1, 1, 1], np.int32)
            arguments = {"strides": [stride, 1], "dilations": [dilation, 1], "padding": padding}
            try:
                expected = bitfold.ops.conv2d(pixels, weights, **arguments).shape[1]
            except tf.errors.InvalidArgumentError:
                expected = None
            found = shapes.output_size(size, window, stride, dilation, padding)
            assert found == expected, (size, window)


@pytest.mark.parametrize(
    ("a", "b"),
    [
        ([2, 3], [3, 5]),
        ([4, 2, 3], [4, 3, 5]),
        ([2, 0], [0, 3]),
        ([0, 2, 3], [0, 3, 5]),
    ],
)
def test_product_shapes_are_the_kernels(a, b):
    """The matrix product's rule likewise, whatever of it is known."""
    expected = bitfold.ops.matmul(np.zeros(a, np.int32), np.zeros(b, np.int32)).shape
    assert shapes.product_shape(tf.TensorShape(a), tf.TensorShape(b)) == expected
    for x, y in ((a, None), (None, b), (None, None), (a, [None] * len(b))):
        found = shapes.product_shape(tf.TensorShape(x), tf.TensorShape(y))
        assert found.is_compatible_with(expected)
        assert found.rank == (None if x is y else len(a))


def _function(name, input, filter, arguments):
    """Return a function of a wrapper, its static shape, and what it finds the shape to be."""
    signature = [tf.TensorSpec(input, tf.int32), tf.TensorSpec(filter, tf.int32)]
    call = getattr(bitfold.ops, name)

    def body(x, f):
        result = call(x, f, **arguments)
        return result, tf.shape(result)

    function = tf.function(body, autograph=False).get_concrete_function(*signature)
    return function, function.output_shapes[0]


def _check(function, arrays, eager, assert_bits):
    """Run a function and compare it, and the shape as its graph sees it, with the eager result."""
    result, shape = function(*map(tf.constant, arrays))
    assert_bits(result, eager)
    assert shape.numpy().tolist() == list(eager.shape)


@pytest.mark.parametrize(("name", "input", "filter", "arguments", "expected"), WRAPPED, ids=_IDS)
def test_wrappers_know_the_shape(name, input, filter, arguments, expected, assert_bits):
    """The static shape is the true one: what runs eagerly, and in the function itself."""
    rng = np.random.default_rng(1)
    arrays = [rng.integers(-9, 9, shape).astype(np.int32) for shape in (input, filter)]
    eager = getattr(bitfold.ops, name)(*arrays, **arguments)
    assert eager.shape.as_list() == expected
    function, shape = _function(name, input, filter, arguments)
    assert shape.as_list() == expected
    _check(function, arrays, eager.numpy(), assert_bits)


@pytest.mark.parametrize(("name", "input", "filter", "arguments", "expected"), WRAPPED, ids=_IDS)
def test_wrappers_with_unknown_dimensions(name, input, filter, arguments, expected, assert_bits):
    """What is not known is left open, what is known is kept, and the bits are the same."""
    rng = np.random.default_rng(1)
    arrays = [rng.integers(-9, 9, shape).astype(np.int32) for shape in (input, filter)]
    eager = getattr(bitfold.ops, name)(*arrays, **arguments).numpy()
    batch, _, _, channels = expected
    rank = len(filter)
    same = arguments.get("padding", "SAME") == "SAME"
    unknown = {
        "batch": ([None, *input[1:]], filter, [None, *expected[1:]]),
        "image": ([input[0], None, None, input[3]], filter, [batch, None, None, channels]),
        "channels": ([*input[:3], None], filter, expected),
        "dimensions": ([None] * 4, filter, [None, None, None, channels]),
        "window": (
            input,
            [*filter[: rank - 4], None, None, *filter[-2:]],
            expected if same else [batch, None, None, channels],
        ),
    }
    for what, (x, f, result) in unknown.items():
        function, shape = _function(name, x, f, arguments)
        assert shape.as_list() == result, what
        _check(function, arrays, eager, assert_bits)


@pytest.mark.parametrize(("name", "input", "filter", "arguments", "expected"), WRAPPED, ids=_IDS)
@pytest.mark.parametrize(
    "unknown", ["filter dimensions", "filter rank", "input rank", "both ranks"]
)
def test_wrappers_with_unknown_ranks(
    name, input, filter, arguments, expected, unknown, assert_bits
):
    """With next to nothing known, the shape says no wrong thing and the bits are the same."""
    rng = np.random.default_rng(1)
    arrays = [rng.integers(-9, 9, shape).astype(np.int32) for shape in (input, filter)]
    eager = getattr(bitfold.ops, name)(*arrays, **arguments).numpy()
    x = None if unknown in ("input rank", "both ranks") else input
    f = {"filter dimensions": [None] * len(filter), "input rank": filter}.get(unknown)
    function, shape = _function(name, x, f, arguments)
    assert shape.is_compatible_with(expected)
    assert shape.rank == 4
    _check(function, arrays, eager, assert_bits)


@pytest.mark.parametrize("name", ["conv2d", "depthwise_conv2d"])
def test_wrappers_leave_negative_sizes_to_the_kernel(name):
    """A size that the kernel will refuse is no static shape, and no error while tracing."""
    function, shape = _function(name, [1, 2, 2, 1], [5, 5, 1, 1], {"padding": "VALID"})
    assert shape.as_list() == [1, None, None, 1]
    pixels, weights = tf.zeros([1, 2, 2, 1], tf.int32), tf.zeros([5, 5, 1, 1], tf.int32)
    with pytest.raises(tf.errors.InvalidArgumentError, match="Need an output height of at least 0"):
        function(pixels, weights)


@pytest.mark.parametrize(
    ("arguments", "text"),
    [
        ({"strides": -1}, "Stride must be > 0, but got -1"),
        ({"dilations": -1}, "Dilation rate must be >= 1, but got -1"),
        ({"dilations": 0}, "Dilation rate must be >= 1, but got 0"),
    ],
)
@pytest.mark.parametrize("name", ["conv2d", "depthwise_conv2d"])
def test_absurd_strides_are_refused_in_functions(name, arguments, text):
    """The kernels compute these; the runtime's shape rules refuse them, in a function only."""
    pixels, weights = np.ones([1, 1, 1, 1], np.int32), np.ones([1, 1, 1, 1], np.int32)
    assert getattr(bitfold.ops, name)(pixels, weights, **arguments).shape == [1, 1, 1, 1]
    with pytest.raises(ValueError, match=re.escape(text)):
        _function(name, [1, 1, 1, 1], [1, 1, 1, 1], arguments)


@pytest.mark.parametrize("shape", [[2, 3], [None, 3], [None, None, None, 3], None])
@pytest.mark.parametrize("name", ["add", "bias_add"])
def test_additions_keep_the_shape(name, shape):
    """The additions have the shape of their value."""
    operand = shape if name == "add" else [3]
    _, found = _function(name, shape, operand, {})
    expected = shape
    if shape is not None and name == "bias_add":
        expected = [*shape[:-1], 3]
    assert (found.as_list() if found.rank is not None else None) == expected
