# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Additions into accumulators: of a tensor, a bias, a bias in two parts, and with weights."""

from __future__ import annotations

from typing import Any

import tensorflow as tf

from bitfold._frame.arguments import element_tensor, integer, scalar_operand
from bitfold._frame.layers import accepts_symbolic
from bitfold._frame.loaded import raw_ops
from bitfold._frame.operands import Needs, elements

# What the units take: images, and the results of dense layers.
_RANKS = (2, 4)


@accepts_symbolic
def add(
    value: Any,
    elementwise: Any,
    *,
    accumulator_size: int = 32,
    factor: Any = 1,
    feed_repeat: Any = 1.0,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Add a scaled tensor into a tensor of accumulator values.

    Each element becomes ``value`` with ``factor * elementwise``, scaled by ``mult_shift``, added
    ceil(``feed_repeat``) times, wrapping after each addition.

    The gradient, by `value`, `elementwise` and `factor`, is that of ``value + n * factor *
    elementwise / mult_shift`` in real numbers, n being the number of additions.

    Args:
        value: the accumulators, float32 or int32, of rank 4 or 2.
        elementwise: the operand, of the type and as many elements as `value`.
        accumulator_size: the accumulator's width in bits, at least 0.
        factor: the multiplier of `elementwise`, a number of `value`'s type.
        feed_repeat: how many times the operand is added; 0 and below add nothing.
        mult_shift: the shift or divisor of the product, -128 to 127.
        use_fp16_acc: accumulate in half precision; of int32 data only `value` is rounded to it.
        name: the node's name.

    Returns:
        A tensor of the shape and type of `value`.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold; a `value` of another rank; an
            `elementwise` of another number of elements.
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data;
            a feed repeat that is NaN or above 2^31.

    Example:
        >>> import bitfold
        >>> # 150 does not fit 8 bits and wraps to 150 - 256.
        >>> bitfold.ops.add([[100, 1]], [[50, 2]], accumulator_size=8).numpy()
        array([[-106,    3]], dtype=int32)
        >>> # 5 / 2 and 7 / 2 round half to even; the operand is added three times.
        >>> bitfold.ops.add([[0, 0]], [[5, 7]], mult_shift=1, feed_repeat=2.5).numpy()
        array([[ 6, 12]], dtype=int32)
    """
    value = element_tensor(value, "value")
    elementwise = element_tensor(elementwise, "elementwise", value.dtype)
    needs = Needs()
    needs.rank(value, "value", *_RANKS)
    needs.elements(elementwise, "elementwise", elements(value), "as many as value")
    with needs.met():
        return raw_ops.h_add(
            value=value,
            elementwise=elementwise,
            elementwise_factor=scalar_operand(factor, "factor", value.dtype),
            elementwise_feed_repeat=scalar_operand(feed_repeat, "feed_repeat", tf.float32),
            mult_shift=scalar_operand(mult_shift, "mult_shift", tf.int8),
            accumulator_size=integer(accumulator_size, "accumulator_size"),
            use_fp16_acc=use_fp16_acc,
            name=name,
        )


@accepts_symbolic
def bias_add(
    value: Any,
    bias: Any,
    *,
    accumulator_size: int = 32,
    factor: Any = 1,
    feed_repeat: Any = 1.0,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Add a scaled bias per channel into a tensor of accumulator values.

    Each element becomes ``value`` with ``bias[channel] * factor``, scaled by ``mult_shift``, added
    ceil(``feed_repeat``) times, wrapping after each addition.

    The gradient, by `value`, `bias` and `factor`, is that of ``value + n * bias * factor /
    mult_shift`` in real numbers, n being the number of additions.

    Args:
        value: the accumulators, float32 or int32, [N, H, W, C] or [N, C].
        bias: one value per channel, [C], of the type of `value`.
        accumulator_size: the accumulator's width in bits, at least 0.
        factor: the multiplier of `bias`, a number of `value`'s type.
        feed_repeat: how many times the bias is added; 0 and below add nothing.
        mult_shift: the shift or divisor of the product, -128 to 127.
        use_fp16_acc: accumulate in half precision; of int32 data only `value` is rounded to it.
        name: the node's name.

    Returns:
        A tensor of the shape and type of `value`.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold; a `value` of another rank; a `bias`
            that does not hold C elements, or in a graph has another shape than [C].
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data;
            a feed repeat that is NaN or above 2^31.

    Example:
        >>> import bitfold
        >>> bitfold.ops.bias_add([[32767, 0]], [1, 2], accumulator_size=16).numpy()
        array([[-32768,      2]], dtype=int32)
        >>> # The float datapath divides by the shift's value: 3 / 2 = 1.5, to even 2.
        >>> bitfold.ops.bias_add([[0.0]], [3.0], mult_shift=2).numpy()
        array([[2.]], dtype=float32)
    """
    value = element_tensor(value, "value")
    bias = element_tensor(bias, "bias", value.dtype)
    with _channel_needs(value, bias=bias).met():
        return raw_ops.h_bias_add(
            value=value,
            bias=bias,
            bias_factor=scalar_operand(factor, "factor", value.dtype),
            bias_feed_repeat=scalar_operand(feed_repeat, "feed_repeat", tf.float32),
            mult_shift=scalar_operand(mult_shift, "mult_shift", tf.int8),
            accumulator_size=integer(accumulator_size, "accumulator_size"),
            use_fp16_acc=use_fp16_acc,
            name=name,
        )


@accepts_symbolic
def decomposed_bias_add(
    value: Any,
    bias_a: Any,
    bias_b: Any,
    *,
    accumulator_size: int = 32,
    factor_a: Any = 1,
    factor_b: Any = 1,
    feed_repeat: Any = 1.0,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Add a bias per channel that comes in two parts into a tensor of accumulator values.

    Each element becomes ``value`` with ``bias_a[channel] * factor_a`` and then
    ``bias_b[channel] * factor_b``, both scaled by ``mult_shift``, added ceil(``feed_repeat``)
    times, wrapping after each addition.

    The gradient, by `value`, both parts and both factors, is that of ``value + n * (bias_a *
    factor_a + bias_b * factor_b) / mult_shift`` in real numbers, n being the number of times.

    Args:
        value: the accumulators, float32 or int32, [N, H, W, C] or [N, C].
        bias_a: the first part, one value per channel, [C], of the type of `value`.
        bias_b: the second part, likewise.
        accumulator_size: the accumulator's width in bits, at least 0.
        factor_a: the multiplier of `bias_a`, a number of `value`'s type.
        factor_b: the multiplier of `bias_b`, likewise.
        feed_repeat: how many times both parts are added; 0 and below add nothing.
        mult_shift: the shift or divisor of both products, -128 to 127.
        use_fp16_acc: accumulate in half precision; of int32 data only `value` is rounded to it.
        name: the node's name.

    Returns:
        A tensor of the shape and type of `value`.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold; a `value` of another rank; a part of
            the bias that does not hold C elements, or in a graph a `bias_a` of another shape
            than [C].
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data;
            a feed repeat that is NaN or above 2^31.

    Example:
        >>> import bitfold
        >>> # 100 + 50 wraps to -106, and -106 - 50 wraps back to 100.
        >>> bitfold.ops.decomposed_bias_add(
        ...     [[100, 100]], [50, 50], [-50, -10], accumulator_size=8
        ... ).numpy()
        array([[ 100, -116]], dtype=int32)
        >>> # A bias of 1000 from two parts of 8 bits: 3 * 256 + 232.
        >>> bitfold.ops.decomposed_bias_add([[0]], [3], [232], factor_a=256).numpy()
        array([[1000]], dtype=int32)
    """
    value = element_tensor(value, "value")
    bias_a = element_tensor(bias_a, "bias_a", value.dtype)
    bias_b = element_tensor(bias_b, "bias_b", value.dtype)
    with _channel_needs(value, bias_a=bias_a, bias_b=bias_b).met():
        return raw_ops.h_decomposed_bias_add(
            value=value,
            bias_a=bias_a,
            bias_b=bias_b,
            bias_a_factor=scalar_operand(factor_a, "factor_a", value.dtype),
            bias_b_factor=scalar_operand(factor_b, "factor_b", value.dtype),
            bias_feed_repeat=scalar_operand(feed_repeat, "feed_repeat", tf.float32),
            mult_shift=scalar_operand(mult_shift, "mult_shift", tf.int8),
            accumulator_size=integer(accumulator_size, "accumulator_size"),
            use_fp16_acc=use_fp16_acc,
            name=name,
        )


@accepts_symbolic
def weighted_add(
    value: Any,
    elementwise: Any,
    weights: Any,
    *,
    accumulator_size: int = 32,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Add two tensors, each multiplied by a weight per channel.

    Each element is ``weights[0, channel] * value + weights[1, channel] * elementwise``, each
    product scaled by ``mult_shift``, in one addition that wraps once.

    The gradient, by all three operands, is that of the same sum in real numbers, products divided
    by ``mult_shift``.

    Args:
        value: the first operand, float32 or int32, [N, H, W, C] or [N, C].
        elementwise: the second operand, of the type and as many elements as `value`.
        weights: [2, C] or 2 * C elements, of the type of `value`: the weights of `value`, then
            those of `elementwise`.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift or divisor of both products, -128 to 127.
        use_fp16_acc: round the second product and the sum to half precision; needs float32 data.
        name: the node's name.

    Returns:
        A tensor of the shape and type of `value`.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold; a `value` of another rank; an
            `elementwise` or `weights` of another number of elements; `use_fp16_acc` with int32
            data.
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data.

    Example:
        >>> import bitfold
        >>> bitfold.ops.weighted_add([[1, 2]], [[3, 4]], [[10, 10], [1, -1]]).numpy()
        array([[13, 16]], dtype=int32)
        >>> # One wrap only: 400 - 256 is still outside 8 bits.
        >>> bitfold.ops.weighted_add([[300]], [[100]], [[1], [1]], accumulator_size=8).numpy()
        array([[144]], dtype=int32)
    """
    value = element_tensor(value, "value")
    elementwise = element_tensor(elementwise, "elementwise", value.dtype)
    weights = element_tensor(weights, "weights", value.dtype)
    needs = Needs()
    needs.half_precision_float(use_fp16_acc, value.dtype)
    needs.rank(value, "value", *_RANKS)
    needs.elements(elementwise, "elementwise", elements(value), "as many as value")
    needs.elements(
        weights, "weights", 2 * needs.dimension(value, -1), "two for each channel of value"
    )
    with needs.met():
        return raw_ops.h_standalone_elementwise_add(
            value=value,
            elementwise=elementwise,
            weights=weights,
            mult_shift=scalar_operand(mult_shift, "mult_shift", tf.int8),
            accumulator_size=integer(accumulator_size, "accumulator_size"),
            use_fp16_acc=use_fp16_acc,
            name=name,
        )


def _channel_needs(value: tf.Tensor, **biases: tf.Tensor) -> Needs:
    """Return what the additions of a number for each channel need."""
    needs = Needs()
    needs.rank(value, "value", *_RANKS)
    for name, bias in biases.items():
        needs.elements(bias, name, needs.dimension(value, -1), "one for each channel of value")
    return needs
