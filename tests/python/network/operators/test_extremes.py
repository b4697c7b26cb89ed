# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""MAXIMUM and MINIMUM: stored integers whatever their scales, rows, refusals."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, operator, tensor
from refusing import assert_refused


@pytest.mark.parametrize("kind", ["MAXIMUM", "MINIMUM"])
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_scales_are_not_read(kind, dtype):
    """As in the runtime, whose converter makes them equal."""
    a, b = tensor([1, 257], dtype, 0.5), tensor([1, 257], dtype, 0.1)
    compare(operator(kind, [a, b], [tensor([1, 257], dtype, 3.0)]))


@pytest.mark.parametrize("kind", ["MAXIMUM", "MINIMUM"])
def test_rows_of_images(kind):
    """Beside constants for one row and for all, and for other rows of the same image."""
    for shape in ([3], [1, 3], [2, 3], [2, 1, 3]):
        limit = tensor(shape, "int8", 0.5, data=np.arange(np.prod(shape)) * 9 - 20)
        for rows in (1, 2):
            out = tensor(np.broadcast_shapes([rows, 3], shape), "int8", 0.5)
            compare(operator(kind, [tensor([rows, 3], "int8", 0.5), limit], [out]))


def test_refusals():
    """Other types."""
    x, y = tensor([1, 3], "int8", 0.5), tensor([1, 3], "int16", 0.5)
    out = [tensor([1, 3], "int8", 0.5)]
    assert_refused("need one type", "MAXIMUM", [x, y], out)
    z = tensor([1, 3], "int32")
    assert_refused("need the first operand of int8 or int16", "MINIMUM", [z, z],
                   [tensor([1, 3], "int32")])  # fmt: skip
