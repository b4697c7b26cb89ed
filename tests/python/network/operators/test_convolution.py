# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""CONV_2D: both forms' sums and roundings, groups of channels, far multipliers, refusals."""

from __future__ import annotations

import re

import numpy as np
import pytest
from layer_files import ACTIVATIONS, layer
from packed import compare, operator, tensor
from refusing import assert_refused

import bitfold

VALID = {"padding": "VALID", "stride_h": 1, "stride_w": 1}


@pytest.mark.parametrize("activation", ACTIVATIONS)
@pytest.mark.parametrize("per_channel", [False, True])
@pytest.mark.parametrize(
    ("dtype", "bias", "sums"),
    [("int8", "int32", "FLOAT32"), ("int16", "int64", "FLOAT32"), ("int16", "int32", "INT32")],
)
def test_both_forms(dtype, bias, sums, per_channel, activation):
    """int16 has sums of 64 bits and one rounding, or of 32 and two where the options say so."""
    options = VALID | {"fused_activation_function": activation, "quantized_bias_type": sums}
    shapes = [1, 7, 6, 3], [4, 3, 2, 3], [1, 5, 5, 4]
    compare(layer("CONV_2D", *shapes, dtype, bias=bias, per_channel=per_channel, options=options))


@pytest.mark.parametrize("multiplier", [2.0**-31, 2.0**-12, 0.5, 1.0, 2.0, 100.0, 127.0])
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_far_multipliers(dtype, multiplier):
    """Exponents from the lowest to those above 0."""
    shapes = [1, 4, 4, 2], [5, 2, 2, 2], [1, 3, 3, 5]
    case = layer("CONV_2D", *shapes, dtype, per_channel=False, multiplier=multiplier, options=VALID)
    compare(case)


@pytest.mark.parametrize("strides", [(1, 1), (2, 1), (3, 4)])
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_groups_of_channels(dtype, strides):
    """Each group of outputs sees its group of channels; SAME at every stride."""
    options = {"padding": "SAME", "stride_h": strides[0], "stride_w": strides[1]}
    output = [1, -(-9 // strides[0]), -(-8 // strides[1]), 6]
    compare(layer("CONV_2D", [1, 9, 8, 6], [6, 3, 3, 2], output, dtype, options=options))


@pytest.mark.parametrize("groups", [1, 2])
def test_sums_beyond_32_bits(groups):
    """Sums of 64 bits are formed of sums over a few channels of each group."""
    case = layer("CONV_2D", [1, 1, 3, 1200], [2, 1, 1, 1200 // groups], [1, 1, 3, 2], "int16",
                 extreme=True, multiplier=2.0**-18, options=VALID)  # fmt: skip
    data = np.full([2, 1, 3, 1200], -32768, np.int16)
    data[1, 0, 1] = 32767
    compare(case, [data], batch=2)
    sums = bitfold.Network.from_tflite(case.content).accumulators(data)[0]
    assert sums.dtype == np.int64
    assert np.abs(sums).min() > 2**31


def test_dilations():
    """Taps apart, one way and both."""
    for dilations, size in (((2, 1), (3, 4)), ((2, 3), (3, 2))):
        options = VALID | {"dilation_h_factor": dilations[0], "dilation_w_factor": dilations[1]}
        output = [1, 3 + size[0] - 3, size[1], 4]
        filter = [4, 3, 3 if dilations[1] > 1 else 2, 2]
        output = [1, 7 - 2 * dilations[0], 8 - (filter[2] - 1) * dilations[1], 4]
        compare(layer("CONV_2D", [1, 7, 8, 2], filter, output, options=options))


def _refused(text, x=None, filter=None, bias=None, **options):
    x = x or tensor([1, 4, 4, 2], "int8", 0.5)
    filter = filter or tensor([3, 2, 2, 2], "int8", 0.5, data=np.ones(24))
    bias = bias or tensor([3], "int32", 0.25, data=np.ones(3))
    out = [tensor([1, 3, 3, 3], x.dtype, 0.5)]
    assert_refused(text, "CONV_2D", [x, filter, bias], out, VALID | options)


def test_refusals():
    """Weights, biases, windows and options that no kernel takes."""
    ones = np.ones(24)
    _refused("need the filter to be a constant", filter=tensor([3, 2, 2, 2], "int8", 0.5))
    _refused("need the filter of int8", filter=tensor([3, 2, 2, 2], "int16", 0.5, data=ones))
    _refused("need the zero point 0 for the filter",
             filter=tensor([3, 2, 2, 2], "int8", 0.5, 1, data=ones))  # fmt: skip
    _refused("need the scales of the filter along axis 0, got 3",
             filter=tensor([2, 2, 3, 2], "int8", [0.5] * 2, axis=3, data=ones))  # fmt: skip
    _refused("need a filter for groups of the 2 channels",
             filter=tensor([2, 2, 2, 3], "int8", 0.5, data=ones),
             bias=tensor([2], "int32", 0.25, data=np.ones(2)))  # fmt: skip
    _refused("need a filter for groups of the 0 channels", x=tensor([1, 4, 4, 0], "int8", 0.5))
    _refused("need a bias of 3 elements", bias=tensor([2], "int32", 0.25, data=np.ones(2)))
    wide = tensor([1, 4, 4, 2], "int16", 0.5)
    _refused("need the bias of int64", x=wide)
    _refused("need the bias of int32", bias=tensor([3], "int64", 0.25, data=np.ones(3)))
    _refused("need a window of at most 4 pixels, got one of 5", dilation_w_factor=4)
    _refused("need windows near the image of 16 pixels", padding="SAME",
             dilation_w_factor=100_000, dilation_h_factor=100_000)  # fmt: skip
    _refused("need stride_h >= 1, got 0", stride_h=0)
    _refused("need fused_activation_function", fused_activation_function="TANH")


def test_a_shift_beyond_the_multiplier_names_the_layer():
    """A shift adds to the exponent, which has its limits."""
    case = layer("CONV_2D", [1, 2, 2, 2], [3, 1, 1, 2], [1, 2, 2, 3], "int16", multiplier=4.0,
                 options=VALID)  # fmt: skip
    network = bitfold.Network.from_tflite(case.content)
    with pytest.raises(ValueError, match=re.escape(network.layers[0].name)):
        network.with_arithmetic(bitfold.Arithmetic(mult_shift=6))


def test_a_layer_without_a_bias():
    """Its sums are those of the products."""
    x, filter = tensor([1, 2, 2, 2], "int8", 0.5, 3), np.arange(6).reshape(3, 1, 1, 2)
    inputs = [x, tensor([3, 1, 1, 2], "int8", 0.5, data=filter)]
    case = operator("CONV_2D", inputs, [tensor([1, 2, 2, 3], "int8", 4.0)], VALID)
    data = np.arange(8, dtype=np.int8).reshape(1, 2, 2, 2)
    sums = bitfold.Network.from_tflite(case.content).accumulators(data)[0]
    np.testing.assert_array_equal(sums, (data.astype(np.int32) - 3) @ filter[:, 0, 0].T)
