# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The runtime's kernels on single operators: against literal values, and against one another."""

from __future__ import annotations

import warnings

import numpy as np
import pytest
from packing import quantisation, tensor

from bitfold.network import kernels
from bitfold.network.graph import Node, Operator
from bitfold.network.kernels import run_kernel, tabulate


def node(kind, dtype="int8", options=None, *, scales=(0.05, 0.05), zero_points=(0, 0), version=1):
    """Return an operator of one input and one output of an odd shape."""
    ends = [
        tensor(i, (1, 7, 3), dtype, quantisation(scale, zero_points=[zero_point]))
        for i, (scale, zero_point) in enumerate(zip(scales, zero_points, strict=True))
    ]
    return Node(Operator(4, kind, (0,), (1,), options or {}, version), (ends[0],), (ends[1],))


def test_a_kernel_of_two_inputs():
    """Constants come with their elements, the other inputs as data."""
    inputs = [
        tensor(7, (1, 4), scales=1.0),
        tensor(8, (1, 4), scales=1.0, data=[1, 0, 0, -1]),
        None,
    ]
    (result,) = run_kernel(
        "FULLY_CONNECTED",
        inputs,
        [tensor(9, (1, 1), scales=0.5)],
        {},
        [np.array([[5, 6, 7, 9]], np.int8)],
        version=4,
    )
    assert result.tolist() == [[-8]]


@pytest.mark.parametrize(
    ("kind", "options", "inputs"),
    [
        ("SUM", {"keep_dims": True}, [tensor(1, (1,), "int32", data=[1])]),
        ("TILE", {}, [tensor(1, (2,), "int32", data=[1, 2])]),
    ],
)
def test_what_the_reference_kernels_lack(kind, options, inputs):
    """These run by the default kernels: the reference ones give zeros or are not there."""
    shape = (1, 1) if kind == "SUM" else (1, 6)
    data = np.array([[1, 2, 3]], np.int8)
    inputs = [tensor(0, (1, 3), scales=1.0), *inputs]
    outputs = [tensor(2, shape, scales=1.0)]
    (result,) = run_kernel(kind, inputs, outputs, options, [data], version=2)
    assert result.tolist() == ([[6]] if kind == "SUM" else [[1, 2, 3, 1, 2, 3]])


def test_refusals():
    """What the runtime refuses, and data that does not fit, is a ValueError with its words."""
    square = node("SQUARE")
    with pytest.raises(ValueError, match=r"Need a SQUARE that the runtime's kernel takes.*INT8"):
        run_kernel("SQUARE", square.inputs, square.outputs, {}, [np.zeros((1, 7, 3), np.int8)])
    with pytest.raises(ValueError, match="version '99'"):
        run_kernel(
            "RELU", square.inputs, square.outputs, {}, [np.zeros((1, 7, 3), np.int8)], version=99
        )
    for data in ([], [np.zeros((1, 7, 3), np.int16)], [np.zeros((1, 7, 4), np.int8)]):
        with pytest.raises(ValueError, match=r"^Need data"):
            run_kernel("RELU", square.inputs, square.outputs, {}, data)


UNARY = {
    "ABS": np.abs,
    "NEG": np.negative,
    "RELU": lambda x: np.maximum(x, 0),
    "RELU6": lambda x: np.clip(x, 0, 6),
    "RELU_N1_TO_1": lambda x: np.clip(x, -1, 1),
    "ELU": lambda x: np.where(x < 0, np.expm1(x), x),
    "LOGISTIC": lambda x: 1 / (1 + np.exp(-x)),
    "TANH": np.tanh,
    "HARD_SWISH": lambda x: x * np.clip(x + 3, 0, 6) / 6,
    "LEAKY_RELU": lambda x: np.where(x < 0, x * 0.25, x),
    "QUANTIZE": lambda x: x,
}
FIXED = {"LOGISTIC": (1 / 256, -128), "TANH": (1 / 128, 0)}


@pytest.mark.parametrize("kind", UNARY)
def test_tables_are_near_the_functions(kind):
    """A table is the function to within two steps; which bits it has only the kernel says."""
    scale, zero_point = FIXED.get(kind, (0.05, 3))
    if kind in ("ABS", "NEG"):
        zero_point = 0
    options = {"alpha": 0.25} if kind == "LEAKY_RELU" else {}
    zero_points = (0 if kind in ("ABS", "NEG") else -5, zero_point)
    table = tabulate(node(kind, "int8", options, scales=(0.05, scale), zero_points=zero_points))
    assert (table.shape, table.dtype) == ((256,), np.int8)
    real = UNARY[kind](0.05 * (np.arange(-128, 128) - zero_points[0]))
    expected = np.clip(np.round(real / scale) + zero_point, -128, 127)
    if kind == "NEG":
        expected[0] = -128  # it wraps there
    assert np.abs(table.astype(int) - expected).max() <= 2


