# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Functions of one stored input: all stored values of each, and values that kernels refuse."""

from __future__ import annotations

import numpy as np
import pytest
from packed import compare, operator, tensor
from refusing import assert_refused

import bitfold

ALL = {name: np.arange(np.iinfo(name).min, np.iinfo(name).max + 1) for name in ("int8", "int16")}
ONE_BYTE = ("ELU", "HARD_SWISH", "RELU_0_TO_1", "RELU_N1_TO_1")
KINDS = (
    *ONE_BYTE,
    *("ABS", "EXP", "GELU", "LEAKY_RELU", "LOG", "LOGISTIC", "NEG", "RELU", "RELU6", "RSQRT"),
    *("SQRT", "TANH"),
)


def _case(kind, dtype, scale, zero_point, shape, options=None):
    """Return a file; outputs have the scale that the runtime wants, where it wants one."""
    out, out_zero_point = scale * 1.3, zero_point // 2
    if kind in ("LOGISTIC", "TANH") and dtype == "int16":
        out = 2.0**-15
    elif kind == "LOGISTIC":
        out, out_zero_point = 2.0**-8, -128
    return operator(
        kind,
        [tensor(shape, dtype, scale, zero_point)],
        [tensor(shape, dtype, out, out_zero_point)],
        options,
    )


@pytest.mark.parametrize(
    ("kind", "dtype"),
    [(k, d) for k in KINDS for d in ("int8", "int16") if d == "int8" or k not in ONE_BYTE],
)
def test_all_stored_values(kind, dtype):
    """Several scales, zero points at the ends."""
    for turn, scale in enumerate((0.05, 2.0**-5, 0.0007, 1.9)):
        zero_point = 0 if dtype == "int16" else (0, -128, 127, 9)[turn]
        options = {"LEAKY_RELU": {"alpha": (0.2, -0.3, 0.0, 2.0)[turn]},
                   "GELU": {"approximate": turn % 2 == 1}}.get(kind)  # fmt: skip
        values = ALL[dtype]
        if kind in ("RSQRT", "SQRT"):
            values = values[values >= zero_point]
        scale = scale if dtype == "int8" else scale / 64
        case = _case(kind, dtype, scale, zero_point, [1, values.size], options)
        compare(case, [values.astype(dtype)[None]])


@pytest.mark.parametrize("kind", ["RSQRT", "SQRT"])
@pytest.mark.parametrize(("dtype", "zero_point"), [("int8", -9), ("int8", 127), ("int16", 0)])
def test_roots_of_negative_numbers(kind, dtype, zero_point):
    """They have the result of zero, where the runtime would stop."""
    values = ALL[dtype].astype(dtype)
    content = _case(kind, dtype, 0.01, zero_point, [1, 1]).content
    network = bitfold.Network.from_tflite(content)
    results = network(values[:, None]).numpy()[:, 0]
    assert (results[values < zero_point] == results[values == zero_point]).all()


def test_any_rank():
    """Rows of several images."""
    compare(_case("RELU", "int8", 0.05, 3, [2, 3, 1, 4, 2]))
    compare(_case("ABS", "int16", 0.05, 0, [3]))


def test_refusals():
    """What the runtime has no kernel for, in its words."""
    x = tensor([1, 3], "int16", 0.1)
    for kind in ONE_BYTE:
        assert_refused("need the data of int8", kind, [x], [tensor([1, 3], "int16", 0.1)])
    assert_refused("output->params.scale", "LOGISTIC", [tensor([1, 3], "int8", 0.1)],
                   [tensor([1, 3], "int8", 0.1)])  # fmt: skip
    assert_refused("need one type", "RELU", [x], [tensor([1, 3], "int8", 0.1)])
