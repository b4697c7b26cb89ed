# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The generated ops called with the oracle's arguments, so that one dictionary serves both."""

from __future__ import annotations

from typing import Any

import numpy as np
import tensorflow as tf

from bitfold import raw_ops


def _scalars(dtype: Any, factor: float, feed_repeat: float, mult_shift: int) -> tuple:
    return (
        np.array([factor], dtype),
        np.array([feed_repeat], np.float32),
        np.array([mult_shift], np.int8),
    )


def add(
    value: Any,
    elementwise: Any,
    *,
    factor: float = 1,
    feed_repeat: float = 1.0,
    mult_shift: int = 0,
    accumulator_size: int = 32,
    use_fp16_acc: bool = False,
) -> tf.Tensor:
    """HAdd."""
    f, r, s = _scalars(tf.as_dtype(value.dtype).as_numpy_dtype, factor, feed_repeat, mult_shift)
    return raw_ops.h_add(
        value,
        elementwise,
        f,
        r,
        s,
        accumulator_size=accumulator_size,
        use_fp16_acc=use_fp16_acc,
    )


def bias_add(
    value: Any,
    bias: Any,
    *,
    factor: float = 1,
    feed_repeat: float = 1.0,
    mult_shift: int = 0,
    accumulator_size: int = 32,
    use_fp16_acc: bool = False,
) -> tf.Tensor:
    """HBiasAdd."""
    f, r, s = _scalars(tf.as_dtype(value.dtype).as_numpy_dtype, factor, feed_repeat, mult_shift)
    return raw_ops.h_bias_add(
        value,
        bias,
        f,
        r,
        s,
        accumulator_size=accumulator_size,
        use_fp16_acc=use_fp16_acc,
    )


def convolve(
    input: Any,
    filter: Any,
    elementwise: Any = None,
    *,
    op: str = "h_conv2d",
    strides: tuple[int, ...] = (1, 1),
    dilations: tuple[int, ...] = (1, 1),
    padding: str = "SAME",
    mult_shift: int = 0,
    accumulator_size: int = 32,
    use_fp16_acc: bool = False,
    is_depthwise: bool | None = None,
    data_format: str = "NHWC",
) -> tf.Tensor:
    """HConv2d, HConv2dDilation or HDepthWise; strides and dilations of two values are spatial."""
    if elementwise is None:
        elementwise = np.zeros([0], tf.as_dtype(input.dtype).as_numpy_dtype)
    options = {} if is_depthwise is None else {"is_depthwise": is_depthwise}
    return getattr(raw_ops, op)(
        input,
        filter,
        elementwise,
        np.array([mult_shift], np.int8),
        strides=[1, *strides, 1] if len(strides) == 2 else list(strides),
        dilations=[1, *dilations, 1] if len(dilations) == 2 else list(dilations),
        padding=padding,
        data_format=data_format,
        accumulator_size=accumulator_size,
        use_fp16_acc=use_fp16_acc,
        **options,
    )
