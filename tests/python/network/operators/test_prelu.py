# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""PRELU: every stored value beside every alpha, refusals."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, operator, tensor
from refusing import assert_refused

EVERY = np.arange(-128, 128)


@pytest.mark.parametrize(
    "zero_points", [(0, 0, 0), (-128, 127, 5), (127, -128, -128), (-7, 3, 127)]
)
@pytest.mark.parametrize("scale", [0.5, 0.3, 2.0**-9, 4.0])
def test_every_value_and_alpha(zero_points, scale):
    """An alpha for each channel."""
    data, alpha, out = zero_points
    x = tensor([1, 256, 256], "int8", 0.5, data)
    slopes = tensor([1, 256], "int8", 0.04, alpha, data=EVERY)
    case = operator("PRELU", [x, slopes], [tensor([1, 256, 256], "int8", scale, out)])
    compare(case, [np.repeat(EVERY, 256).astype(np.int8).reshape(1, 256, 256)])


def test_data_of_16_bits():
    """Beside an alpha of 8."""
    for zero_point in (0, 5):
        slopes = tensor([257], "int8", 0.04, zero_point, data=np.arange(257) % 256 - 128)
        case = operator(
            "PRELU", [tensor([1, 257], "int16", 0.5), slopes], [tensor([1, 257], "int16", 0.3)]
        )
        compare(case)


def test_refusals():
    """An alpha of the wrong shape or type."""
    x, out = tensor([1, 3], "int8", 1.0), [tensor([1, 3], "int8", 1.0)]
    for shape in ([2, 1, 3], [2]):
        alpha = tensor(shape, "int8", 1.0, data=np.ones(shape))
        assert_refused("need alpha to broadcast to tensor 0", "PRELU", [x, alpha], out)
    alpha = tensor([3], "int16", 1.0, data=np.ones(3))
    assert_refused("need alpha of int8", "PRELU", [x, alpha], out)
    assert_refused("need 2 inputs, got 1", "PRELU", [x], out)
