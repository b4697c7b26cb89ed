# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Files of one layer with stored weights, by the shapes and the multiplier that it shall have."""

from __future__ import annotations

import math
from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np
import packed

ACTIVATIONS = ("NONE", "RELU", "RELU6", "RELU_N1_TO_1")
# What a stored value of each type is in the mean, without its sign.
_TYPICAL = {"int8": 74, "int16": 18918}


def layer(
    kind: str,
    data: Sequence[int],
    filter: Sequence[int],
    output: Sequence[int],
    dtype: str = "int8",
    *,
    bias: str | None = "wide",
    per_channel: bool = True,
    multiplier: float | None = None,
    extreme: bool = False,
    options: Mapping[str, Any] | None = None,
) -> packed.Case:
    """Pack a layer.

    Args:
        kind: the operator.
        data: the shape of the data.
        filter: the shape of the stored weights.
        output: the shape of the output.
        dtype: the type of data and output.
        bias: its type; "wide" for the one that belongs to `dtype`, None for none.
        per_channel: whether each output has a scale.
        multiplier: of sums to stored outputs; by default one that few outputs leave the range with.
        extreme: weights of 127 alone, for sums as large as they can be.
        options: by the schema's names.
    """
    rng = np.random.default_rng(math.prod(filter) + len(data))
    axis = 3 if kind == "DEPTHWISE_CONV_2D" else 0
    outputs, taps = filter[axis], math.prod(filter) // filter[axis]
    scales = rng.uniform(0.5, 1.0, outputs) if per_channel else np.array([0.75])
    scales = scales.astype(np.float32).astype(np.float64)
    spread = _TYPICAL[dtype] * 74 * taps**0.5
    if multiplier is None:
        multiplier = _TYPICAL[dtype] / spread
    zero_points = (-21, 13) if dtype == "int8" else (0, 0)
    x = packed.tensor(data, dtype, 0.25, zero_points[0])
    stored = np.full(filter, 127) if extreme else rng.integers(-127, 127, filter, endpoint=True)
    inputs = [x, packed.tensor(filter, "int8", scales, axis=axis, data=stored)]
    if kind == "TRANSPOSE_CONV":
        inputs = [packed.constant(output), inputs[1], x]
    if bias is not None:
        bias = {"int8": "int32", "int16": "int64"}[dtype] if bias == "wide" else bias
        numbers = rng.integers(-spread, spread, outputs)
        inputs.append(packed.tensor([outputs], bias, 0.25 * scales, data=numbers))
    scale = 0.25 * scales.mean() / multiplier
    outputs = [packed.tensor(output, dtype, scale, zero_points[1])]
    return packed.operator(kind, inputs, outputs, options or {})
