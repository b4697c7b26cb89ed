# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""From stored tensors of a quantised network to stored tensors."""

from __future__ import annotations

from typing import Any

import tensorflow as tf

from bitfold._frame.arguments import float_attribute, integer
from bitfold._frame.layers import accepts_symbolic
from bitfold._frame.loaded import raw_ops

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
    lowest, highest = first.dtype.min, first.dtype.max
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


def _stored_tensor(x: Any, name: str, types: tuple[tf.DType, ...]) -> tf.Tensor:
    """Return stored integers as a tensor; their type says what they are, so none is changed."""
    tensor = tf.convert_to_tensor(x)
    if tensor.dtype not in types:
        allowed = " or ".join(dtype.name for dtype in types)
        raise TypeError(f"{name} must be {allowed}, got {tensor.dtype.name}")
    return tensor
