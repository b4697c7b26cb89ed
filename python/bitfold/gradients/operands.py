# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What a gradient asks of an op's operands: sizes, the shift, weights as they are read."""

from __future__ import annotations

import functools
from typing import Any

import tensorflow as tf

# A size or a number of pixels: known, or a tensor that will hold it.
Size = Any


def wants(op: Any, index: int) -> bool:
    """Answer whether the gradient of an input will be used.

    Eagerly the runtime says which will not. A graph drops what nothing asks for.
    """
    return index not in (getattr(op, "skip_input_indices", None) or ())


def unhidden(tensor: tf.Tensor) -> tf.Tensor:
    """Return the tensor whose shape a wrapper hid from the op's shape inference in a graph."""
    producer = getattr(tensor, "op", None)  # eager tensors have none
    if producer is not None and producer.type == "PlaceholderWithDefault":
        return producer.inputs[0]
    return tensor


def sizes(tensor: tf.Tensor, rank: int) -> list[Size]:
    """Return the sizes of a tensor of a rank, each a number where it is known."""
    known = tensor.shape.as_list() if tensor.shape.rank is not None else [None] * rank
    if None not in known:
        return known
    later = tf.shape(tensor)
    return [later[axis] if size is None else size for axis, size in enumerate(known)]


def choose(condition: Any, first: Size, second: Size) -> Size:
    """Return one of two sizes, at once where the condition is known."""
    if tf.is_tensor(condition):
        return tf.where(condition, first, second)
    return first if condition else second


def divided(gradient: tf.Tensor, mult_shift: tf.Tensor) -> tf.Tensor:
    """Divide by the shift's value, as float products are; by nothing where it is 0."""
    shift = tf.get_static_value(mult_shift)
    if shift is not None:
        divisor = int(shift.flat[0])
        return gradient if divisor in (0, 1) else gradient / divisor
    divisor = tf.cast(first(mult_shift), tf.float32)
    return gradient / tf.where(divisor == 0, 1.0, divisor)


def first(operand: tf.Tensor) -> tf.Tensor:
    """Return the one element that an op reads of a scalar operand."""
    return operand if operand.shape.rank == 0 else tf.reshape(operand, [-1])[0]


def of_first(gradient: tf.Tensor, operand: tf.Tensor) -> tf.Tensor:
    """Return the gradient of an operand of which one element is read, given that element's."""
    if operand.shape.rank == 0:
        return gradient
    flat = tf.pad(gradient[tf.newaxis], [[0, tf.size(operand) - 1]])
    return tf.reshape(flat, tf.shape(operand))


def corrected(weights: tf.Tensor, accumulator_size: int) -> tf.Tensor:
    """Return float weights as a unit of signed weights reads them (rule C1): w / 2 bits of them."""
    limit, period = _weight_range(accumulator_size)
    return tf.where(weights > limit, weights - period, weights)


@functools.cache
def _weight_range(accumulator_size: int) -> tuple[float, float]:
    """Return the largest weight and the period of C1, in the 32-bit arithmetic of that rule."""
    exponent = int(accumulator_size / 2) - 1  # the quotient truncates
    limit = -(2**31) if exponent > 31 else int(2.0**exponent - 1)
    period = (2 * limit + 2 + 2**31) % 2**32 - 2**31
    return float(limit), float(period)


def require(condition: bool, op: Any, what: str, got: Any) -> None:
    """Raise ValueError unless a condition holds of an op that a gradient is asked of."""
    if not condition:
        raise ValueError(f"Need {what} for a gradient of {op.type}, got {got}")
