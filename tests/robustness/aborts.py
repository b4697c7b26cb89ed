# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The texts with which an op may end the process, and no other."""

from __future__ import annotations

import re

LAYERNORM_COMPUTE = (
    "void HLayernormOp<Device>::Compute(tensorflow::OpKernelContext*) "
    "[with Device = Eigen::ThreadPoolDevice]"
)
SOFTMAX_COMPUTE = (
    "void HSoftmaxOp<Device>::Compute(tensorflow::OpKernelContext*) "
    "[with Device = Eigen::ThreadPoolDevice]"
)
SHIFT = "int64_t right_shift_bankers_rounding(int64_t, uint8_t, uint8_t)"
SQUARES = (
    "uint64_t get_sum_squares_of_x_minus_zp_times_n(const float*, uint16_t, uint16_t, uint16_t)"
)
NORMALIZE = (
    "void normalize_vector(const float*, float*, int32_t, const float*, const LayerNormParams&)"
)

# The unit, the function and the expression that did not hold. The number of the line is free.
ASSERTIONS = (
    ("src/HLayernorm", LAYERNORM_COMPUTE, "vector_size <= MAX_VECTOR_SIZE"),
    ("src/HLayernorm", LAYERNORM_COMPUTE, "(width_size * hight_size) <= MAX_NUM_VECTORS_IN_BATCH"),
    ("src/HLayernorm", LAYERNORM_COMPUTE, "lut_table_flat.size() == LUT_DEPTH"),
    ("src/HLayernorm", SHIFT, "shift_amount <= 64"),
    (
        "src/HLayernorm",
        SQUARES,
        "sum_squares_of_x_minus_zp_times_n < ((uint64_t)1 << N_SUM_SQUARES_BITS)",
    ),
    ("src/HLayernorm", NORMALIZE, "variance > 0"),
    ("src/HSoftmax", SOFTMAX_COMPUTE, "lut_table_flat.size() == 512"),
    ("src/HNMS", "std::vector<Box> raw_data_to_boxes(const float*, size_t)", "size % 5 == 0"),
    (
        "src/HNMS",
        "Box find_box_with_higest_score(std::vector<Box>&, bool, bool)",
        "!boxes.empty()",
    ),
)


def assertion_text(unit: str, function: str, expression: str) -> str:
    """Return the C library's message, the line's number replaced by N."""
    return f"{unit}:N: {function}: Assertion `{expression}' failed."


def rank_text(wanted: int, got: int) -> str:
    """Return the runtime's message about the rank of an input of HActivation."""
    return (
        f"Check failed: NDIMS == dims() ({wanted} vs. {got}) "
        f"Asking for tensor of {wanted} dimensions from a tensor of {got} dimensions"
    )


DOCUMENTED = frozenset(
    [assertion_text(*assertion) for assertion in ASSERTIONS]
    + [rank_text(wanted, got) for wanted in (1, 2, 4) for got in range(9) if got != wanted]
)
_ASSERTION = re.compile(r"^\S+: (\S+):\d+: (.*: Assertion `.*' failed\.)$")
_CHECK = re.compile(r"(Check failed: .*)$")


def abort_text(stderr: str) -> str | None:
    """Return the documented text that standard error ends with, if it is one."""
    for line in reversed(stderr.splitlines()):
        if match := _ASSERTION.match(line):
            text = f"{match[1]}:N: {match[2]}"
        elif match := _CHECK.search(line):
            text = match[1].rstrip()
        else:
            continue
        return text if text in DOCUMENTED else None
    return None
