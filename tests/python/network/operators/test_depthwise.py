# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""DEPTHWISE_CONV_2D: channel multipliers, places of windows, far multipliers, refusals."""

from __future__ import annotations

import numpy as np
import pytest
from layer_files import ACTIVATIONS, layer
from packed import compare, tensor
from refusing import assert_refused

KIND = "DEPTHWISE_CONV_2D"
VALID = {"padding": "VALID", "stride_h": 1, "stride_w": 1, "depth_multiplier": 1}


@pytest.mark.parametrize("multiplier", [1, 2, 3])
@pytest.mark.parametrize("activation", ACTIVATIONS)
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_channel_multipliers(dtype, activation, multiplier):
    """With a bias, per channel; without one, per tensor."""
    outputs = 3 * multiplier
    options = VALID | {"depth_multiplier": multiplier, "fused_activation_function": activation}
    shapes = [1, 6, 5, 3], [1, 3, 2, outputs], [1, 4, 4, outputs]
    if multiplier == 2:
        compare(layer(KIND, *shapes, dtype, bias=None, per_channel=False, options=options))
    else:
        compare(layer(KIND, *shapes, dtype, options=options))


@pytest.mark.parametrize("strides", [(1, 1), (2, 2), (3, 3), (4, 1)])
@pytest.mark.parametrize("size", [(7, 8), (9, 6)])
def test_same_windows(size, strides):
    """Windows that reach beyond the image lie as the runtime places them."""
    options = VALID | {"padding": "SAME", "stride_h": strides[0], "stride_w": strides[1]}
    output = [1, *(-(-n // s) for n, s in zip(size, strides, strict=True)), 2]
    compare(layer(KIND, [1, *size, 2], [1, 5, 4, 2], output, options=options))


@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_dilations(dtype):
    """Taps apart."""
    options = VALID | {"dilation_h_factor": 2, "dilation_w_factor": 3}
    compare(layer(KIND, [1, 8, 9, 2], [1, 3, 3, 2], [1, 4, 3, 2], dtype, options=options))


@pytest.mark.parametrize("multiplier", [2.0**-31, 0.5, 1.0, 2.0, 127.0])
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_far_multipliers(dtype, multiplier):
    """Exponents from the lowest to those above 0."""
    shapes = [1, 4, 4, 3], [1, 2, 2, 3], [1, 3, 3, 3]
    case = layer(KIND, *shapes, dtype, per_channel=False, multiplier=multiplier, options=VALID)
    compare(case)


def test_refusals():
    """Filters for other channels, biases of other types."""
    x, out = tensor([1, 4, 4, 2], "int8", 0.5), [tensor([1, 3, 3, 2], "int8", 0.5)]

    def filter(*shape):
        return tensor(shape, "int8", 0.5, data=np.ones(shape))

    assert_refused("need a filter [1, height, width, multiple of 2]", KIND,
                   [x, filter(1, 2, 2, 3)], out, VALID)  # fmt: skip
    assert_refused("need a filter [1, height, width, multiple of 2]", KIND,
                   [x, filter(2, 2, 2, 2)], out, VALID)  # fmt: skip
    wide, bias = tensor([1, 4, 4, 2], "int16", 0.5), tensor([2], "int32", 0.25, data=[1, 2])
    assert_refused("need the bias of int64", KIND, [wide, filter(1, 2, 2, 2), bias],
                   [tensor([1, 3, 3, 2], "int16", 0.5)], VALID)  # fmt: skip
    with_sides = VALID | {"padding": "VALID", "dilation_h_factor": 0}
    assert_refused("need dilation_h_factor >= 1, got 0", KIND, [x, filter(1, 2, 2, 2)], out,
                   with_sides)  # fmt: skip
