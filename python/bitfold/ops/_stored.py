# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""From stored tensors of a quantised network to stored tensors."""

from __future__ import annotations

from typing import Any

import tensorflow as tf

from bitfold._frame.arguments import float_attribute, integer, padding_name, spatial_values
from bitfold._frame.layers import accepts_symbolic
from bitfold._frame.loaded import raw_ops
from bitfold._frame.tensors import as_tensor, limits

_STORED = (tf.int8, tf.int16)


@accepts_symbolic
def stored_elementwise(
    first: Any,
    second: Any,
    *,
    operation: str = "add",
    first_scale: float,
    first_zero_point: int = 0,
    second_scale: float,
    second_zero_point: int = 0,
    output_scale: float,
    output_zero_point: int = 0,
    minimum: int | None = None,
    maximum: int | None = None,
    name: str | None = None,
) -> tf.Tensor:
    """Add, subtract or multiply two stored tensors, element by element, and store the result.

    A stored integer stands for scale * (stored - zero_point). The bits are those of the mobile
    runtime's reference kernels. Operands of a sum are brought to twice the larger scale with 20
    more bits, in int16 with 15, added, and multiplied by that scale by 2^bits by the output's, each
    in two roundings as in `requantise`. A product is multiplied by the product of the scales by the
    output's, formed in single precision.

    There is no gradient: results are integers.

    Args:
        first: int8 or int16 of any shape.
        second: of the same type; each operand is repeated along the dimensions where it has one
            element and the other more.
        operation: ``"add"``, ``"subtract"`` or ``"multiply"``.
        first_scale: of the first operand, a float32 number above 0.
        first_zero_point: the stored integer that stands for 0; in int16 it is 0.
        second_scale: of the second operand.
        second_zero_point: likewise.
        output_scale: of the result.
        output_zero_point: likewise.
        minimum: the least result, by default that of the type.
        maximum: the greatest result, by default that of the type.
        name: the node's name.

    Returns:
        A tensor of the operands' type and their common shape.

    Raises:
        TypeError: for operands of other types, or of two.
        ValueError: for another operation.
        tf.errors.InvalidArgumentError: for shapes that do not broadcast to each other; for scales
            that are not finite and above 0, or whose multipliers are none: of a sum one that is
            below 1, of a product one below 2^31; for zero points and bounds outside of the type.

    Example:
        >>> import bitfold, numpy as np
        >>> first, second = np.int8([[10, 20], [30, 127]]), np.int8([1, -1])
        >>> scales = dict(first_scale=0.5, second_scale=2.0, output_scale=1.0)
        >>> bitfold.ops.stored_elementwise(first, second, **scales).numpy()
        array([[ 7,  8],
               [17, 62]], dtype=int8)
    """
    operations = ("add", "subtract", "multiply")
    if operation not in operations:
        raise ValueError(f"operation must be one of {', '.join(operations)}, got {operation!r}")
    first = _stored_tensor(first, "first", _STORED)
    second = _stored_tensor(second, "second", (first.dtype,))
    lowest, highest = limits(first.dtype)
    return raw_ops.h_stored_elementwise(
        first=first,
        second=second,
        operation=operation,
        first_scale=float_attribute(first_scale, "first_scale"),
        first_zero_point=integer(first_zero_point, "first_zero_point"),
        second_scale=float_attribute(second_scale, "second_scale"),
        second_zero_point=integer(second_zero_point, "second_zero_point"),
        output_scale=float_attribute(output_scale, "output_scale"),
        output_zero_point=integer(output_zero_point, "output_zero_point"),
        minimum=lowest if minimum is None else integer(minimum, "minimum"),
        maximum=highest if maximum is None else integer(maximum, "maximum"),
        name=name,
    )


