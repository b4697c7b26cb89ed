# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""MEAN: every set of axes, scales alike and not, refusals."""

from __future__ import annotations

import itertools

import numpy as np
import pytest
from packed import compare, constant, operator, tensor
from refusing import assert_refused

AXES = [list(a) for n in (1, 2, 3) for a in itertools.combinations((1, 2, 3), n)]


def _mean(shape, axes, keep, scales=(0.5, 0.5), points=(3, 3), dtype="int8"):
    reduced = tuple({axis % len(shape) for axis in axes})
    out = np.zeros(shape).mean(axis=reduced, keepdims=keep).shape
    x, y = (tensor(s, dtype, c, p) for s, c, p in zip((shape, out), scales, points, strict=True))
    return operator("MEAN", [x, constant(axes)], [y], {"keep_dims": keep})


@pytest.mark.parametrize("axes", [*AXES, [2, 1], [-2, 1], [1, 2, 1], [-1]])
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_axes(dtype, axes):
    """In any order, from either end, named twice; one scale, and two."""
    points = (-30, 17) if dtype == "int8" else (0, 0)
    shape = [1, 7, 9, 3]
    compare(_mean(shape, axes, True, (0.0311, 0.0311), points[:1] * 2, dtype))
    compare(_mean(shape, axes, False, (0.0311, 0.0127), points, dtype))


@pytest.mark.parametrize(
    ("shape", "axes"), [([2, 3, 5, 4], [0, 2]), ([3, 4], [0]), ([1, 2, 3, 2, 2], [2, 4])]
)
def test_ranks_and_rows(shape, axes):
    """Rows of an image are its own; any rank."""
    compare(_mean(shape, axes, True, (0.5, 0.3)))


@pytest.mark.parametrize("ratio", [2.0**-33, 2.0**-31, 2.0**-20, 8.0, 1000.0])
def test_far_ratios(ratio):
    """Mantissas that are shifted less, or nothing at all; exponents above 0."""
    compare(_mean([1, 5, 5, 2], [1, 2], True, (0.5, 0.5 / ratio)))


def test_refusals():
    """Axes that are not there, sums that do not fit, results that depend on no image."""
    x, out = tensor([1, 3], "int8", 0.5), [tensor([1, 1], "int8", 0.5)]
    assert_refused("need an axis of 2 dimensions, got 2", "MEAN", [x, constant([2])], out)
    assert_refused("need the axes to be a constant", "MEAN", [x, tensor([1], "int32")], out)
    large = tensor([1, 1 << 16, 2], "int16", 0.5)
    assert_refused("need sums of 32 bits", "MEAN", [large, constant([1])],
                   [tensor([1, 2], "int16", 0.5)])  # fmt: skip
    assert_refused("need a dimension for the images", "MEAN", [x, constant([0, 1])],
                   [tensor([], "int8", 0.5)])  # fmt: skip
