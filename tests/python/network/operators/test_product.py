# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""MUL: every pair of stored values, multipliers of every size, refusals."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, operator, tensor
from refusing import assert_refused

EVERY = np.arange(-128, 128).astype(np.int8)
ROW = [1, 257]
# Powers of two and their neighbours, exponents above 0 and below -31.
MULTIPLIERS = (2.0**-8, 0.0039062497, 1.0, 0.99999994, 0.013, 5.3, 2.0**10, 2.0**-33)


@pytest.mark.parametrize("multiplier", MULTIPLIERS)
def test_every_pair_of_stored_values(multiplier):
    """Zero points at the ends and between, every fused activation by turns."""
    first, second = (x.reshape(1, 256, 256) for x in np.meshgrid(EVERY, EVERY))
    for turn, zero_points in enumerate(
        ((-128, 127, 0), (3, -7, -128)), MULTIPLIERS.index(multiplier)
    ):
        fused = ("NONE", "RELU", "RELU6", "RELU_N1_TO_1")[turn % 4]
        scales = (0.07, 0.3, 0.07 * 0.3 / multiplier)
        a, b, out = (
            tensor(first.shape, "int8", scale, zero_point)
            for scale, zero_point in zip(scales, zero_points, strict=True)
        )
        case = operator("MUL", [a, b], [out], {"fused_activation_function": fused})
        compare(case, [first, second])


@pytest.mark.parametrize("multiplier", MULTIPLIERS)
def test_int16(multiplier):
    """Products of 30 bits, shifted out of 32 where the exponent is above 0."""
    a, b = tensor(ROW, "int16", 0.25), tensor(ROW, "int16", 0.5)
    compare(operator("MUL", [a, b], [tensor(ROW, "int16", 0.125 / multiplier)]))


def test_refusals():
    """A multiplier that no 32 bits can be shifted by, and operands that do not fit."""
    x = tensor(ROW, "int8", 1.0)
    out = [tensor(ROW, "int8", 2.0**-31)]
    assert_refused("need the multiplier of at least 0 and below 2^31", "MUL", [x, x], out)
    assert_refused("need operands that broadcast", "MUL", [x, tensor([1, 2], "int8", 1.0)], out)
    assert_refused("need the output of int8 or int16", "MUL", [x, x], [tensor(ROW, "int32", 1.0)])
