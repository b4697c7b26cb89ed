# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""TRANSPOSE and REVERSE_V2: every order, rows of several images, refusals."""

from __future__ import annotations

import itertools

import pytest
from packed import compare, constant, operator, tensor
from refusing import assert_refused


@pytest.mark.parametrize("order", [*itertools.permutations(range(3))])
@pytest.mark.parametrize("dtype", ["int8", "float32"])
def test_every_order(order, dtype):
    """The first dimension may go elsewhere: images stay apart."""
    shape, scale = [2, 3, 4], None if dtype == "float32" else 0.5
    out = tensor([shape[i] for i in order], dtype, scale)
    compare(operator("TRANSPOSE", [tensor(shape, dtype, scale), constant(order)], [out]))


@pytest.mark.parametrize("axes", [[0], [1], [2], [-1], [1, 2]])
def test_reverse(axes):
    """Along one axis, or two side by side."""
    x = tensor([2, 3, 4], "int16", 0.5)
    compare(operator("REVERSE_V2", [x, constant(axes)], [tensor([2, 3, 4], "int16", 0.5)]))


def test_refusals():
    """What is no order, and axes that are not there."""
    x, out = tensor([1, 2, 3], "int8", 0.5), [tensor([1, 2, 3], "int8", 0.5)]
    for order in ([0, 0, 1], [0, 1, 3], [-4, 1, 2]):
        assert_refused("need an order of 3 dimensions", "TRANSPOSE", [x, constant(order)], out)
    assert_refused("need 3 numbers", "TRANSPOSE", [x, constant([0, 1])], out)
    deep = tensor([1] * 7, "int8", 0.5)
    assert_refused("need at most 6 dimensions", "TRANSPOSE", [deep, constant(range(7))], out)
    assert_refused("need an axis of 3 dimensions", "REVERSE_V2", [x, constant([3])], out)
    assert_refused("need each axis once", "REVERSE_V2", [x, constant([1, -2])], out)
