# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SLICE and STRIDED_SLICE: every mask, strides of both signs, rows of several images, refusals."""

from __future__ import annotations

import pytest
import tensorflow as tf
from packed import compare, constant, operator, tensor
from refusing import assert_refused

SHAPE = [2, 5, 4]


def _x(shape=SHAPE, dtype="int8"):
    return tensor(shape, dtype, 0.5, 3)


@pytest.mark.parametrize(
    ("begin", "size", "shape"),
    [([0, 1, 2], [2, 3, -1], [2, 3, 2]), ([1, 0, 0], [1, -1, -1], [1, 5, 4])],
)
@pytest.mark.parametrize("dtype", ["int32", "int64"])
def test_slice(begin, size, shape, dtype):
    """Also of an image's rows."""
    inputs = [_x(), constant(begin, dtype), constant(size, dtype)]
    compare(operator("SLICE", inputs, [_x(shape)]))


@pytest.mark.parametrize(
    ("begin", "end", "strides", "masks"),
    [
        ([0, 1, 0], [2, 4, 4], [1, 2, 1], {}),
        ([0, -1, 0], [2, -6, 4], [1, -2, 1], {}),
        ([0, 9, 0], [2, -9, 4], [1, -1, 1], {}),
        ([0, 0, 0], [0, 0, 0], [1, 1, -1], {"begin_mask": 7, "end_mask": 7}),
        ([0, 2, 1], [1, 3, 3], [1, 1, 1], {"shrink_axis_mask": 2}),
        ([0, -2, 1], [1, 0, 3], [1, 1, 1], {"shrink_axis_mask": 2}),
        ([0, 1], [1, 3], [1, 1], {"ellipsis_mask": 1}),
        ([0, 0, 1], [0, 0, 2], [1, 1, 1], {"ellipsis_mask": 2, "new_axis_mask": 1}),
        ([0, 1, 0, 0], [0, 2, 0, 0], [1] * 4,
         {"new_axis_mask": 1, "begin_mask": 14, "end_mask": 14}),
        ([0, 0, 3], [1, 5, 0], [1, 1, -1], {"shrink_axis_mask": 1}),
        ([1], [2], [1], {}),
    ],
)  # fmt: skip
def test_strided_slice(begin, end, strides, masks):
    """Python's slices."""
    shape = tf.strided_slice(tf.zeros(SHAPE), begin, end, strides, **masks).shape.as_list()
    inputs = [_x(), *map(constant, (begin, end, strides))]
    compare(operator("STRIDED_SLICE", inputs, [_x(shape)], masks))


def test_offset():
    """An end may count from its begin."""
    inputs = [_x(), *map(constant, ([0, 1, 0], [2, 2, 4], [1, 1, 2]))]
    compare(operator("STRIDED_SLICE", inputs, [_x([2, 2, 2])], {"offset": True}))


def test_refusals():
    """Parts beyond the data, and such without elements."""
    out = [_x([1])]
    for begin, size in (([0, 0, 3], [2, 5, 2]), ([0, -1, 0], [2, 1, 4]), ([0, 0, 0], [2, 0, 4])):
        assert_refused("need a part of", "SLICE", [_x(), constant(begin), constant(size)], out)
    assert_refused("need 3 numbers for the size, got 2", "SLICE",
                   [_x(), constant([0, 0, 0]), constant([1, 1])], out)  # fmt: skip

    def refused(text, begin, end, strides, **masks):
        inputs = [_x(), *map(constant, (begin, end, strides))]
        assert_refused(text, "STRIDED_SLICE", inputs, out, masks)

    refused("need strides that are not 0", [0], [1], [0])
    refused("need an element in each dimension, got [0, 5, 4]", [1], [1], [1])
    refused("need shrink_axis_mask below 2, got 2", [0], [1], [1], shrink_axis_mask=2)
    refused("need slices of", [0] * 4, [1] * 4, [1] * 4)
    refused("need slices of", [0, 5], [1, 6], [1, 1], shrink_axis_mask=2)
