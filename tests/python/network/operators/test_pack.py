# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""PACK: every axis, constants, refusals."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, operator, tensor
from refusing import assert_refused


@pytest.mark.parametrize("axis", [0, 1, 2, -1])
@pytest.mark.parametrize("dtype", ["int8", "int16", "int32"])
def test_every_axis(axis, dtype):
    """A constant stands beside the rows of each image."""
    scale = None if dtype == "int32" else 0.5
    shape = [2, 3]
    inputs = [tensor(shape, dtype, scale), tensor(shape, dtype, scale, data=np.arange(6))]
    out = np.stack([np.zeros(shape)] * 2, axis).shape
    options = {"axis": axis, "values_count": 2}
    compare(operator("PACK", inputs, [tensor(out, dtype, scale)], options))


def test_refusals():
    """Shapes and scales that differ."""
    x, out = tensor([1, 2], "int8", 0.5), [tensor([1, 2, 2], "int8", 0.5)]
    assert_refused("need one scale and zero point", "PACK", [x, tensor([1, 2], "int8", 0.25)], out,
                   {"axis": 1})  # fmt: skip
    assert_refused("of the shape of", "PACK", [x, tensor([1, 3], "int8", 0.5)], out, {"axis": 1})
    assert_refused("need an axis of 3 dimensions, got 3", "PACK", [x, x], out, {"axis": 3})
    assert_refused("need one type", "PACK", [x, tensor([1, 2], "int16", 0.5)], out, {"axis": 1})
