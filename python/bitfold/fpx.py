# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The accelerator's narrow floating-point format on numpy arrays.

A value has a sign, a biased exponent of ``exp_len`` bits (3 or 4) and a mantissa of ``man_len``
bits (1 to 24) with an explicit leading one. Arrays of it have the type `DTYPE`, whose layout is
that of the C structure in ``bitfold/fpx.h``; all arithmetic is the library's.

Example:
    >>> from bitfold import fpx
    >>> x = fpx.quantize([1.0, 3.0, 16.0], exp_len=4, man_len=4)  # 16 saturates at 15
    >>> fpx.to_float(fpx.add(x, x)).tolist()
    [2.0, 6.0, 30.0]
"""

from __future__ import annotations

import ctypes
from typing import Any, NamedTuple

import numpy as np

from bitfold._frame.arguments import integer
from bitfold._frame.library import library_path

# Aligned as the C structure is, so that numpy keeps the layout when it joins arrays.
DTYPE = np.dtype(
    [
        ("exp_len", "u1"),
        ("man_len", "u1"),
        ("mantissa", "u4"),
        ("exponent", "u2"),
        ("sign", "u1"),
    ],
    align=True,
)


class Counters(NamedTuple):
    """What was lost since the library was loaded; an `HMatmul` resets them when it runs."""

    to_overflow: int
    to_underflow: int
    resize_overflow: int
    resize_underflow: int


class _Value(ctypes.Structure):
    """The C structure; its bit-field as a byte, since ctypes passes no bit-fields by value."""

    _fields_ = (
        ("exp_len", ctypes.c_uint8),
        ("man_len", ctypes.c_uint8),
        ("mantissa", ctypes.c_uint32),
        ("exponent", ctypes.c_uint16),
        ("sign", ctypes.c_uint8),
    )


_LIBRARY = ctypes.CDLL(library_path())
_LIBRARY.add_sub_floatX.argtypes = [_Value, _Value, ctypes.POINTER(_Value)]
_LIBRARY.mul_floatX.argtypes = [_Value, _Value, ctypes.POINTER(_Value)]
_LIBRARY.floatX_to32.argtypes = [_Value]
_LIBRARY.floatX_to32.restype = ctypes.c_float
_LIBRARY.float32_toX.argtypes = [ctypes.c_float, ctypes.POINTER(_Value)]
_LIBRARY.ResizeX.argtypes = [ctypes.POINTER(_Value), ctypes.c_uint16, ctypes.c_uint16]
for _function in ("add_sub_floatX", "mul_floatX", "float32_toX", "ResizeX"):
    getattr(_LIBRARY, _function).restype = None


def quantize(values: Any, exp_len: int, man_len: int) -> np.ndarray:
    """Convert floats to the narrow format: to nearest, ties truncated, overflow saturating.

    Args:
        values: an array of any shape, taken as float32.
        exp_len: exponent bits, 3 or 4.
        man_len: mantissa bits, 1 to 24.

    Returns:
        An array of `DTYPE` of the shape of `values`.

    Raises:
        ValueError: for other widths.

    Example:
        >>> from bitfold import fpx
        >>> fpx.to_float(fpx.quantize(1.75, exp_len=4, man_len=2)).item()  # a tie
        1.5
    """
    floats = np.asarray(values, np.float32)
    result = _new(floats.shape, exp_len, man_len)
    for number, cell in zip(floats.ravel(), _cells(result), strict=True):
        _LIBRARY.float32_toX(number, cell)
    return result


def to_float(values: np.ndarray) -> np.ndarray:
    """Return the values of a `DTYPE` array as float32, same shape.

    Raises:
        TypeError: for an array of another type.

    Example:
        >>> from bitfold import fpx
        >>> fpx.to_float(fpx.quantize([-0.25], exp_len=3, man_len=4)).tolist()
        [-0.25]
    """
    values = _checked(values, "values")
    numbers = [_LIBRARY.floatX_to32(cell) for cell in _cells(values)]
    return np.array(numbers, np.float32).reshape(values.shape)


def resize(values: np.ndarray, exp_len: int, man_len: int) -> np.ndarray:
    """Return the values in other widths, ties truncated; `values` stays as it is.

    The unit does not provide for widening the mantissa: it loses it.

    Raises:
        TypeError: for an array of another type.
        ValueError: for other widths than those of `quantize`.

    Example:
        >>> from bitfold import fpx
        >>> x = fpx.quantize([1.2], exp_len=4, man_len=8)
        >>> fpx.to_float(fpx.resize(x, exp_len=3, man_len=4)).tolist()
        [1.25]
    """
    _check_widths(exp_len, man_len)
    result = _checked(values, "values").copy()
    for cell in _cells(result):
        _LIBRARY.ResizeX(cell, exp_len, man_len)
    return result


def add(a: np.ndarray, b: np.ndarray) -> np.ndarray:
    """Return a + b, signs included, in their common widths.

    The unit does not check the exponent: a sum beyond the range keeps a larger exponent field.

    Args:
        a: an array of `DTYPE`.
        b: an array of `DTYPE` of the same widths; shapes broadcast.

    Raises:
        TypeError: for arrays of another type.
        ValueError: for arrays of different widths.

    Example:
        >>> from bitfold import fpx
        >>> x = fpx.quantize([1.5, 1.5], exp_len=4, man_len=4)
        >>> y = fpx.quantize([0.5, -1.5], exp_len=4, man_len=4)
        >>> fpx.to_float(fpx.add(x, y)).tolist()
        [2.0, 0.0]
    """
    return _binary(_LIBRARY.add_sub_floatX, a, b)


def multiply(a: np.ndarray, b: np.ndarray) -> np.ndarray:
    """Return a * b, truncated, in their common widths; arguments and errors as for `add`.

    Raises:
        TypeError: for arrays of another type.
        ValueError: for arrays of different widths.

    Example:
        >>> from bitfold import fpx
        >>> half = fpx.quantize([0.5], exp_len=4, man_len=4)
        >>> fpx.to_float(fpx.multiply(half, half)).tolist()
        [0.25]
    """
    return _binary(_LIBRARY.mul_floatX, a, b)


def counters() -> Counters:
    """Return a snapshot of the four counters.

    Example:
        >>> from bitfold import fpx
        >>> before = fpx.counters()
        >>> _ = fpx.quantize([1000.0], exp_len=4, man_len=4)
        >>> fpx.counters().to_overflow - before.to_overflow
        1
    """
    names = ("g_32toX_of", "g_32toX_uf", "g_resizeX_of", "g_resizeX_uf")
    return Counters(*(ctypes.c_int32.in_dll(_LIBRARY, name).value for name in names))


def _check_widths(exp_len: int, man_len: int) -> None:
    exp_len, man_len = integer(exp_len, "exp_len"), integer(man_len, "man_len")
    if exp_len not in (3, 4) or not 1 <= man_len <= 24:
        raise ValueError(
            "Need exp_len of 3 or 4 and man_len of 1 to 24, "
            f"got exp_len {exp_len} and man_len {man_len}"
        )


def _new(shape: tuple[int, ...], exp_len: int, man_len: int) -> np.ndarray:
    """Return zeros of a format."""
    _check_widths(exp_len, man_len)
    result = np.zeros(shape, DTYPE)
    result["exp_len"] = exp_len
    result["man_len"] = man_len
    return result


def _checked(values: np.ndarray, name: str) -> np.ndarray:
    """Return a contiguous array of DTYPE, never a 0-dimensional scalar."""
    array = np.asarray(values)
    if array.dtype != DTYPE:
        raise TypeError(f"{name} must be an array of fpx.DTYPE (see quantize), got {array.dtype}")
    return np.ascontiguousarray(array).reshape(array.shape)


def _cells(array: np.ndarray) -> ctypes.Array:
    """Return the array's memory, which must be contiguous, as C structures."""
    return (_Value * array.size).from_address(array.ctypes.data)


def _binary(function: Any, a: np.ndarray, b: np.ndarray) -> np.ndarray:
    a, b = np.broadcast_arrays(_checked(a, "a"), _checked(b, "b"))
    a, b = a.copy(), b.copy()
    widths = np.unique(
        np.stack([np.append(a[key], b[key]) for key in ("exp_len", "man_len")]), axis=1
    )
    if widths.shape[1] > 1:
        raise ValueError(f"a and b must have one width, got (exp_len, man_len) {widths.T.tolist()}")
    if not widths.size:
        return a
    result = _new(a.shape, int(widths[0, 0]), int(widths[1, 0]))
    for x, y, out in zip(_cells(a), _cells(b), _cells(result), strict=True):
        function(x, y, out)
    return result
