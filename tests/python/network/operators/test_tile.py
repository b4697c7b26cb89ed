# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""TILE and BROADCAST_TO: rows of several images, every type, refusals."""

from __future__ import annotations

import pytest
from packed import compare, constant, operator, tensor
from refusing import assert_refused


@pytest.mark.parametrize("times", [[2, 1, 3], [1, 3, 2], [1, 1, 1]])
@pytest.mark.parametrize("dtype", ["int8", "int32", "float32"])
def test_tile(times, dtype):
    """The runtime has none for 16 bits."""
    scale = 0.5 if dtype == "int8" else None
    out = [n * t for n, t in zip([2, 3, 4], times, strict=True)]
    inputs = [tensor([2, 3, 4], dtype, scale), constant(times)]
    compare(operator("TILE", inputs, [tensor(out, dtype, scale)]))


@pytest.mark.parametrize("shape", [[1, 3, 1], [3, 1], [4], [2, 3, 4]])
@pytest.mark.parametrize("dtype", ["int8", "int16", "float32"])
def test_broadcast_to(shape, dtype):
    """Dimensions of 1 and such that are not there."""
    scale = None if dtype == "float32" else 0.5
    inputs = [tensor(shape, dtype, scale), constant([2, 3, 4])]
    compare(operator("BROADCAST_TO", inputs, [tensor([2, 3, 4], dtype, scale)], version=2))


def test_refusals():
    """Repetitions of 0, shapes that cannot be."""
    x, out = tensor([1, 3], "int8", 0.5), [tensor([1, 1], "int8", 0.5)]
    assert_refused("need repetitions above 0", "TILE", [x, constant([1, 0])], out)
    assert_refused("need 2 numbers for the repetitions", "TILE", [x, constant([2])], out)
    for shape in ([3], [1, 4], [0, 3]):
        assert_refused("can be repeated to", "BROADCAST_TO", [x, constant(shape)], out)