@pytest.mark.parametrize(
    ("kind", "dtype"), [("GELU", "int8"), ("GELU", "int16"), ("TANH", "int16")]
)
def test_a_table_is_what_the_kernel_gives_elsewhere(kind, dtype):
    """The results depend neither on the place in the tensor nor on its shape."""
    scales = (0.003, 2.0**-15) if kind == "TANH" else (0.05, 0.03)
    found = node(kind, dtype, scales=scales)
    data = np.random.default_rng(2).integers(-128, 128, (1, 7, 3)).astype(dtype)
    (result,) = run_kernel(kind, found.inputs, found.outputs, {}, [data])
    table = tabulate(found)
    assert table.size == 2 ** (8 * np.dtype(dtype).itemsize)
    np.testing.assert_array_equal(table[data.astype(int) - np.iinfo(dtype).min], result)


def test_a_table_of_an_operator_with_constants():
    """A constant of one element, whatever its rank, takes no part in the table's index."""
    seven = tensor(2, (), scales=0.05, data=7)
    base = node("ADD", version=2)
    for tensors, at in (((base.inputs[0], seven), 0), ((seven, base.inputs[0]), 1)):
        operator = Operator(0, "ADD", (0, 1), (2,), {}, 2)
        table = tabulate(Node(operator, tensors, base.outputs))
        assert table[:3].tolist() == [-121, -120, -119], at
        assert table[-8:].tolist() == [127] * 8


@pytest.mark.parametrize("dtype", ["int8", "int16"])
@pytest.mark.parametrize("kind", ["RSQRT", "SQRT"])
def test_values_that_a_kernel_refuses(kind, dtype):
    """Negative ones have the result of the least that is taken; the kernel itself stops there."""
    zero_point = -20 if dtype == "int8" else 0
    found = node(kind, dtype, zero_points=(zero_point, 0))
    table = tabulate(found)
    first = zero_point - np.iinfo(dtype).min
    assert (table[:first] == table[first]).all()
    assert table[first] != table[first + 1]
    data = np.full((1, 7, 3), zero_point - 1, dtype)
    with pytest.raises(ValueError, match="only defined for"):
        run_kernel(kind, found.inputs, found.outputs, {}, [data])


def test_equal_operators_share_a_run():
    """Place, name and shape do not matter; options, scales and zero points do."""
    table = tabulate(node("TANH", scales=(0.01, 1 / 128)))
    assert not table.flags.writeable
    assert tabulate(node("TANH", scales=(0.01, 1 / 128))) is table
    before = kernels._table.cache_info().misses
    for other in (
        node("TANH", scales=(0.02, 1 / 128)),
        node("TANH", scales=(0.01, 1 / 128), zero_points=(1, 0)),
        node("TANH", scales=(0.01, 1 / 128), version=2),
    ):
        assert tabulate(other) is not table
    assert kernels._table.cache_info().misses == before + 3


def test_operators_that_make_no_table():
    """More than one input, other types and large constants are refused."""
    one = node("ADD")
    two = Node(one.operator, (one.inputs[0], one.inputs[0]), one.outputs)
    large = Node(
        one.operator, (one.inputs[0], tensor(1, (3,), scales=1.0, data=[1, 2, 3])), one.outputs
    )
    for wrong in (two, node("ABS", "int32"), Node(one.operator, (), one.outputs), large):
        with pytest.raises(ValueError, match=r"^Need .* for a table, got "):
            tabulate(wrong)


def test_no_warning_is_shown():
    """The interpreter's own one is not for users of this package."""
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        tabulate(node("RELU", scales=(0.011, 0.011)))


SCALES = (1e-45, 1e-30, 1e-10, 1.0, 1e10, 1e30, 3e38)


@pytest.mark.parametrize("dtype", ["int8", "int16"])
@pytest.mark.parametrize("kind", [*UNARY, "GELU", "RSQRT"])
def test_extreme_scales_end_nothing(kind, dtype):
    """Scales that a damaged file may have give a table or a refusal."""
    for given in SCALES:
        for wanted in SCALES:
            try:
                table = tabulate(node(kind, dtype, scales=(given, wanted)))
            except ValueError:
                continue
            assert table.size in (256, 65536)
