# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Each operator alone, in files that no converter writes, against the interpreter on bits.

The cases of an operator run to their end, so that a failure shows all of them.
"""

from __future__ import annotations

import numpy as np
import packed
import place_cases
import pytest
import sum_cases
import value_cases

CASES = sum_cases.CASES | value_cases.CASES | place_cases.CASES

# What networks import; SHAPE stands for the arithmetic on shapes around it.
IMPORTED = (
    "CONV_2D DEPTHWISE_CONV_2D FULLY_CONNECTED TRANSPOSE_CONV BATCH_MATMUL ADD SUB MUL MAXIMUM "
    "MINIMUM AVERAGE_POOL_2D MAX_POOL_2D MEAN SUM PAD PADV2 MIRROR_PAD CONCATENATION SPLIT SLICE "
    "STRIDED_SLICE RESHAPE SQUEEZE EXPAND_DIMS TRANSPOSE PACK UNPACK SPACE_TO_BATCH_ND "
    "BATCH_TO_SPACE_ND SPACE_TO_DEPTH DEPTH_TO_SPACE TILE RESIZE_BILINEAR RESIZE_NEAREST_NEIGHBOR "
    "NEG SQUARED_DIFFERENCE RSQRT QUANTIZE DEQUANTIZE SOFTMAX LOGISTIC TANH HARD_SWISH GELU RELU "
    "RELU6 RELU_N1_TO_1 LEAKY_RELU PRELU SHAPE GATHER"
).split()

# The runtime has no kernel of these for 16 bits, so there is nothing to compare with.
ONLY_INT8 = {
    "DEPTH_TO_SPACE",
    "HARD_SWISH",
    "RELU_N1_TO_1",
    "SPACE_TO_DEPTH",
    "SQUARED_DIFFERENCE",
    "TILE",
}


def test_every_operator_has_cases():
    """An operator that is imported is compared alone."""
    assert set(CASES) == set(IMPORTED)


@pytest.mark.parametrize(
    ("kind", "dtype"),
    [(k, d) for k in CASES for d in ("int8", "int16") if d == "int8" or k not in ONLY_INT8],
)
def test_operator_equals_interpreter(kind, dtype):
    """All stored values; three images at once, and one."""
    failures = []
    cases = list(CASES[kind](dtype, np.random.default_rng(1)))
    for turn, case in enumerate(cases):
        try:
            packed.compare(case)
        except Exception as error:  # a refusal, too, is one of many
            failures.append(f"case {turn}, {type(error).__name__}: {error}")
    assert not failures, f"{len(failures)} of {len(cases)} fail\n" + "\n".join(failures)
