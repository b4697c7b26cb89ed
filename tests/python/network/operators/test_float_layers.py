# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Layers of float32 between DEQUANTIZE and QUANTIZE, on whole numbers, against the interpreter."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, constant, network, tensor
from refusing import assert_refused

RNG = np.random.default_rng(5)
WINDOWS = (
    ((1, 1), (1, 1), "SAME"),
    ((2, 1), (1, 1), "SAME"),
    ((2, 2), (1, 1), "VALID"),
    ((3, 4), (1, 1), "SAME"),
    ((1, 1), (2, 2), "SAME"),
    ((2, 2), (2, 1), "VALID"),
)


def _between(kind, operands, shape, options, constants=(), scale=1.0):
    """Return a file of a layer of whole numbers; sums of them are exact in floats."""
    operators, floats = [], []
    for operand in operands:
        floats.append(tensor(operand, "float32"))
        operators.append(("DEQUANTIZE", [tensor(operand, "int8", 1.0)], [floats[-1]], {}, 1))
    result = tensor(shape, "float32")
    operators.append((kind, [*floats, *constants], [result], options, 1))
    operators.append(("QUANTIZE", [result], [tensor(shape, "int8", scale, -3)], {}, 1))
    return network(operators)


def _weights(*shape):
    return tensor(shape, "float32", data=RNG.integers(-9, 10, shape))


@pytest.mark.parametrize(("strides", "dilations", "padding"), WINDOWS)
@pytest.mark.parametrize("kind", ["CONV_2D", "DEPTHWISE_CONV_2D"])
def test_convolutions(kind, strides, dilations, padding):
    """Strides that differ, dilation, both paddings, a bias, a channel multiplier."""
    reach = [
        d * (k - 1) if padding == "VALID" else 0 for d, k in zip(dilations, (3, 2), strict=True)
    ]
    size = [-(-(n - r) // s) for n, r, s in zip((9, 8), reach, strides, strict=True)]
    options = {
        "padding": padding,
        "stride_h": strides[0],
        "stride_w": strides[1],
        "dilation_h_factor": dilations[0],
        "dilation_w_factor": dilations[1],
        "fused_activation_function": "RELU",
    }
    shape = [7, 3, 2, 5]
    if kind == "DEPTHWISE_CONV_2D":
        shape, options = [1, 3, 2, 10], options | {"depth_multiplier": 2}
    outputs = max(shape[0], shape[3]) if shape[0] == 1 else shape[0]
    constants = [_weights(*shape), _weights(outputs)]
    compare(_between(kind, [[1, 9, 8, 5]], [1, *size, outputs], options, constants, 16.0))


@pytest.mark.parametrize("keep", [False, True])
def test_fully_connected(keep):
    """Vectors of an image become rows, or stay where they are."""
    shape = [1, 4, 3] if keep else [4, 3]
    constants = [_weights(3, 6), _weights(3)]
    compare(
        _between("FULLY_CONNECTED", [[1, 4, 6]], shape, {"keep_num_dims": keep}, constants, 8.0)
    )


@pytest.mark.parametrize("adj_y", [False, True])
def test_matrix_products(adj_y):
    """Of two tensors, and with a constant."""
    second = [5, 6] if adj_y else [6, 5]
    options = {"adj_y": adj_y}
    compare(_between("BATCH_MATMUL", [[1, 4, 6], [1, *second]], [1, 4, 5], options, scale=256.0))
    compare(
        _between("BATCH_MATMUL", [[1, 4, 6]], [1, 4, 5], options, [_weights(*second)], scale=16.0)
    )


@pytest.mark.parametrize("kind", ["AVERAGE_POOL_2D", "MAX_POOL_2D"])
@pytest.mark.parametrize("padding", ["SAME", "VALID"])
def test_pools(kind, padding):
    """Windows that reach beyond the image, too."""
    size = 4 if padding == "SAME" else 3
    options = {
        "padding": padding,
        "stride_h": 2,
        "stride_w": 2,
        "filter_height": 2,
        "filter_width": 2,
        "fused_activation_function": "RELU6",
    }
    compare(_between(kind, [[1, 7, 7, 3]], [1, size, size, 3], options))


@pytest.mark.parametrize("kind", ["MEAN", "REDUCE_MAX", "REDUCE_MIN", "SUM"])
@pytest.mark.parametrize("keep", [False, True])
def test_reductions(kind, keep):
    """Of rows and columns, of channels, of the first dimension."""
    for axes, shape in (([1, 2], [2, 1, 1, 5]), ([-1], [2, 4, 4, 1]), ([0, 3], [1, 4, 4, 1])):
        out = shape if keep else [n for n, m in zip(shape, (2, 4, 4, 5), strict=True) if n == m]
        options = {"keep_dims": keep}
        compare(_between(kind, [[2, 4, 4, 5]], out, options, [constant(axes)]))


@pytest.mark.parametrize("kind", ["L2_NORMALIZATION", "LOG_SOFTMAX", "SOFTMAX"])
def test_the_last_dimension(kind):
    """Of rows of an image."""
    options = {"SOFTMAX": {"beta": 0.1}, "L2_NORMALIZATION": {"fused_activation_function": "NONE"}}
    compare(_between(kind, [[2, 3, 9]], [2, 3, 9], options.get(kind, {}), scale=0.01))


def test_refusals():
    """Weights that are no constants, filters for other channels, axes that are none."""
    x, out = tensor([1, 4, 4, 3], "float32"), [tensor([1, 4, 4, 2], "float32")]
    options = {"padding": "SAME", "stride_h": 1, "stride_w": 1}
    assert_refused("need the filter to be a constant", "CONV_2D",
                   [x, tensor([2, 1, 1, 3], "float32")], out, options)  # fmt: skip
    assert_refused("need a filter for 3 channels", "CONV_2D", [x, _weights(2, 1, 1, 4)], out,
                   options)  # fmt: skip
    assert_refused("need every input of float32", "CONV_2D",
                   [tensor([1, 4, 4, 3], "int8", 1.0), _weights(2, 1, 1, 3)], out,
                   options)  # fmt: skip
    assert_refused("need weights of float32 beside data in floats", "CONV_2D",
                   [x, tensor([2, 1, 1, 3], "int8", 1.0, data=np.ones([2, 1, 1, 3]))], out,
                   options)  # fmt: skip
    assert_refused("need axes of tensor 0", "SUM", [x, constant([4])], out)
    assert_refused("need a filter for tensor 0", "FULLY_CONNECTED", [x, _weights(2, 5)], out)
