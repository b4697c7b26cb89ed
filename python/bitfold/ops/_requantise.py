# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""From sums to stored integers."""

from __future__ import annotations

from typing import Any

import numpy as np
import tensorflow as tf

from bitfold._frame.arguments import integer
from bitfold._frame.layers import accepts_symbolic
from bitfold._frame.loaded import raw_ops
from bitfold._frame.multipliers import require_multipliers
from bitfold._frame.tensors import as_tensor, is_tensor, limits

_ROUNDINGS = ("two_roundings", "short_multiplier", "one_rounding")
_OUTPUTS = (tf.int8, tf.int16, tf.int32)


@accepts_symbolic
def requantise(
    sums: Any,
    multipliers: Any,
    *,
    rounding: str = "two_roundings",
    zero_point: int = 0,
    minimum: int | None = None,
    maximum: int | None = None,
    dtype: Any = tf.int8,
    shift: int = 0,
    name: str | None = None,
) -> tf.Tensor:
    """Bring sums to the scale of an output and store them, as a quantised network's layers do.

    Each sum is multiplied by its channel's multiplier and rounded, the zero point is added in 32
    bits, and the result is clamped. The roundings are those of the mobile runtime's reference
    kernels:

    - ``"two_roundings"``, of int8 convolutions: the multiplier is a mantissa of 31 bits and an
      exponent e. The sum, shifted left by e in 32 bits where e is above 0, times the mantissa is
      rounded, halves up; then divided by 2^-e where e is below 0, halves away from zero.
    - ``"short_multiplier"``, of convolutions of int16 data: the mantissa is rounded to 15 bits, the
      product formed in 64 bits and rounded once, halves up; its low 32 bits count.
    - ``"one_rounding"``, of dense layers: the product with the multiplier itself in double
      precision, rounded to a whole number, halves away from zero. What no int32 holds becomes
      -2^31.

    There is no gradient: results are integers.

    Args:
        sums: int32 or int64 of rank 1 or more, channels last. int64 has no form of two roundings.
            Narrower integers widen, lists become int32 where that holds them.
        multipliers: real numbers, finite and not negative, taken in double precision: one, or one
            for each channel. Of a layer the input's scale times the filter's by the output's.
        rounding: as above.
        zero_point: the stored integer that stands for 0, in the range of `dtype`.
        minimum: the least result, by default that of `dtype`.
        maximum: the greatest result, by default that of `dtype`.
        dtype: the type of the result: int8, int16 or int32.
        shift: added to every exponent: sums of products that were shifted right by as many bits
            get it back. A multiplier below 2^-32, whose exponent nothing holds, stays 0.
        name: the node's name.

    Returns:
        A tensor of `dtype` and of the shape of `sums`.

    Raises:
        TypeError: for sums, multipliers or a `dtype` of other types.
        ValueError: for multipliers of another shape; where they are no tensor, for negative ones
            and those whose exponents lie outside [-31, 31] for two roundings and [-31, 7] for a
            short multiplier; for another rounding, a zero point outside of `dtype`, and bounds
            that lie outside of it or have no number between them.
        tf.errors.InvalidArgumentError: for such multipliers in a tensor.

    Example:
        >>> import bitfold, numpy as np
        >>> sums = np.array([[1000, -1000], [30, 5000]], np.int32)
        >>> bitfold.ops.requantise(sums, [0.05, 0.01], zero_point=3).numpy()
        array([[53, -7],
               [ 5, 53]], dtype=int8)
        >>> bitfold.ops.requantise([3, -3], 0.5, rounding="one_rounding").numpy()
        array([ 2, -2], dtype=int8)
    """
    if rounding not in _ROUNDINGS:
        raise ValueError(f"rounding must be one of {', '.join(_ROUNDINGS)}, got {rounding!r}")
    sums = _sum_tensor(sums, rounding)
    shift = integer(shift, "shift")
    dtype = _output_type(dtype)
    zero_point = integer(zero_point, "zero_point")
    least, greatest = limits(dtype)
    minimum = least if minimum is None else integer(minimum, "minimum")
    maximum = greatest if maximum is None else integer(maximum, "maximum")
    _require_range(dtype, zero_point, minimum, maximum)
    return raw_ops.h_requantise(
        sums=sums,
        multipliers=_multiplier_tensor(multipliers, sums.shape, rounding, shift),
        rounding=rounding,
        shift=shift,
        zero_point=zero_point,
        minimum=minimum,
        maximum=maximum,
        T_out=dtype,
        name=name,
    )


def _sum_tensor(sums: Any, rounding: str) -> tf.Tensor:
    """Return the sums as a tensor of a type that the rounding takes."""
    if not is_tensor(sums):
        listed = not isinstance(sums, (np.ndarray, np.generic))
        sums = np.asarray(sums)
        if listed and (sums.size == 0 or (sums.dtype == np.int64 and _fits_int32(sums))):
            sums = sums.astype(np.int32)
    tensor = as_tensor(sums)
    if tensor.dtype in (tf.int8, tf.uint8, tf.int16, tf.uint16):
        tensor = tf.cast(tensor, tf.int32)
    allowed = (tf.int32,) if rounding == "two_roundings" else (tf.int32, tf.int64)
    if tensor.dtype not in allowed:
        raise TypeError(
            f"sums must be {' or '.join(t.name for t in allowed)} for {rounding}, "
            f"got {tensor.dtype.name}"
        )
    if tensor.shape.rank == 0:
        raise ValueError("sums must have rank 1 or more, got a scalar")
    return tensor


def _fits_int32(array: np.ndarray) -> bool:
    least, greatest = limits(tf.int32)
    return array.min() >= least and array.max() <= greatest


def _output_type(dtype: Any) -> tf.DType:
    output = tf.as_dtype(dtype)
    if output not in _OUTPUTS:
        raise TypeError(f"dtype must be int8, int16 or int32, got {output.name}")
    return output


def _require_range(dtype: tf.DType, zero_point: int, minimum: int, maximum: int) -> None:
    least, greatest = limits(dtype)
    if not least <= zero_point <= greatest:
        raise ValueError(f"zero_point must lie in [{least}, {greatest}], got {zero_point}")
    if not least <= minimum <= maximum <= greatest:
        raise ValueError(
            f"minimum and maximum must be in order and lie in [{least}, {greatest}], "
            f"got {minimum} and {maximum}"
        )


def _multiplier_tensor(
    multipliers: Any, sums: tf.TensorShape, rounding: str, shift: int
) -> tf.Tensor:
    """Return the multipliers as a tensor of rank 1; what can be known of them is checked."""
    if is_tensor(multipliers):
        tensor = as_tensor(multipliers)
        if tensor.dtype != tf.float64:
            raise TypeError(f"multipliers must be float64, got {tensor.dtype.name}")
    else:
        array = np.asarray(multipliers)
        if array.dtype.kind not in "iuf":
            raise TypeError(f"multipliers must be real numbers, got {multipliers!r}")
        array = array.astype(np.float64)
        require_multipliers(array, rounding, shift)
        tensor = tf.constant(array)
    if tensor.shape.rank == 0:
        tensor = tf.reshape(tensor, [1])
    count = tensor.shape[0] if tensor.shape.rank == 1 else None
    channels = None if sums.rank is None else sums[-1]
    known = None not in (count, channels)
    if tensor.shape.rank not in (None, 1) or (known and count not in (1, channels)):
        needed = "the channels" if channels is None else f"{channels}, the channels"
        raise ValueError(
            f"multipliers must be one number or of shape [1] or [C] with C {needed} of sums, "
            f"got shape {tensor.shape}"
        )
    return tensor
