# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Turns what callers pass into the tensors that the ops take, losing nothing silently."""

from __future__ import annotations

import operator
from collections.abc import Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold._frame.tensors import as_tensor, is_tensor, limits

# Narrower types that the ops' two element types hold exactly.
_WIDENED = {
    tf.int8: tf.int32,
    tf.uint8: tf.int32,
    tf.int16: tf.int32,
    tf.uint16: tf.int32,
    tf.bool: tf.int32,
    tf.float16: tf.float32,
    tf.bfloat16: tf.float32,
}
_ELEMENT_TYPES = (tf.float32, tf.int32)


def element_tensor(x: Any, name: str, dtype: tf.DType | None = None) -> tf.Tensor:
    """Return `x` as a tensor of an element type of the ops.

    Args:
        x: a tensor, variable, numpy array, nested list or number.
        name: the argument's name, for errors.
        dtype: the element type it must get; by default the one that `x` has or widens to.

    Returns:
        A float32 or int32 tensor. Narrower types widen; int64 data narrows where every value fits.

    Raises:
        TypeError: for other types, and where `x` cannot become `dtype` exactly.
        ValueError: for int64 data with values that no int32 holds.
    """
    if not is_tensor(x):
        x = _host_array(x, name, dtype)
    tensor = as_tensor(x)
    if tensor.dtype in _WIDENED:
        tensor = tf.cast(tensor, _WIDENED[tensor.dtype])
    wanted = _ELEMENT_TYPES if dtype is None else (dtype,)
    if tensor.dtype not in wanted:
        raise TypeError(
            f"{name} must be {' or '.join(t.name for t in wanted)}, got {tensor.dtype.name}; "
            "convert it first (tf.cast or numpy's astype)"
        )
    return tensor


def _host_array(x: Any, name: str, dtype: tf.DType | None) -> Any:
    """Convert lists, numbers and int64 arrays as far as no value changes beyond rounding."""
    array = np.asarray(x)
    listed = not isinstance(x, (np.ndarray, np.generic))
    if array.dtype == np.int64 or (array.size == 0 and listed):
        if array.size and (array.min() < -(2**31) or array.max() >= 2**31):
            raise ValueError(f"{name} holds int64 values that no int32 holds")
        array = array.astype(np.int32)
    if listed and array.dtype == np.float64:
        return _float32(array, name)
    if listed and dtype == tf.float32 and array.dtype == np.int32:
        return _float32(array, name)
    return array


def _float32(array: np.ndarray, name: str) -> np.ndarray:
    """Round floats to float32, as written numbers are; integers must be exact, and all finite."""
    with np.errstate(over="ignore"):
        result = array.astype(np.float32)
    if array.dtype.kind in "iu" and (result.astype(np.float64) != array).any():
        raise ValueError(f"{name} holds integers that no float32 holds")
    if (np.isinf(result) & np.isfinite(array)).any():
        raise ValueError(f"{name} holds numbers beyond float32's range")
    return result


def fixed_tensor(x: Any, name: str, dtype: tf.DType) -> tf.Tensor:
    """Return `x` as a tensor of an op's fixed integer type, widening what fits it.

    Args:
        x: a tensor, variable, numpy array, nested list or number.
        name: the argument's name, for errors.
        dtype: the integer type.

    Raises:
        TypeError: for data that is not of an integer type, or a tensor that `dtype` does not hold.
        ValueError: for numbers outside the type's range.
    """
    if is_tensor(x):
        tensor = as_tensor(x)
        if tensor.dtype == dtype:
            return tensor
        fits = tensor.dtype.is_integer and dtype.min <= tensor.dtype.min
        if not fits or tensor.dtype.max > dtype.max:
            raise TypeError(f"{name} must be {dtype.name}, got {tensor.dtype.name}")
        return tf.cast(tensor, dtype)
    return _number_tensor(x, name, dtype)