@accepts_symbolic
def stored_pool(
    data: Any,
    *,
    pooling: str,
    window: Any,
    strides: Any,
    padding: str,
    minimum: int | None = None,
    maximum: int | None = None,
    name: str | None = None,
) -> tf.Tensor:
    """Take the largest stored integer of each window, or their average.

    No scale matters: results have that of the data. A window counts the pixels that lie in the
    image. Sums are exact, and divided with halves away from zero. With ``"SAME"`` windows reach as
    far beyond the image at its beginning as at its end, by one pixel more at the end where that
    does not come out even.

    There is no gradient: results are integers.

    Args:
        data: int8 or int16 [N, H, W, C].
        pooling: ``"max"`` or ``"average"``.
        window: [height, width] in pixels, or one number for both.
        strides: [height, width] from a window to the next, or one number for both.
        padding: ``"SAME"`` or ``"VALID"``.
        minimum: the least result, by default that of the type.
        maximum: the greatest result, by default that of the type.
        name: the node's name.

    Returns:
        A tensor [N, H', W', C] of the type of `data`.

    Raises:
        TypeError: for data of other types.
        ValueError: for another pooling or padding, and windows and strides of another form.
        tf.errors.InvalidArgumentError: for data of another rank, windows and strides below 1,
            windows that fit nowhere or whose sums 32 bits do not hold, and bounds outside of the
            type.

    Example:
        >>> import bitfold, numpy as np
        >>> data = np.arange(16, dtype=np.int8).reshape(1, 4, 4, 1)
        >>> pooled = bitfold.ops.stored_pool(
        ...     data, pooling="average", window=2, strides=2, padding="VALID"
        ... )
        >>> pooled.numpy().reshape(2, 2)
        array([[ 3,  5],
               [11, 13]], dtype=int8)
    """
    if pooling not in ("max", "average"):
        raise ValueError(f"pooling must be one of max, average, got {pooling!r}")
    data = _stored_tensor(data, "data", _STORED)
    height, width = spatial_values(window, "window")[1:3]
    stride_height, stride_width = spatial_values(strides, "strides")[1:3]
    return raw_ops.h_stored_pool(
        data=data,
        pooling=pooling,
        window_height=integer(height, "window"),
        window_width=integer(width, "window"),
        stride_height=integer(stride_height, "strides"),
        stride_width=integer(stride_width, "strides"),
        padding=padding_name(padding),
        minimum=limits(data.dtype)[0] if minimum is None else integer(minimum, "minimum"),
        maximum=limits(data.dtype)[1] if maximum is None else integer(maximum, "maximum"),
        name=name,
    )


@accepts_symbolic
def stored_mean(
    data: Any,
    *,
    data_scale: float,
    data_zero_point: int = 0,
    output_scale: float,
    output_zero_point: int = 0,
    name: str | None = None,
) -> tf.Tensor:
    """Take the mean of stored integers along the middle dimension, and store it.

    The sum of the elements, less their zero points, is multiplied by the ratio of the scales over
    the number of elements, in two roundings as in `requantise`; the quotient's mantissa is not
    brought back to 31 bits. So does the mobile runtime's reference kernel.

    There is no gradient: results are integers.

    Args:
        data: int8 or int16 [outer, elements, inner].
        data_scale: what a step of the data stands for, a float32 number above 0.
        data_zero_point: the stored integer that stands for 0; in int16 it is 0.
        output_scale: of the result.
        output_zero_point: likewise.
        name: the node's name.

    Returns:
        A tensor [outer, inner] of the type of `data`.

    Raises:
        TypeError: for data of other types.
        tf.errors.InvalidArgumentError: for data of another rank or without an element to take the
            mean of, scales that are not finite and above 0, zero points outside of the type, and
            sums that in the output's scale need more than 32 bits.

    Example:
        >>> import bitfold, numpy as np
        >>> data = np.int8([[[1, 10], [2, 20], [4, 40]]])
        >>> bitfold.ops.stored_mean(data, data_scale=0.5, output_scale=0.25).numpy()
        array([[ 5, 47]], dtype=int8)
    """
    data = _stored_tensor(data, "data", _STORED)
    return raw_ops.h_stored_mean(
        data=data,
        data_scale=float_attribute(data_scale, "data_scale"),
        data_zero_point=integer(data_zero_point, "data_zero_point"),
        output_scale=float_attribute(output_scale, "output_scale"),
        output_zero_point=integer(output_zero_point, "output_zero_point"),
        name=name,
    )


