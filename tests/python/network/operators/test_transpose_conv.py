# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""TRANSPOSE_CONV: strides, sizes that do not fit the data, both forms, refusals."""

from __future__ import annotations

import numpy as np
import pytest
from layer_files import ACTIVATIONS, layer
from packed import compare, constant, tensor
from refusing import assert_refused

KIND = "TRANSPOSE_CONV"


@pytest.mark.parametrize("padding", ["SAME", "VALID"])
@pytest.mark.parametrize("strides", [(1, 1), (2, 3), (4, 2)])
@pytest.mark.parametrize("window", [(1, 1), (3, 2), (4, 5)])
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_strides(dtype, window, strides, padding):
    """Strides above and below the window."""
    size = np.array([3, 4]) * strides if padding == "SAME" else np.array([2, 3]) * strides + window
    options = {"padding": padding, "stride_h": strides[0], "stride_w": strides[1]}
    shapes = [1, 3, 4, 2], [3, *window, 2], [1, *map(int, size), 3]
    compare(layer(KIND, *shapes, dtype, options=options))


@pytest.mark.parametrize("size", [(4, 4), (5, 9), (9, 5), (12, 12)])
@pytest.mark.parametrize("padding", ["SAME", "VALID"])
def test_other_sizes(padding, size):
    """What the data does not reach has the bias alone; what lies beyond the output is lost."""
    options = {"padding": padding, "stride_h": 2, "stride_w": 2}
    compare(layer(KIND, [1, 4, 4, 2], [3, 4, 3, 2], [1, *size, 3], options=options))


@pytest.mark.parametrize("activation", ACTIVATIONS)
@pytest.mark.parametrize("bias", ["wide", None])
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_both_forms(dtype, bias, activation):
    """Per channel and per tensor, every fused activation."""
    options = {"padding": "SAME", "stride_h": 2, "stride_w": 1}
    options["fused_activation_function"] = activation
    shapes = [1, 3, 4, 2], [3, 3, 3, 2], [1, 6, 4, 3]
    for per_channel in (False, True):
        compare(layer(KIND, *shapes, dtype, bias=bias, per_channel=per_channel, options=options))


def test_several_images_in_one():
    """The first dimension may be above 1."""
    options = {"padding": "SAME", "stride_h": 2, "stride_w": 2}
    compare(layer(KIND, [2, 3, 3, 1], [1, 3, 3, 1], [2, 6, 6, 1], options=options))


def _refused(text, size=(1, 6, 6, 1), **options):
    inputs = [
        constant(size),
        tensor([1, 3, 3, 2], "int8", 0.5, data=np.ones(18)),
        tensor([1, 3, 3, 2], "int8", 0.5),
    ]
    options = {"padding": "SAME", "stride_h": 2, "stride_w": 2} | options
    assert_refused(text, KIND, inputs, [tensor([1, 6, 6, 1], "int8", 0.5)], options)


def test_refusals():
    """Outputs of other images and channels, none at all, and what no file justifies."""
    _refused("need an output [1, rows, columns, 1]", (2, 6, 6, 1))
    _refused("need an output [1, rows, columns, 1]", (1, 6, 6, 2))
    _refused("need an output [1, rows, columns, 1]", (1, 0, 6, 1))
    _refused("need an output of at least the filter's size", (1, 2, 6, 1), padding="VALID")
    _refused("need an output of the order of 3 x 3 pixels", (1, 40_000, 40_000, 1))
    _refused("need an output of the order of 3 x 3 pixels", stride_h=1 << 20, stride_w=1 << 20)
    _refused("need stride_w >= 1, got -1", stride_w=-1)
