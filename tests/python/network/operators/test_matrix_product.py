# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""BATCH_MATMUL: leading dimensions, transposes, constants, wide sums, refusals."""

from __future__ import annotations

import itertools

import numpy as np
import pytest
from packed import compare, operator, tensor
from refusing import assert_refused

import bitfold

KIND = "BATCH_MATMUL"
FRONTS = [
    ([1], [1]),
    ([2], [2]),
    ([1, 3], [1, 1]),
    ([1, 1], [1, 3]),
    ([1, 2, 1], [1, 1, 3]),
    ([1, 3], [3]),
    ([1, 3], []),
    ([], []),
]


def _product(front, other, dtype="int8", adj_x=False, adj_y=False, constant=None, inner=4):
    """Pack a product of [3, inner] and [inner, 5] matrices."""
    rng = np.random.default_rng(inner)
    x, y = ([inner, 3] if adj_x else [3, inner]), ([5, inner] if adj_y else [inner, 5])
    points = (-7, 11, 3) if dtype == "int8" else (0, 0, 0)
    ends = np.iinfo(dtype)
    operands = [
        tensor(
            [*lead, *shape],
            dtype,
            scale,
            point,
            data=rng.integers(ends.min, ends.max, [*lead, *shape]) if constant == i else None,
        )
        for i, (lead, shape, scale, point) in enumerate(
            ((front, x, 0.013, points[0]), (other, y, 0.29, points[1]))
        )
    ]
    shape = [*np.broadcast_shapes(tuple(front), tuple(other)), 3, 5]
    scale = 0.013 * 0.29 * (74 if dtype == "int8" else 18918) * inner**0.5
    options = {"adj_x": adj_x, "adj_y": adj_y}
    return operator(KIND, operands, [tensor(shape, dtype, scale, points[2])], options)


@pytest.mark.parametrize(("front", "other"), FRONTS)
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_leading_dimensions(front, other, dtype):
    """Matrices repeat; either operand may be a constant."""
    for constant in (None, 0, 1):
        compare(_product(front, other, dtype, constant=constant))


@pytest.mark.parametrize(("adj_x", "adj_y"), [*itertools.product([False, True], repeat=2)])
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_transposes(adj_x, adj_y, dtype):
    """Of data, and of constants."""
    for constant in (None, 1):
        compare(_product([1, 2], [1, 2], dtype, adj_x, adj_y, constant))


@pytest.mark.parametrize("inner", [255, 256, 600])
def test_sums_beyond_32_bits(inner):
    """Sums of products of two int16 have 64 bits."""
    case = _product([1], [1], "int16", inner=inner)
    lowest = [np.full(x.shape, -32768, np.int16) for x in case.inputs]
    compare(case, lowest, batch=1)
    compare(case)
    sums = bitfold.Network.from_tflite(case.content).accumulators(lowest)[0]
    np.testing.assert_array_equal(sums, np.full([1, 3, 5], inner << 30))


@pytest.mark.parametrize("shift", [1, 3, 9])
def test_sums_beyond_32_bits_of_shifted_products(shift):
    """Every product is rounded, halves to even, before it is added."""
    network = bitfold.Network.from_tflite(_product([1], [1], "int16", inner=40).content)
    rng = np.random.default_rng(1)
    x, y = (rng.integers(-32768, 32767, shape, np.int16) for shape in ([2, 3, 40], [2, 40, 5]))
    products = x.astype(np.int64)[..., None] * y.astype(np.int64)[:, None]
    expected = np.rint(products / 2**shift).astype(np.int64).sum(axis=2)
    narrow = network.with_arithmetic(bitfold.Arithmetic(mult_shift=shift))
    np.testing.assert_array_equal(narrow.accumulators([x, y])[0], expected)


def test_the_product_of_the_scales_is_rounded():
    """To single precision, before the output's scale divides it: halves appear."""
    scales = 0.0731, 0.0117
    scale = float(np.float32(scales[0]) * np.float32(scales[1]))
    operands = [tensor([1, 9, 1], "int8", scales[0]), tensor([1, 1, 9], "int8", scales[1])]
    for power in (-1, 1, 2, 3):
        compare(operator(KIND, operands, [tensor([1, 9, 9], "int8", scale * 2.0**power)]))


def test_refusals():
    """Shapes that do not fit, and what the runtime leaves unwritten."""

    def refused(text, first, second, dtypes=("int8", "int8"), **options):
        operands = [tensor(s, d, 0.5) for s, d in zip((first, second), dtypes, strict=True)]
        assert_refused(text, KIND, operands, [tensor([1, 1, 1], dtypes[0], 0.5)], options)

    refused("need one inner dimension, got 3 and 4", [1, 2, 3], [1, 4, 2])
    refused("need one inner dimension, got 3 and 2", [1, 2, 3], [1, 3, 2], adj_y=True)
    refused("need leading dimensions that are alike or 1", [1, 2, 2, 3], [1, 3, 3, 2])
    refused("need matrices", [1, 2, 3], [3])
    refused("need one type for", [1, 2, 3], [1, 3, 2], ("int16", "int8"))
    refused("need adj_x with as many second matrices", [1, 4, 3, 2], [1, 1, 3, 2], adj_x=True)
