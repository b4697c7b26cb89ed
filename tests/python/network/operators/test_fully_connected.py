# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""FULLY_CONNECTED: shapes, both forms' sums, halves between stored values, refusals."""

from __future__ import annotations

import numpy as np
import pytest
from layer_files import ACTIVATIONS, layer
from packed import compare, operator, tensor
from refusing import assert_refused

import bitfold

KIND = "FULLY_CONNECTED"


@pytest.mark.parametrize("activation", ACTIVATIONS)
@pytest.mark.parametrize("per_channel", [False, True])
@pytest.mark.parametrize(
    ("dtype", "bias", "sums"),
    [
        ("int8", "int32", "FLOAT32"),
        ("int8", None, "FLOAT32"),
        ("int16", "int64", "FLOAT32"),
        ("int16", "int32", "INT32"),
        ("int16", None, "FLOAT32"),
    ],
)
def test_both_forms(dtype, bias, sums, per_channel, activation):
    """Sums of int16 have 64 bits, or 32 where the options say so."""
    options = {"fused_activation_function": activation, "quantized_bias_type": sums}
    shapes = [1, 37], [5, 37], [1, 5]
    compare(layer(KIND, *shapes, dtype, bias=bias, per_channel=per_channel, options=options))


@pytest.mark.parametrize(
    ("data", "output", "keep"),
    [
        ([1, 2, 3, 4], [1, 2, 3, 5], True),
        ([1, 2, 3, 4], [6, 5], False),
        ([1, 6, 2, 2], [6, 5], False),
        ([2, 4], [2, 5], False),
        ([3, 2, 4], [3, 2, 5], True),
    ],
)
def test_shapes(data, output, keep):
    """Vectors of an image stay with the image."""
    compare(layer(KIND, data, [5, 4], output, options={"keep_num_dims": keep}))


@pytest.mark.parametrize("dtype", ["int8", "int16"])
@pytest.mark.parametrize("multiplier", [2.0**-20, 0.5, 1.0, 2.0, 300.0])
def test_far_multipliers(dtype, multiplier):
    """Exponents below and above 0."""
    shapes = [1, 9], [4, 9], [1, 4]
    compare(layer(KIND, *shapes, dtype, multiplier=multiplier))


def test_sums_beyond_32_bits():
    """Sums of 64 bits are formed of sums over a few inputs."""
    case = layer(KIND, [1, 2000], [3, 2000], [1, 3], "int16", extreme=True, multiplier=2.0**-19)
    data = np.array([[-32768], [32767]], np.int16).repeat(2000, 1)
    compare(case, [data], batch=2)
    sums = bitfold.Network.from_tflite(case.content).accumulators(data)[0]
    assert np.abs(sums).min() > 2**32


@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_scales_whose_product_rounds(dtype):
    """The multiplier is formed in double precision: what is nearly a half is none."""
    data_scale, filter_scale = 0.0731, 0.0117
    scale = float(np.float32(data_scale) * np.float32(filter_scale))
    inputs = [
        tensor([1, 16], dtype, data_scale),
        tensor([16, 16], "int8", filter_scale, data=np.eye(16)),
    ]
    for power in (1, 2, 3):
        compare(operator(KIND, inputs, [tensor([1, 16], dtype, scale * 2**power)]), batch=9)


def test_refusals():
    """Filters that do not fit, weights in another order."""
    x, out = tensor([1, 6], "int8", 0.5), [tensor([1, 2], "int8", 0.5)]

    def filter(*shape):
        return tensor(shape, "int8", 0.5, data=np.ones(shape))

    assert_refused("need a filter for", KIND, [x, filter(2, 4)], out)
    assert_refused("need 3 inputs in the last dimension", KIND, [x, filter(2, 3)], out,
                   {"keep_num_dims": True})  # fmt: skip
    assert_refused("need weights_format DEFAULT", KIND, [x, filter(2, 6)], out,
                   {"weights_format": "SHUFFLED4x16INT8"})  # fmt: skip
    assert_refused("need the filter to be a constant", KIND, [x, tensor([2, 6], "int8", 0.5)], out)
