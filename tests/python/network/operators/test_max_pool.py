# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""MAX_POOL_2D: windows that reach beyond the image, activations, refusals."""

from __future__ import annotations

import pytest
from layer_files import ACTIVATIONS
from packed import compare, operator, tensor
from refusing import assert_refused

KIND = "MAX_POOL_2D"
HALVED = {"padding": "VALID", "filter_height": 2, "filter_width": 2, "stride_h": 2, "stride_w": 2}


@pytest.mark.parametrize(
    ("window", "strides"), [((2, 3), (1, 1)), ((5, 4), (2, 3)), ((5, 3), (4, 4))]
)
@pytest.mark.parametrize("padding", ["SAME", "VALID"])
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_windows(dtype, padding, strides, window):
    """Only pixels within the image count."""
    ends = (0, 0) if padding == "SAME" else (window[0] - 1, window[1] - 1)
    out = [-(-(n - e) // s) for n, e, s in zip((9, 10), ends, strides, strict=True)]
    x, y = (tensor([1, *size, 2], dtype, 0.5) for size in ((9, 10), out))
    options = {
        "padding": padding,
        "filter_height": window[0],
        "filter_width": window[1],
        "stride_h": strides[0],
        "stride_w": strides[1],
    }
    compare(operator(KIND, [x], [y], options))


@pytest.mark.parametrize("activation", ACTIVATIONS)
@pytest.mark.parametrize(("dtype", "zero_point"), [("int8", -20), ("int16", 0)])
def test_activations(dtype, zero_point, activation):
    """Bounds are those of the output's scale, which may be another."""
    for scale in (0.05, 0.3):
        x, y = tensor([2, 4, 6, 3], dtype, 0.05), tensor([2, 2, 3, 3], dtype, scale, zero_point)
        compare(operator(KIND, [x], [y], HALVED | {"fused_activation_function": activation}))


def test_refusals():
    """Windows that fit nowhere, types that differ."""
    x, out = tensor([1, 4, 4, 1], "int8", 0.5), [tensor([1, 1, 1, 1], "int8", 0.5)]
    assert_refused("need a window of at most 4 pixels, got one of 5", KIND, [x], out,
                   HALVED | {"filter_height": 5})  # fmt: skip
    assert_refused("need one type for", KIND, [x], [tensor([1, 2, 2, 1], "int16", 0.5)], HALVED)
