# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Layers of a quantised network in one op each."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any, NamedTuple

import numpy as np
import tensorflow as tf

from bitfold._frame.arguments import integer
from bitfold._frame.layers import accepts_symbolic
from bitfold._frame.loaded import raw_ops
from bitfold._frame.tensors import as_tensor, limits

_STORED = (tf.int8, tf.int16)
_NO_BIAS = {tf.int32: np.zeros([0], np.int32), tf.int64: np.zeros([0], np.int64)}
_WIDE = 64


@accepts_symbolic
def prepared_conv2d(
    input: Any,
    filter: Any,
    bias: Any | None,
    multipliers: Any,
    *,
    strides: Sequence[int] = (1, 1),
    dilations: Sequence[int] = (1, 1),
    padding: str = "VALID",
    zeros: Sequence[int] = (0, 0, 0, 0),
    depthwise: bool = False,
    input_zero_point: int = 0,
    accumulator_size: int = 32,
    mult_shift: int = 0,
    use_fp16_acc: bool = False,
    rounding: str = "two_roundings",
    zero_point: int = 0,
    minimum: int | None = None,
    maximum: int | None = None,
    dtype: Any = tf.int8,
    constant_weights: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Compute a layer of a quantised network, from stored integers to stored integers.

    The bits and the printed lines of `conv2d`, `dilated_conv2d` or `depthwise_conv2d` on the input
    less its zero point, with zeros around it, then `bias_add` and `requantise`; in half precision
    the first two on floats. With a bias of int64 sums have 64 bits, which nothing wraps. What can
    be known of the layer is decided at the first call, which packs the weights; later calls with
    the same `filter`, `bias` and `multipliers` and the same image size use it again.

    There is no gradient: results are integers.

    Args:
        input: int8 or int16 [N, H, W, C].
        filter: int8 [h, w, C, outputs]; depthwise [h, w, 1, outputs], outputs at most C.
        bias: int32 or int64 [outputs], or None. Of int64 with `accumulator_size` 64, and with a
            rounding that takes sums of int64.
        multipliers: float64 [1] or [outputs], as `requantise` takes them.
        strides: of the windows, for rows and columns.
        dilations: distances of the taps, for rows and columns.
        padding: "SAME" or "VALID", where the windows lie: as those of the convolutions.
        zeros: rows of zeros above and below, columns left and right, that the image has before.
        depthwise: whether each channel is summed for itself.
        input_zero_point: the stored integer of the input that stands for 0.
        accumulator_size: bits of the accumulator, at most 32; or 64, of exact sums.
        mult_shift: every product, and the bias, is divided by 2^mult_shift, halves to even, which
            the multipliers undo. At most 31, in half precision 6.
        use_fp16_acc: whether sums are accumulated in half precision.
        rounding: that of `requantise`.
        zero_point: the stored integer of the output that stands for 0.
        minimum: the least output, by default that of `dtype`.
        maximum: the greatest output, by default that of `dtype`.
        dtype: of the output: int8 or int16.
        constant_weights: whether nothing rewrites the memory of `filter`, `bias` and `multipliers`:
            the same tensors are then the same numbers, which calls need not compare. Tensors keep
            theirs; what a reference variable of a graph of version 1 gives, or what
            `tf.raw_ops.InplaceUpdate` was called with, does not.
        name: the node's name.

    Returns:
        A tensor [N, H', W', outputs] of `dtype`.

    Raises:
        TypeError: for tensors of other types.
        ValueError, tf.errors.InvalidArgumentError: for shapes, sizes and multipliers that do not
            fit.

    Example:
        >>> import bitfold, numpy as np
        >>> image = np.arange(9, dtype=np.int8).reshape(1, 3, 3, 1)
        >>> filter = np.ones([2, 2, 1, 1], np.int8)
        >>> bitfold.ops.prepared_conv2d(image, filter, [100], [0.5]).numpy()[0, :, :, 0]
        array([[54, 56],
               [60, 62]], dtype=int8)
    """
    return raw_ops.h_prepared_convolution(
        **_operands(input, filter, bias, multipliers, accumulator_size),
        **_windows(strides, dilations, padding, zeros, depthwise),
        input_zero_point=integer(input_zero_point, "input_zero_point"),
        mult_shift=integer(mult_shift, "mult_shift"),
        use_fp16_acc=bool(use_fp16_acc),
        rounding=rounding,
        has_constant_weights=bool(constant_weights),
        name=name,
        **_output(dtype, zero_point, minimum, maximum),
    )


class WatchedConvolution(NamedTuple):
    """A layer's output, and what its final sums reach at full width, of each channel together.

    Attributes:
        output: [N, H', W', C], as `prepared_conv2d` gives it.
        extremes: int64 [2, C], the least and the greatest sum. Of no images int64's greatest and
            least number: what other data are combined with by minimum and maximum.
        outside: int64 [widths, C], how many sums are outside of each width. Other data add to them.
    """

    output: tf.Tensor
    extremes: tf.Tensor
    outside: tf.Tensor


def watched_conv2d(
    input: Any,
    filter: Any,
    bias: Any | None,
    multipliers: Any,
    *,
    accumulator_sizes: Sequence[int] = (),
    strides: Sequence[int] = (1, 1),
    dilations: Sequence[int] = (1, 1),
    padding: str = "VALID",
    zeros: Sequence[int] = (0, 0, 0, 0),
    depthwise: bool = False,
    input_zero_point: int = 0,
    accumulator_size: int = 32,
    mult_shift: int = 0,
    use_fp16_acc: bool = False,
    rounding: str = "two_roundings",
    zero_point: int = 0,
    minimum: int | None = None,
    maximum: int | None = None,
    dtype: Any = tf.int8,
    constant_weights: bool = False,
    name: str | None = None,
) -> WatchedConvolution:
    """Compute a layer of a quantised network, and find what its final sums reach.

    The output and the printed lines are those of `prepared_conv2d`. Beside them stands what
    `partial_sums` finds of the final sums, whatever accumulator the layer has: as whole numbers
    that never wrap, of the weights as they are stored, with the same shift. Where the accumulator
    adds up exactly but for the bits that it drops at the end this costs a few percent, else as much
    as the layer at full width.

    There is no gradient: results are integers.

    Args:
        input: as `prepared_conv2d` takes it.
        filter: the same.
        bias: the same; of int64 of at most 2^62 in magnitude.
        multipliers: the same.
        accumulator_sizes: the widths that final sums are compared with, from 1 to 32 bits.
        strides: as `prepared_conv2d` takes them, and all that follow.
        dilations: the same.
        padding: the same.
        zeros: the same; with them an image has fewer than 2^29 elements.
        depthwise: the same.
        input_zero_point: the same.
        accumulator_size: the same.
        mult_shift: the same; at most 30.
        use_fp16_acc: the same.
        rounding: the same.
        zero_point: the same.
        minimum: the same.
        maximum: the same.
        dtype: the same.
        constant_weights: the same.
        name: the node's name.

    Returns:
        The output, the extremes of final sums, and how many are outside of each width.

    Raises:
        TypeError: for tensors of other types.
        ValueError, tf.errors.InvalidArgumentError: for shapes, sizes and multipliers that do not
            fit.

    Example:
        >>> import bitfold, numpy as np
        >>> data = np.int8([[100, 100], [100, -90]]).reshape(1, 2, 1, 2)
        >>> found = bitfold.ops.watched_conv2d(
        ...     data, np.ones([1, 1, 2, 1], np.int8), None, [1.0],
        ...     accumulator_size=8, accumulator_sizes=[8, 9])
        >>> found.output.numpy().ravel(), found.extremes.numpy().ravel()
        (array([-56,  10], dtype=int8), array([ 10, 200]))
        >>> found.outside.numpy().ravel()
        array([1, 0])
    """
    found = raw_ops.h_watched_convolution(
        **_operands(input, filter, bias, multipliers, accumulator_size),
        **_windows(strides, dilations, padding, zeros, depthwise),
        input_zero_point=integer(input_zero_point, "input_zero_point"),
        mult_shift=integer(mult_shift, "mult_shift"),
        use_fp16_acc=bool(use_fp16_acc),
        rounding=rounding,
        has_constant_weights=bool(constant_weights),
        accumulator_sizes=[integer(value, "accumulator_sizes") for value in accumulator_sizes],
        name=name,
        **_output(dtype, zero_point, minimum, maximum),
    )
    return WatchedConvolution(*found)


@accepts_symbolic
def prepared_matmul(
    first: Any,
    second: Any,
    multipliers: Any,
    *,
    transpose_first: bool = False,
    transpose_second: bool = False,
    first_zero_point: int = 0,
    second_zero_point: int = 0,
    accumulator_size: int = 32,
    mult_shift: int = 0,
    use_fp16_acc: bool = False,
    rounding: str = "two_roundings",
    zero_point: int = 0,
    minimum: int | None = None,
    maximum: int | None = None,
    dtype: Any = tf.int8,
    name: str | None = None,
) -> tf.Tensor:
    """Compute products of matrices of a quantised network, from stored to stored integers.

    The bits and the printed lines of `matmul` on both operands less their zero points, the second
    one the weights, then `requantise`; in half precision the first on floats. Leading dimensions
    are aligned at the last one, and matrices are repeated along those where one operand has one and
    the other more. A second operand that is one matrix of rank 2 meets the rows of all first
    matrices in one product: of weights whose sign is corrected there is one line, not one for each
    matrix.

    There is no gradient: results are integers.

    Args:
        first: int8 or int16 [..., rows, inner], or [..., inner, rows] where it is transposed.
        second: of the same type, [..., inner, columns], or [..., columns, inner].
        multipliers: float64 [1] or [columns], as `requantise` takes them.
        transpose_first: whether the last two dimensions of `first` are exchanged.
        transpose_second: whether those of `second` are.
        first_zero_point: the stored integer of `first` that stands for 0.
        second_zero_point: the stored integer of `second` that stands for 0.
        accumulator_size: bits of the accumulator, at most 32.
        mult_shift: every product is divided by 2^mult_shift, halves to even, which the multipliers
            undo. At most 31, in half precision 6.
        use_fp16_acc: whether sums are accumulated in half precision.
        rounding: that of `requantise`.
        zero_point: the stored integer of the output that stands for 0.
        minimum: the least output, by default that of `dtype`.
        maximum: the greatest output, by default that of `dtype`.
        dtype: of the output: int8 or int16.
        name: the node's name.

    Returns:
        A tensor [..., rows, columns] of `dtype`.

    Raises:
        TypeError: for tensors of other types.
        ValueError, tf.errors.InvalidArgumentError: for shapes, sizes and multipliers that do not
            fit.

    Example:
        >>> import bitfold, numpy as np
        >>> first = np.array([[1, 2], [3, 4]], np.int8)
        >>> second = np.array([[5, 6], [7, 8]], np.int8)
        >>> bitfold.ops.prepared_matmul(first, second, [0.5], transpose_second=True).numpy()
        array([[ 9, 12],
               [20, 27]], dtype=int8)
    """
    return raw_ops.h_prepared_matmul(
        first=_stored(first, "first"),
        second=_stored(second, "second"),
        multipliers=as_tensor(multipliers, tf.float64),
        transpose_first=bool(transpose_first),
        transpose_second=bool(transpose_second),
        first_zero_point=integer(first_zero_point, "first_zero_point"),
        second_zero_point=integer(second_zero_point, "second_zero_point"),
        accumulator_size=integer(accumulator_size, "accumulator_size"),
        mult_shift=integer(mult_shift, "mult_shift"),
        use_fp16_acc=bool(use_fp16_acc),
        rounding=rounding,
        name=name,
        **_output(dtype, zero_point, minimum, maximum),
    )


def _operands(
    input: Any, filter: Any, bias: Any | None, multipliers: Any, accumulator_size: int
) -> dict[str, Any]:
    """Return a layer's inputs, and the accumulator, of which the type of the bias follows."""
    accumulator_size = integer(accumulator_size, "accumulator_size")
    bias_type = tf.int64 if accumulator_size == _WIDE else tf.int32
    return dict(
        input=_stored(input, "input"),
        filter=as_tensor(filter, tf.int8),
        bias=as_tensor(_NO_BIAS[bias_type] if bias is None else bias, bias_type),
        multipliers=as_tensor(multipliers, tf.float64),
        accumulator_size=accumulator_size,
    )


def _windows(
    strides: Sequence[int],
    dilations: Sequence[int],
    padding: str,
    zeros: Sequence[int],
    depthwise: bool,
) -> dict[str, Any]:
    """Return the attributes that say where windows lie."""
    return dict(
        strides=[integer(value, "strides") for value in strides],
        dilations=[integer(value, "dilations") for value in dilations],
        padding=padding,
        zeros=[integer(value, "zeros") for value in zeros],
        is_depthwise=bool(depthwise),
    )


def _stored(tensor: Any, name: str) -> tf.Tensor:
    """Return a tensor of stored integers."""
    tensor = as_tensor(tensor)
    if tensor.dtype not in _STORED:
        raise TypeError(f"{name} must be int8 or int16, got {tensor.dtype.name}")
    return tensor


def _output(
    dtype: Any, zero_point: int, minimum: int | None, maximum: int | None
) -> dict[str, Any]:
    """Return the attributes that say what is stored; bounds are by default the type's."""
    dtype = tf.as_dtype(dtype)
    if dtype not in _STORED:
        raise TypeError(f"dtype must be int8 or int16, got {dtype.name}")
    least, greatest = limits(dtype)
    return dict(
        zero_point=integer(zero_point, "zero_point"),
        minimum=least if minimum is None else integer(minimum, "minimum"),
        maximum=greatest if maximum is None else integer(maximum, "maximum"),
        T_out=dtype,
    )