@accepts_symbolic
def stored_lookup(data: Any, table: Any, *, name: str | None = None) -> tf.Tensor:
    """Look every stored integer up in a table.

    There is no gradient: results are integers.

    Args:
        data: int8, uint8 or int16 of any shape.
        table: int8, uint8 or int16 [256], for int16 data [65536]: the results of all stored
            integers, from the least on.
        name: the node's name.

    Returns:
        A tensor of the type of `table` and the shape of `data`.

    Raises:
        TypeError: for other types.
        ValueError: for a table of another shape, in a function where that is known.
        tf.errors.InvalidArgumentError: likewise, where it is not.

    Example:
        >>> import bitfold, numpy as np
        >>> squares = np.clip(np.arange(-128, 128) ** 2, 0, 127).astype(np.int8)
        >>> bitfold.ops.stored_lookup(np.int8([-128, -3, 0, 5]), squares).numpy()
        array([127,   9,   0,  25], dtype=int8)
    """
    types = (tf.int8, tf.uint8, tf.int16)
    return raw_ops.h_stored_lookup(
        data=_stored_tensor(data, "data", types),
        table=_stored_tensor(table, "table", types),
        name=name,
    )


@accepts_symbolic
def stored_quantise(
    values: Any,
    *,
    output_scale: float,
    output_zero_point: int = 0,
    dtype: Any = tf.int8,
    name: str | None = None,
) -> tf.Tensor:
    """Store real numbers.

    A number over the scale, in single precision, is rounded, halves away from zero; the zero point
    is added. What lies beyond the type, infinities too, is stored as its end, NaN as the zero
    point.

    There is no gradient: results are integers.

    Args:
        values: float32 of any shape.
        output_scale: what a step of the stored integers stands for, a float32 number above 0.
        output_zero_point: the stored integer that stands for 0; in int16 it is 0.
        dtype: the type of the result: int8, uint8 or int16.
        name: the node's name.

    Returns:
        A tensor of `dtype` and the shape of `values`.

    Raises:
        TypeError: for values or a `dtype` of other types.
        tf.errors.InvalidArgumentError: for a scale that is not finite and above 0, and a zero point
            outside of the type.

    Example:
        >>> import bitfold, numpy as np
        >>> values = np.float32([0.25, -0.25, 1.0, 1000.0])
        >>> bitfold.ops.stored_quantise(values, output_scale=0.5, output_zero_point=3).numpy()
        array([  4,   2,   5, 127], dtype=int8)
    """
    dtype = tf.as_dtype(dtype)
    if dtype not in (tf.int8, tf.uint8, tf.int16):
        raise TypeError(f"dtype must be int8, uint8 or int16, got {dtype.name}")
    return raw_ops.h_stored_quantise(
        values=_stored_tensor(values, "values", (tf.float32,)),
        output_scale=float_attribute(output_scale, "output_scale"),
        output_zero_point=integer(output_zero_point, "output_zero_point"),
        T_out=dtype,
        name=name,
    )


def _stored_tensor(x: Any, name: str, types: tuple[tf.DType, ...]) -> tf.Tensor:
    """Return `x` as a tensor; its type says what it holds, so none is changed."""
    tensor = as_tensor(x)
    if tensor.dtype not in types:
        allowed = " or ".join(dtype.name for dtype in types)
        raise TypeError(f"{name} must be {allowed}, got {tensor.dtype.name}")
    return tensor
