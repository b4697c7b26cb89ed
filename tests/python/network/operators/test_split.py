# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SPLIT, SPLIT_V and UNPACK: rows of several images, a rest, refusals."""

from __future__ import annotations

import pytest
from packed import compare, constant, operator, tensor
from refusing import assert_refused


def _x(shape, dtype="int8", scale=0.5):
    return tensor(shape, dtype, scale)


@pytest.mark.parametrize("axis", [0, 2, -1])
def test_split_of_several_rows(axis):
    """Also along the first dimension, image by image."""
    shape = [2, 3, 4]
    shape[axis] //= 2
    outputs = [_x(shape), _x(shape)]
    compare(operator("SPLIT", [constant(axis), _x([2, 3, 4])], outputs, {"num_splits": 2}))


@pytest.mark.parametrize(("sizes", "parts"), [([1, -1, 2], [1, 3, 2]), ([4, 1, 1], [4, 1, 1])])
def test_split_v(sizes, parts):
    """Sizes of which one may be the rest."""
    inputs = [_x([2, 6, 3], "int16"), constant(sizes), constant([1])]
    outputs = [_x([2, n, 3], "int16") for n in parts]
    compare(operator("SPLIT_V", inputs, outputs, {"num_splits": 3}))


@pytest.mark.parametrize("axis", [0, 1, -1])
def test_unpack_of_several_rows(axis):
    """The dropped dimension may be the first."""
    shape = [2, 3, 4]
    count = shape.pop(axis)
    outputs = [_x(shape) for _ in range(count)]
    compare(operator("UNPACK", [_x([2, 3, 4])], outputs, {"axis": axis, "num": count}))


def test_refusals():
    """Parts that do not add up, axes that are not there."""
    two = [_x([1, 2]), _x([1, 3])]
    assert_refused("need 5 elements in 2 equal parts", "SPLIT", [constant(1), _x([1, 5])], two,
                   {"num_splits": 2})  # fmt: skip
    assert_refused("need an axis of 2 dimensions, got 2", "SPLIT", [constant(2), _x([1, 5])], two,
                   {"num_splits": 2})  # fmt: skip
    for sizes in ([2, 2], [-1, -1], [5, 0], [7, -2]):
        assert_refused("need sizes above 0 that add up to 5", "SPLIT_V",
                       [_x([1, 5]), constant(sizes), constant(1)], two,
                       {"num_splits": 2})  # fmt: skip
    assert_refused("need 5 outputs, got 2", "UNPACK", [_x([1, 5])], two, {"axis": 1, "num": 2})
    scaled = [_x([1], scale=0.5), _x([1], scale=0.25)]
    assert_refused("need one scale and zero point", "UNPACK", [_x([1, 2])], scaled,
                   {"axis": 1, "num": 2})  # fmt: skip
    assert_refused("need a dimension for the images", "UNPACK", [_x([2])], [_x([]), _x([])],
                   {"axis": 0, "num": 2})  # fmt: skip
