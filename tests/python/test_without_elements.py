# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Inputs without elements whose other dimensions are huge, and what asks a lot of a few elements.

An op whose output is empty returns at once, and what no input justifies is refused. All calls run
in a process of their own with a time limit, since one that takes them literally does not end.
"""

from __future__ import annotations

import json
import re
import subprocess
import time
from collections.abc import Callable
from typing import Any

import checks
import forks
import numpy as np
import pytest
import support
import tensorflow as tf

import units
from bitfold import raw_ops

BIG = 2**31 - 1
TYPES = [np.int32, np.float32]
SECONDS = 10.0  # of a call: they take thousandths


def _tensor(shape: tuple[int, ...], dtype: Any) -> tf.Tensor:
    """Return ones, or nothing in dimensions that may exceed numpy's."""
    kind = tf.as_dtype(dtype)
    return checks.empty(shape, kind) if 0 in shape else tf.ones(shape, kind)


def _shift() -> np.ndarray:
    return np.zeros([1], np.int8)


def _addition(op: Callable, factors: int, *shapes: tuple[int, ...]) -> Callable:
    def call(dtype: Any) -> tf.Tensor:
        operands = [_tensor(shape, dtype) for shape in shapes]
        scalars = [np.ones([1], dtype)] * factors + [np.ones([1], np.float32)] * bool(factors)
        return op(*operands, *scalars, _shift(), accumulator_size=16)

    return call


def _convolution(image: tuple[int, ...], window: tuple[int, ...], **arguments: Any) -> Callable:
    def call(dtype: Any) -> tf.Tensor:
        stride, dilation = arguments.get("stride", 1), arguments.get("dilation", 1)
        op = raw_ops.h_depth_wise if arguments.get("depthwise") else raw_ops.h_conv2d
        return op(
            _tensor(image, dtype),
            _tensor(window, dtype),
            _tensor(arguments.get("elementwise", (0,)), dtype),
            _shift(),
            strides=[1, stride, stride, 1],
            dilations=[1, dilation, dilation, 1],
            padding=arguments.get("padding", "SAME"),
            accumulator_size=32,
        )

    return call


def _matmul(a: tuple[int, ...], b: tuple[int, ...]) -> Callable:
    return lambda dtype: raw_ops.h_matmul(
        _tensor(a, dtype), _tensor(b, dtype), _shift(), accumulator_size=32
    )


def _layer_norm(shape: tuple[int, ...]) -> Callable:
    def call(dtype: Any) -> tf.Tensor:
        del dtype
        scalars = units.plain_scalars(16) | {"epsilon": 7}
        return units.layer_norm(_tensor(shape, np.float32), units.plain_lut(), **scalars)

    return call


def _softmax(shape: tuple[int, ...]) -> Callable:
    return lambda dtype: units.softmax(
        _tensor(shape, np.float32), units.plain_softmax_table(), is_velquin=True
    )


def _activation(shape: tuple[int, ...], splits: list[int]) -> Callable:
    tables = {name: np.zeros([1, 1 + (name != "x_points")], np.int64) for name in
              units.ACTIVATION_TABLES}  # fmt: skip
    return lambda dtype: units.activation(
        _tensor(shape, np.int64), tables, np.array(splits, np.int64)
    )


def _bilinear(shape: tuple[int, ...]) -> Callable:
    return lambda dtype: raw_ops.h_bilinear(
        *([_tensor(shape, dtype)] * 8),
        _shift(),
        np.zeros([1], np.float32),
        accumulator_size=16,
        float_accumulator=False,
    )


def _decoder(op: Callable, anchors: int, centers: tuple[int, ...]) -> Callable:
    def call(dtype: Any) -> tf.Tensor:
        inputs = [_tensor(shape, dtype) for shape in (centers, centers, (8,), (8,))]
        inputs += [_tensor((8,), dtype)] * anchors
        return op(*inputs, _shift(), accumulator_size=16)

    return call


def _nms(shape: tuple[int, ...], classes: float, rows: float) -> Callable:
    return lambda dtype: raw_ops.hnms(
        _tensor(shape, np.float32),
        np.zeros([1], np.float32),
        iou_threshold=0.5,
        max_output_size=rows,
        classes=classes,
        debug_precise_numeric=False,
        is_velquin=True,
    )


_WIDE = "Need an output of at most 268435456 elements where an input without elements"
_WINDOWS = "Need strides and dilations that give at most 1048576 output positions"
_NUMBERS = "Need a batch, classes and max_output_size that give at most 2147483647 numbers"

