# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SQUARED_DIFFERENCE: every pair of stored values, scales far apart, refusals."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, operator, tensor
from refusing import assert_refused

EVERY = np.arange(-128, 128).astype(np.int8)


@pytest.mark.parametrize("ratio", [1.0, 2.0, 0.5, 1.9999999, 3.3, 2.0**-9, 2.0**-29])
def test_every_pair_of_stored_values(ratio):
    """Zero points at the ends and between."""
    first, second = (x.reshape(1, 256, 256) for x in np.meshgrid(EVERY, EVERY))
    for zero_points in ((-128, 127, 0), (3, -7, -128), (127, -128, 127)):
        scales = (0.07, 0.07 * ratio, 0.2)
        a, b, out = (
            tensor(first.shape, "int8", scale, zero_point)
            for scale, zero_point in zip(scales, zero_points, strict=True)
        )
        compare(operator("SQUARED_DIFFERENCE", [a, b], [out]), [first, second])


def test_a_mean_for_each_row():
    """As layer normalisation has it."""
    a, b = tensor([1, 5, 60], "int8", 0.1, 3), tensor([1, 5, 1], "int8", 0.04, -9)
    compare(operator("SQUARED_DIFFERENCE", [a, b], [tensor([1, 5, 60], "int8", 0.5, -128)]))


def test_refusals():
    """What ends the runtime's process, and 16 bits, which it lacks."""
    x, y = tensor([1, 3], "int8", 1.0), tensor([1, 3], "int16", 1.0)
    out = [tensor([1, 3], "int8", 2.0**-12)]
    assert_refused("need the multiplier of the square above 0", "SQUARED_DIFFERENCE", [x, x], out)
    assert_refused("need the first operand of int8", "SQUARED_DIFFERENCE", [y, y],
                   [tensor([1, 3], "int16", 1.0)])  # fmt: skip
