# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""PAD, PADV2 and MIRROR_PAD: what is written around, rows of several images, refusals."""

from __future__ import annotations

import pytest
from packed import compare, constant, operator, tensor
from refusing import assert_refused

PADDINGS = [[1, 2], [0, 1], [3, 0]]


@pytest.mark.parametrize(("dtype", "zero_point"), [("int8", -7), ("int16", 0)])
def test_pad_writes_the_output_s_zero_point(dtype, zero_point):
    """Whatever the scale of the data, and around the rows of each image."""
    inputs = [tensor([2, 3, 4], dtype, 0.5, zero_point // 2), constant(PADDINGS)]
    compare(operator("PAD", inputs, [tensor([5, 4, 7], dtype, 0.25, zero_point)]))


@pytest.mark.parametrize("dtype", ["int32", "float32"])
def test_what_is_not_quantised_gets_zeros(dtype):
    """0 itself."""
    inputs = [tensor([2, 3, 4], dtype), constant(PADDINGS, "int64")]
    compare(operator("PAD", inputs, [tensor([5, 4, 7], dtype)]))


@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_pad_v2_writes_a_stored_value(dtype):
    """In the scale of the output."""
    inputs = [tensor([2, 3, 4], dtype, 0.5), constant(PADDINGS)]
    value = tensor([1], dtype, 0.25, data=[-9])
    compare(operator("PADV2", [*inputs, value], [tensor([5, 4, 7], dtype, 0.25)]))


@pytest.mark.parametrize(
    ("mode", "paddings"),
    [("REFLECT", [[1, 0], [2, 2], [0, 3]]), ("SYMMETRIC", [[2, 1], [3, 3], [4, 0]])],
)
@pytest.mark.parametrize("dtype", ["int8", "int16", "float32"])
def test_mirror_pad(mode, paddings, dtype):
    """As far as the mirror reaches."""
    scale = None if dtype == "float32" else 0.5
    shape = [2, 3, 4]
    out = [n + sum(pair) for n, pair in zip(shape, paddings, strict=True)]
    inputs = [tensor(shape, dtype, scale), constant(paddings)]
    compare(operator("MIRROR_PAD", inputs, [tensor(out, dtype, scale)], {"mode": mode}))


def test_refusals():
    """Paddings below 0, beyond the mirror, of other ranks; a value in another scale."""
    x, out = tensor([1, 3], "int8", 0.5), [tensor([1, 5], "int8", 0.5)]
    assert_refused("need paddings of at least 0", "PAD", [x, constant([[0, 0], [3, -1]])], out)
    assert_refused("need at most 2147483647 elements", "PAD",
                   [x, constant([[0, 0], [2**31 - 1, 0]])], out)  # fmt: skip
    assert_refused("need 4 numbers for the paddings", "PAD", [x, constant([[1, 1]])], out)
    value = tensor([1], "int8", 0.25, data=[1])
    assert_refused("need one scale and zero point", "PADV2",
                   [x, constant([[0, 0], [1, 1]]), value], out)  # fmt: skip
    for mode, most in (("REFLECT", 2), ("SYMMETRIC", 3)):
        assert_refused(f"need at most {most} elements beside 3", "MIRROR_PAD",
                       [x, constant([[0, 0], [most + 1, 0]])], out, {"mode": mode})  # fmt: skip
    assert_refused("need one scale and zero point", "MIRROR_PAD", [x, constant([[0, 0], [1, 1]])],
                   [tensor([1, 5], "int8", 0.25)], {"mode": "REFLECT"})  # fmt: skip