# Name: (call, what comes of it: the output's shape, where it is not empty all 0, or the refusal).
CASES: dict[str, tuple[Callable, Any]] = {
    "add": (_addition(raw_ops.h_add, 1, (BIG, 0, 1, 4), (0,)), [BIG, 0, 1, 4]),
    "add, wrapped to 0": (_addition(raw_ops.h_add, 1, (2**16, 2**16, 0), (0,)), [2**16, 2**16, 0]),
    "add, wrapped above 0": (
        _addition(raw_ops.h_add, 1, (2**16, 2**16 + 1, 0), (0,)),
        "Need value to hold at least 65536 elements",
    ),
    "add, wrapped below 0": (
        _addition(raw_ops.h_add, 1, (2**16, 2**15, 0), (0,)),
        [2**16, 2**15, 0],
    ),
    "bias add": (_addition(raw_ops.h_bias_add, 1, (BIG, BIG, 0, 4), (4,)), [BIG, BIG, 0, 4]),
    "decomposed bias add": (
        _addition(raw_ops.h_decomposed_bias_add, 2, (BIG, 0), (0,), (0,)),
        [BIG, 0],
    ),
    "weighted add": (
        _addition(raw_ops.h_standalone_elementwise_add, 0, (BIG, BIG, 0, 4), (0,), (8,)),
        [BIG, BIG, 0, 4],
    ),
    "rows of nothing": (_convolution((BIG, 0, 3, 4), (1, 1, 4, 4)), [BIG, 0, 3, 4]),
    "a million images": (_convolution((10**6, 3, 1, 1), (1, 1, 1, 0)), [10**6, 3, 1, 0]),
    "no channels": (_convolution((1, 3, 3, 0), (1, 1, 0, 4)), [1, 3, 3, 4]),
    "no channels, many images": (_convolution((BIG, 3, 3, 0), (1, 1, 0, 4)), _WIDE),
    "two billion taps": (_convolution((1, 3, 3, 0), (BIG, 1, 0, 4)), [1, 3, 3, 4]),
    "taps of no width": (_convolution((1, 1, 2, 1), (65536, 0, 1, 3000000)), [1, 1, 2, 3000000]),
    "taps of no width, depthwise": (
        _convolution((1, 3, 3, 2), (BIG, 0, 1, 2), depthwise=True),
        [1, 3, 3, 2],
    ),
    "centre rows without end": (
        _convolution((1, 3, 3, 0), (BIG, 1, 0, 4), dilation=0, elementwise=(1, 3, 3, 4)),
        "Need a filter without elements to add elementwise at most 64 times, got 2147483647",
    ),
    "no columns, depthwise, and no channels": (
        _convolution((BIG, 3, 0, 4), (3, 3, 1, 0), depthwise=True),
        [BIG, 3, 0, 0],
    ),
    "rows without end of no channels": (
        _convolution((1, 3, 3, 1), (2, 2, 1, 0), stride=-1, dilation=-(2**31), padding="VALID"),
        [1, BIG, BIG, 0],
    ),
    "positions for the asking": (
        _convolution((1, 3, 3, 1), (3, 3, 1, 1), dilation=-30000, padding="VALID"),
        _WINDOWS,
    ),
    "columns from no rows": (_convolution((1, 0, BIG, 1), (1, 1, 1, 1), stride=2), _WINDOWS),
    "matrices of nothing": (_matmul((BIG, 0), (0, 3)), _WIDE),
    "rows of no columns": (_matmul((BIG, 0), (0, 0)), [BIG, 0]),
    "batches of nothing": (_matmul((BIG, 0, 3), (BIG, 3, 0)), [BIG, 0, 0]),
    "batches of no rows": (_matmul((BIG, 0, 0), (BIG, 0, 4)), [BIG, 0, 4]),
    "a product of no inner elements": (_matmul((1000, 0), (0, 1000)), [1000, 1000]),
    "a product that no tensor holds": (_matmul((BIG, BIG, 0), (BIG, 0, BIG)), "overflow"),
    "mismatches without end": (
        _matmul((BIG, 0, 3), (1, 4, 2)),
        "Need a batch of at most 65536 where inputs without elements differ in their inner",
    ),
    "layer norm of no channels": (_layer_norm((BIG, 1, 1, 0)), [BIG, 1, 1, 0]),
    "layer norm, wrapped": (_layer_norm((2, 65536, 65536, 0)), [2, 65536, 65536, 0]),
    "layer norm of no rows": (_layer_norm((BIG, 0, BIG, 16)), [BIG, 0, BIG, 16]),
    "softmax of no elements": (_softmax((BIG, 0)), [BIG, 0]),
    "softmax of no vectors": (_softmax((0, 2**40)), [0, 2**40]),
    "softmax beyond 32 bits": (_softmax((2**32 + 5, 0)), [2**32 + 5, 0]),
    "activation of no channels": (_activation((BIG, BIG, 1, 0), []), [BIG, BIG, 1, 0]),
    "activation of no positions": (_activation((0, 2**40, 2**40, 1), [1]), [0, 2**40, 2**40, 1]),
    "resampler of nothing": (_bilinear((BIG, 0)), [BIG, 0]),
    "resampler beyond 32 bits": (_bilinear((2**32, 0)), [2**32, 0]),
    "resampler of no items": (_bilinear((0, BIG)), "Need im_out_upper_left with a batch"),
    "suppression of nothing": (_nms((BIG, 0, 5, 1), 1.0, 1.0), _NUMBERS),
    "classes of nothing": (_nms((1, 0, 5, 1), 2.0**30, 1.0), _NUMBERS),
    "a thousand classes of nothing": (_nms((3, 0, 5, 1), 1000.0, 2.0), [3, 1000, 2, 5]),
    "suppression beyond 32 bits": (
        _nms((2**31, 0, 5, 1), 1.0, 1.0),
        checks.too_long("value", (2**31, 0, 5, 1)),
    ),
}
for _name, _op, _anchors in [
    ("boxes", raw_ops.h_bbox_decoder, 6),
    ("boxes of one weight", raw_ops.h_single_weight_per_proposal_bbox_decoder, 4),
]:
    CASES |= {
        f"{_name}, no anchors": (_decoder(_op, _anchors, (BIG, 2, 2, 0)), [BIG, 2, 2, 0]),
        f"{_name}, no images": (_decoder(_op, _anchors, (0, 2, 2, 4)), [0, 2, 2, 8]),
        f"{_name}, no rows": (_decoder(_op, _anchors, (BIG, 0, 2, 4)), [BIG, 0, 2, 8]),
        f"{_name}, centres that are missing": (
            _decoder(_op, _anchors, (0, BIG, BIG, BIG)),
            "Need y_centers to hold at least",
        ),
        f"{_name}, of rank 5 beyond 32 bits": (
            _decoder(_op, _anchors, (0, 0, 0, 2**62, 1)),
            "Need every dimension of detection_centers",
        ),
    }


