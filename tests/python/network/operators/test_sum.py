# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SUM, REDUCE_MAX and REDUCE_MIN: scales and zero points, halves, refusals."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, constant, operator, tensor
from refusing import assert_refused


def _reduced(kind, shape, axes, keep=True, scales=(0.5, 0.5), points=(3, 3), dtype="int8"):
    reduced = tuple({axis % len(shape) for axis in axes})
    out = np.zeros(shape).mean(axis=reduced, keepdims=keep).shape
    x, y = (tensor(s, dtype, c, p) for s, c, p in zip((shape, out), scales, points, strict=True))
    return operator(kind, [x, constant(axes)], [y], {"keep_dims": keep})


@pytest.mark.parametrize("axes", [[1], [1, 2], [2, 1], [-1], [1, 2, 1], [1, 2, 3]])
@pytest.mark.parametrize("kind", ["SUM", "REDUCE_MAX", "REDUCE_MIN"])
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_axes(dtype, kind, axes):
    """In any order, from either end, named twice."""
    points = (-30, -30) if dtype == "int8" else (0, 0)
    keep = len(axes) > 1
    compare(_reduced(kind, [2 - keep, 4, 5, 3], axes, keep, points=points, dtype=dtype))


@pytest.mark.parametrize(
    ("scales", "points", "count"),
    [
        ((0.1, 0.6), (-37, 3), 2),
        ((0.1, 2.2), (-128, 3), 20),
        ((0.07, 2.94), (-77, 3), 33),
        ((0.11, 7.0), (-128, -128), 50),
        ((0.125, 0.25), (0, 0), 1),
    ],
)
def test_halves_are_those_of_single_precision(scales, points, count):
    """The zero points' share is rounded by itself."""
    compare(_reduced("SUM", [1, count, 200], [1], True, scales, points), batch=5)


@pytest.mark.parametrize("scales", [(0.0213, 0.1), (0.003, 0.3), (0.5, 0.1)])
def test_sums_of_int16(scales):
    """Sums that single precision does not hold, and such that leave the range."""
    compare(_reduced("SUM", [1, 900, 20], [1], False, scales, (0, 0), "int16"))


def test_refusals():
    """Scales of extremes that differ, sums that do not fit."""
    x, out = tensor([1, 3], "int8", 0.5), [tensor([1, 1], "int8", 0.25)]
    assert_refused("need one scale and zero point", "REDUCE_MAX", [x, constant([1])], out,
                   {"keep_dims": True})  # fmt: skip
    assert_refused("need sums of 32 bits in the output's scale", "SUM", [x, constant([1])],
                   [tensor([1, 1], "int8", 1e-9)])  # fmt: skip