def scalar_operand(x: Any, name: str, dtype: tf.DType) -> tf.Tensor | int:
    """Return a scalar input of an op: a tensor passes, a number becomes one of its type.

    The generated op itself makes tensors of the small whole numbers, which takes no time: the
    runtime keeps one of every Python number that it has seen, for good and taking -0.0 for 0.0. So
    other numbers do not go that way, nor does a 0 that becomes a float.

    Raises:
        TypeError: for a tensor of another type, for what is no number, and for a number that is
            no integer where one is needed.
        ValueError: for a number that the type does not hold.
    """
    if type(x) in (int, float) and 0 <= x < 128 and x == int(x) and (x or dtype.is_integer):
        return int(x)
    if is_tensor(x):
        if x.dtype != dtype:
            raise TypeError(f"{name} must be {dtype.name}, got {x.dtype.name}")
        return x
    return _number_tensor(x, name, dtype)


def _number_tensor(x: Any, name: str, dtype: tf.DType) -> tf.Tensor:
    """Return a tensor of numbers that a type holds, one or an array."""
    value = np.asarray(x)
    if value.dtype.kind not in "iubf":
        raise TypeError(f"{name} must be a number, got {x!r}")
    if not dtype.is_integer:
        return tf.constant(_float32(value, name), dtype)
    if value.dtype.kind == "f" and not (value == np.floor(value)).all():
        raise TypeError(f"{name} must be an integer, got {x}")
    least, greatest = limits(dtype)
    if not np.can_cast(value.dtype, dtype.as_numpy_dtype) and (
        (value < least).any() or (value > greatest).any()
    ):
        raise ValueError(f"{name} must lie in [{least}, {greatest}], got {x}")
    return tf.constant(value.astype(dtype.as_numpy_dtype, copy=False))


def integer(x: Any, name: str) -> int:
    """Return an attribute that is a 32-bit integer.

    Raises:
        TypeError: for anything but an integer, fractions included.
        ValueError: for one beyond 32 bits.
    """
    try:
        value = operator.index(x)
    except TypeError:
        raise TypeError(f"{name} must be an integer, got {x!r}") from None
    if not -(2**31) <= value < 2**31:
        raise ValueError(f"{name} must lie in [{-(2**31)}, {2**31 - 1}], got {value}")
    return value


def float_attribute(x: Any, name: str) -> float:
    """Return an attribute that is a float32 number.

    Raises:
        TypeError: for what is no single number.
        ValueError: for a finite number beyond float32's range, or an integer that it does not hold.
    """
    value = np.asarray(x)
    if value.dtype.kind not in "iubf" or value.ndim != 0:
        raise TypeError(f"{name} must be a number, got {x!r}")
    return _float32(value, name).item()


def spatial_values(value: int | Sequence[int], name: str) -> list[int]:
    """Return strides or dilations as the four values of an NHWC attribute.

    Args:
        value: one number for both axes, [height, width], or [1, height, width, 1].
        name: the argument's name, for errors.

    Raises:
        ValueError: for anything else: another count, fractions, nested lists, or values other
            than 1 for batch and channels.
    """
    if type(value) is int:
        return [1, value, value, 1]
    try:
        values = [operator.index(v) for v in (value if np.iterable(value) else [value])]
    except TypeError:
        values = []
    if len(values) == 1:
        values *= 2
    if len(values) == 2:
        values = [1, *values, 1]
    if len(values) != 4 or values[0] != 1 or values[3] != 1:
        raise ValueError(
            f"{name} must be one number, [height, width] or [1, height, width, 1], all integers, "
            f"got {value!r}"
        )
    return values


def padding_name(padding: str) -> str:
    """Return "SAME" or "VALID" for either in any case.

    Raises:
        ValueError: for any other text.
    """
    name = str(padding).upper()
    if name not in ("SAME", "VALID"):
        raise ValueError(f'padding must be "SAME" or "VALID", got {padding!r}')
    return name
