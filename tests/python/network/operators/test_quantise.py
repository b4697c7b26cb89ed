# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""QUANTIZE and DEQUANTIZE: halves and their neighbours, ends, other scales and types, constants."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, network, operator, tensor
from refusing import assert_refused

import bitfold
from bitfold.network.graph import Quantisation, Tensor
from bitfold.network.operators.quantise import dequantise, quantise

ZERO_POINTS = {"int8": (-128, 127, 5), "int16": (0, 0, 0), "uint8": (0, 255, 100)}
SCALES = (0.05, 2.0**-6, 1.7)


def _around_halves(dtype, scale):
    """Return multiples of half a step over the type's range, and the floats beside them."""
    ends = np.iinfo(dtype)
    span = float(ends.max) - ends.min
    halves = np.linspace(-span, span, 2001).round() * 0.5 * scale
    halves = halves.astype(np.float32)
    beside = [np.nextafter(halves, np.float32(limit)) for limit in (-np.inf, np.inf)]
    return np.concatenate([halves, *beside])[None]


@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_floats_are_rounded_away_from_zero(dtype):
    """As the interpreter rounds, where it is defined."""
    for scale, zero_point in zip(SCALES, ZERO_POINTS[dtype], strict=True):
        values = _around_halves(dtype, scale)
        out = tensor(values.shape, dtype, scale, zero_point)
        compare(operator("QUANTIZE", [tensor(values.shape, "float32")], [out]), [values])


@pytest.mark.parametrize("dtype", ["int8", "int16", "uint8"])
def test_what_lies_beyond(dtype):
    """Infinities and large numbers are the ends; NaN is the zero point."""
    zero_point, ends = ZERO_POINTS[dtype][2], np.iinfo(dtype)
    facts = Quantisation(np.array([0.5], np.float32), np.array([zero_point]))
    stored = Tensor(0, "x", (1, 7), np.dtype(dtype), facts)
    values = np.array([[np.inf, 3e38, 1e10, -np.inf, -1e10, np.nan, -0.0]], np.float32)
    expected = [ends.max] * 3 + [ends.min] * 2 + [zero_point] * 2
    assert quantise(values, stored).numpy().tolist() == [expected]


@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_every_stored_value_is_dequantised(dtype):
    """One rounding to single precision."""
    ends = np.iinfo(dtype)
    stored = np.arange(ends.min, ends.max + 1).astype(dtype)[None]
    for scale, zero_point in zip(SCALES, ZERO_POINTS[dtype], strict=True):
        x, out = tensor(stored.shape, dtype, scale, zero_point), tensor(stored.shape, "float32")
        content = operator("DEQUANTIZE", [x], [out]).content
        result = bitfold.Network.from_tflite(content)(stored)
        expected = (np.float32(scale) * (stored.astype(np.int64) - zero_point)).astype(np.float32)
        np.testing.assert_array_equal(result, expected)
        compare(operator("DEQUANTIZE", [x], [out]), [stored])


@pytest.mark.parametrize("axis", [0, 1, 2])
def test_constants_with_a_scale_for_each_channel(axis):
    """Weights that a float operator reads."""
    shape, rng = (3, 4, 5), np.random.default_rng(1)
    scales = rng.uniform(0.01, 2, shape[axis]).astype(np.float32)
    facts = Quantisation(scales, np.arange(shape[axis]), axis)
    stored = rng.integers(-128, 128, shape).astype(np.int8)
    weights = Tensor(0, "w", shape, np.dtype("int8"), facts, stored)
    along = [1 if i != axis else -1 for i in range(3)]
    centred = (stored - np.arange(shape[axis]).reshape(along)).astype(np.float32)
    expected = scales.reshape(along) * centred
    np.testing.assert_array_equal(dequantise(stored, weights), expected)


def test_constants_in_a_float_network():
    """Of 8 bits by channel; the interpreter agrees after QUANTIZE."""
    rng = np.random.default_rng(2)
    x, q, f = (tensor([1, 6], *t) for t in (("int8", 0.1), ("float32",), ("float32",)))
    stored = tensor([2, 6], "int8", [0.02, 0.03], axis=0, data=rng.integers(-128, 128, (2, 6)))
    weights, out = tensor([2, 6], "float32"), tensor([2, 6], "int8", 0.3, 3)
    f = tensor([2, 6], "float32")
    compare(
        network(
            [
                ("DEQUANTIZE", [x], [q], {}, 1),
                ("DEQUANTIZE", [stored], [weights], {}, 1),
                ("MUL", [q, weights], [f], {}, 1),
                ("QUANTIZE", [f], [out], {}, 1),
            ]
        )
    )


@pytest.mark.parametrize(("source", "target"), [("int8", "int8"), ("int16", "int8"),
                                                ("int16", "int16")])  # fmt: skip
@pytest.mark.parametrize("ratio", [1.0, 0.5, 1.9999999, 0.3, 2.0**-9, 2.0**-33, 3.7, 2.0**20])
def test_other_scales(source, target, ratio):
    """Every stored value, exponents above 0 and below -31."""
    ends = np.iinfo(source)
    stored = np.arange(ends.min, ends.max + 1).astype(source)[None]
    for a, b in zip(ZERO_POINTS[source], ZERO_POINTS[target][::-1], strict=True):
        x = tensor(stored.shape, source, 0.05, a)
        compare(
            operator("QUANTIZE", [x], [tensor(stored.shape, target, 0.05 / ratio, b)]), [stored]
        )


def test_unsigned_bytes():
    """As inputs, outputs and between: converters write them for callers of another age."""
    u, x, v, w = (
        tensor([1, 300], *t)
        for t in (("uint8", 0.5, 131), ("int8", 0.5, 3), ("uint8", 0.3, 0), ("uint8", 0.3, 9))
    )
    operators = [(u, x), (x, v), (v, w)]
    compare(network([("QUANTIZE", [a], [b], {}, 1) for a, b in operators]))


def test_refusals():
    """Types that the runtime does not map to each other, and tensors without a scale."""
    x = tensor([1, 3], "int8", 0.5)
    assert_refused("need 8 bits to 8, or int16 to int8 or int16, got int8 to int16", "QUANTIZE",
                   [x], [tensor([1, 3], "int16", 0.5)])  # fmt: skip
    assert_refused("need the output quantised", "QUANTIZE", [tensor([1, 3], "float32")],
                   [tensor([1, 3], "int8")])  # fmt: skip
    assert_refused("need the data quantised", "DEQUANTIZE", [tensor([1, 3], "int8")],
                   [tensor([1, 3], "float32")])  # fmt: skip
    assert_refused("need scale / the output's scale of at least 0 and below 2^31", "QUANTIZE",
                   [x], [tensor([1, 3], "int8", 2.0**-40)])  # fmt: skip
