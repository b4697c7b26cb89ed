# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""AVERAGE_POOL_2D: windows that reach beyond the image, large ones, refusals."""

from __future__ import annotations

import pytest
from layer_files import ACTIVATIONS
from packed import compare, operator, tensor
from refusing import assert_refused

KIND = "AVERAGE_POOL_2D"


def _options(padding, window, strides, activation="NONE"):
    return {
        "padding": padding,
        "filter_height": window[0],
        "filter_width": window[1],
        "stride_h": strides[0],
        "stride_w": strides[1],
        "fused_activation_function": activation,
    }


@pytest.mark.parametrize(
    ("window", "strides"),
    [((1, 1), (3, 2)), ((2, 3), (1, 1)), ((5, 4), (2, 3)), ((5, 3), (4, 4)), ((7, 9), (1, 2))],
)
@pytest.mark.parametrize("padding", ["SAME", "VALID"])
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_windows(dtype, padding, strides, window):
    """Only pixels within the image count."""
    ends = (0, 0) if padding == "SAME" else (window[0] - 1, window[1] - 1)
    out = [-(-(n - e) // s) for n, e, s in zip((9, 10), ends, strides, strict=True)]
    x, y = (tensor([1, *size, 2], dtype, 0.5) for size in ((9, 10), out))
    compare(operator(KIND, [x], [y], _options(padding, window, strides)))


@pytest.mark.parametrize("activation", ACTIVATIONS)
@pytest.mark.parametrize(("dtype", "zero_point"), [("int8", -20), ("int16", 0)])
def test_activations(dtype, zero_point, activation):
    """Bounds are those of the output's scale, which may be another."""
    for scale in (0.05, 0.3):
        x, y = tensor([2, 4, 6, 3], dtype, 0.05), tensor([2, 2, 3, 3], dtype, scale, zero_point)
        compare(operator(KIND, [x], [y], _options("VALID", (2, 2), (2, 2), activation)))


def test_a_window_larger_than_the_image():
    """All pixels."""
    x, y = tensor([1, 3, 2, 2], "int8", 0.5), tensor([1, 3, 2, 2], "int8", 0.5)
    compare(operator(KIND, [x], [y], _options("SAME", (40, 50), (1, 1))))


def test_refusals():
    """Windows that fit nowhere, or whose sums do not fit."""
    x, out = tensor([1, 4, 4, 1], "int8", 0.5), [tensor([1, 1, 1, 1], "int8", 0.5)]
    assert_refused("need a window of at most 4 pixels, got one of 5", KIND, [x], out,
                   _options("VALID", (5, 1), (1, 1)))  # fmt: skip
    assert_refused("need filter_width >= 1, got 0", KIND, [x], out,
                   _options("VALID", (1, 0), (1, 1)))  # fmt: skip
    assert_refused("need windows near the image of 16 pixels", KIND, [x], out,
                   _options("SAME", (3000, 4000), (1, 1)))  # fmt: skip
    assert_refused("need windows whose sums fit 32 bits, got 65536 pixels", KIND,
                   [tensor([1, 4, 4, 1], "int16", 0.5)], [tensor([1, 4, 4, 1], "int16", 0.5)],
                   _options("SAME", (256, 256), (1, 1)))  # fmt: skip
    assert_refused("need fused_activation_function", KIND, [x], out,
                   _options("VALID", (1, 1), (1, 1), "TANH"))  # fmt: skip
    assert_refused("need the data of rank 4", KIND, [tensor([4, 4, 1], "int8", 0.5)], out,
                   _options("VALID", (1, 1), (1, 1)))  # fmt: skip