def run_all() -> None:
    """Make every call; print a line before it, and one with what came of it."""
    for name, (call, _) in CASES.items():
        for dtype in TYPES:
            print(json.dumps(["begin", name, dtype.__name__]), flush=True)
            start = time.monotonic()
            try:
                result = call(dtype)
                outcome = ["shape", result.shape.as_list(), bool(tf.reduce_any(result != 0))]
            except tf.errors.InvalidArgumentError as error:
                outcome = ["refused", error.message, False]
            seconds = time.monotonic() - start
            print(json.dumps(["end", name, dtype.__name__, seconds, *outcome]), flush=True)


@pytest.fixture(scope="module")
def outcomes() -> dict[tuple[str, str], list]:
    """Return what came of the calls, of all that began."""
    code = "import sys\nsys.path.insert(0, sys.argv[1])\n"
    code += "import test_without_elements\ntest_without_elements.run_all()"
    folder = str(support.ROOT / "tests" / "python")
    try:
        output = forks.run(code, folder).stdout
    except subprocess.TimeoutExpired as late:
        output = late.stdout
    found: dict[tuple[str, str], list] = {}
    for line in output.splitlines():
        if line.startswith("["):
            kind, name, dtype, *rest = json.loads(line)
            found[name, dtype] = rest if kind == "end" else ["did not end"]
    return found


@pytest.mark.parametrize("dtype", TYPES, ids=lambda t: t.__name__)
@pytest.mark.parametrize("name", CASES)
def test_returns_at_once(name, dtype, outcomes):
    """The empty output, zeros or a refusal, within seconds."""
    assert (name, dtype.__name__) in outcomes, "a call before this one ended the process"
    outcome = outcomes[name, dtype.__name__]
    assert len(outcome) == 4, outcome
    seconds, kind, value, any_not_zero = outcome
    expected = CASES[name][1]
    if kind == "refused":
        assert isinstance(expected, str), value
        assert re.search(re.escape(expected), value), value
    else:
        assert not any_not_zero
        assert value == expected
    assert seconds < SECONDS


def test_one_vector_without_elements_ends_the_process_as_many_would():
    """A variance of 0: the assertion, for any number of them."""
    units.ends_with(
        "scalars = units.plain_scalars(16) | {'epsilon': 0}\n"
        "value = tf.zeros([2**31 - 1, 1, 1, 0])\n"
        "units.layer_norm(value, units.plain_lut(), **scalars)",
        "src/HLayernorm",
        "void normalize_vector(const float*, float*, int32_t, const float*, const "
        "LayerNormParams&)",
        "variance > 0",
    )


# ---- What the matrix product reads -------------------------------------------------------------


@pytest.mark.parametrize(
    ("a", "b", "name", "needed"),
    [
        ((1, 0, 3, 4), (4, 1), "a", 12),
        ((1, 0, 3000, 40000), (40000, 1), "a", 120000000),
        ((2, 0, 1, 5), (2, 5, 3), "a", 10),
        ((2, 1, 5), (5, 3), "b", 30),
    ],
)
def test_matrices_that_are_missing_are_refused(a, b, name, needed):
    """Of the leading dimensions the first alone counts, and what it asks for must be there."""
    what = "a matrix for each entry of the batch"
    got = a if name == "a" else b
    with checks.refused(checks.too_small(name, needed, what, got)):
        _matmul(a, b)(np.int32)
