# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The generated ops called with the oracle's arguments, so that one dictionary serves both."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold import raw_ops


def unit(
    op: Callable,
    operands: Sequence[Any],
    scalars: Sequence[Any] = (),
    *,
    mult_shift: int = 0,
    accumulator_size: int = 32,
    **attributes: Any,
) -> tf.Tensor:
    """Call an op whose inputs are its operands, its other scalars and the shift."""
    shift = np.array([mult_shift], np.int8)
    return op(*operands, *scalars, shift, accumulator_size=accumulator_size, **attributes)


def _addition(
    op: Callable,
    operands: Sequence[Any],
    factors: Sequence[float],
    *,
    feed_repeat: float = 1.0,
    **arguments: Any,
) -> tf.Tensor:
    dtype = tf.as_dtype(operands[0].dtype).as_numpy_dtype
    scalars = [np.array([factor], dtype) for factor in factors]
    return unit(op, operands, [*scalars, np.array([feed_repeat], np.float32)], **arguments)


def add(value: Any, elementwise: Any, *, factor: float = 1, **arguments: Any) -> tf.Tensor:
    """HAdd."""
    return _addition(raw_ops.h_add, (value, elementwise), (factor,), **arguments)


def bias_add(value: Any, bias: Any, *, factor: float = 1, **arguments: Any) -> tf.Tensor:
    """HBiasAdd."""
    return _addition(raw_ops.h_bias_add, (value, bias), (factor,), **arguments)


def decomposed_bias_add(
    value: Any,
    bias_a: Any,
    bias_b: Any,
    *,
    factor_a: float = 1,
    factor_b: float = 1,
    **arguments: Any,
) -> tf.Tensor:
    """HDecomposedBiasAdd."""
    operands, factors = (value, bias_a, bias_b), (factor_a, factor_b)
    return _addition(raw_ops.h_decomposed_bias_add, operands, factors, **arguments)


def weighted_add(value: Any, elementwise: Any, weights: Any, **arguments: Any) -> tf.Tensor:
    """HStandaloneElementwiseAdd."""
    operands = (value, elementwise, weights)
    return unit(raw_ops.h_standalone_elementwise_add, operands, **arguments)


def matmul(a: Any, b: Any, **arguments: Any) -> tf.Tensor:
    """HMatmul."""
    return unit(raw_ops.h_matmul, (a, b), **arguments)


def decode_boxes(*inputs: Any, **arguments: Any) -> tf.Tensor:
    """HBboxDecoder."""
    return unit(raw_ops.h_bbox_decoder, inputs, **arguments)


def decode_boxes_single_weight(*inputs: Any, **arguments: Any) -> tf.Tensor:
    """HSingleWeightPerProposalBboxDecoder."""
    return unit(raw_ops.h_single_weight_per_proposal_bbox_decoder, inputs, **arguments)


def bilinear(
    *inputs: Any,
    bias: float = 0.0,
    mult_shift: int = 0,
    accumulator_size: int = 32,
    float_accumulator: bool = False,
) -> tf.Tensor:
    """HBilinear."""
    return raw_ops.h_bilinear(
        *inputs,
        np.array([mult_shift], np.int8),
        np.array([bias], np.float32),
        accumulator_size=accumulator_size,
        float_accumulator=float_accumulator,
    )


def nms(
    value: Any,
    scores_threshold: float,
    *,
    iou_threshold: float,
    max_output_size: float,
    classes: float = 1,
    debug_precise_numeric: bool = False,
    is_velquin: bool = False,
) -> tf.Tensor:
    """HNMS."""
    return raw_ops.hnms(
        value,
        np.array([scores_threshold], np.float32),
        iou_threshold=iou_threshold,
        max_output_size=max_output_size,
        classes=classes,
        debug_precise_numeric=debug_precise_numeric,
        is_velquin=is_velquin,
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
