# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""GATHER: every axis, indices of any rank, refusals."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, constant, operator, tensor
from refusing import assert_refused


@pytest.mark.parametrize("axis", [0, 1, 2, -1])
@pytest.mark.parametrize("indices", [[1, 0, 1], [[1, 0], [0, 1]], 1])
@pytest.mark.parametrize("dtype", ["int8", "float32"])
def test_every_axis(axis, indices, dtype):
    """Rows of each image, too."""
    scale = None if dtype == "float32" else 0.5
    out = np.take(np.zeros([2, 3, 4]), indices, axis).shape
    inputs = [tensor([2, 3, 4], dtype, scale), constant(indices)]
    compare(operator("GATHER", inputs, [tensor(out, dtype, scale)], {"axis": axis}))


def test_refusals():
    """Indices that are not there."""
    x, out = tensor([1, 3], "int8", 0.5), [tensor([1, 1], "int8", 0.5)]
    for index in (3, -1):
        assert_refused("need indices of 3 elements", "GATHER", [x, constant([index])], out,
                       {"axis": 1})  # fmt: skip
    assert_refused("need batch_dims 0, got 1", "GATHER", [x, constant([[0]])], out,
                   {"axis": 1, "batch_dims": 1})  # fmt: skip
    assert_refused("need an axis of 2 dimensions, got 2", "GATHER", [x, constant([0])], out,
                   {"axis": 2})  # fmt: skip
