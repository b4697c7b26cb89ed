# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Reads the tensors of the runtime's model files: shapes, elements, quantisation."""

from __future__ import annotations

import math
from collections.abc import Iterator

import ml_dtypes
import numpy as np

from bitfold.network import model_schema
from bitfold.network.flat_file import View
from bitfold.network.graph import MOST_ELEMENTS, Quantisation, Tensor

# numpy has no more.
_MOST_DIMENSIONS = 32


def read_tensor(index: int, view: View, buffers: list[np.ndarray]) -> Tensor:
    """Read a tensor.

    Args:
        index: its place in the file.
        view: its table.
        buffers: the file's, by number.

    Raises:
        ValueError: the file is damaged.
    """
    number = view.number("Type")
    if number not in model_schema.DTYPES:
        raise ValueError(f"Need a type of 0 to {max(model_schema.DTYPES)}, got {number}")
    dtype = model_schema.DTYPES[number]
    buffer = view.number("Buffer")
    if buffer and buffer >= len(buffers):
        raise ValueError(f"Need a buffer of {len(buffers)}, got {buffer}")
    quantisation = view.table("Quantization")
    unsupported = tuple(_unsupported(view, quantisation, number))
    shape, unknown = _shape(view)
    data = None
    if buffer < len(buffers) and buffers[buffer].size:
        # What elements there are says the shape, not the signature.
        unknown = ()
        if not unsupported:
            data = _elements(buffers[buffer], shape, dtype, view)
    elif unknown:
        shape = tuple(1 if i in unknown else size for i, size in enumerate(shape))
    return Tensor(
        index=index,
        name=view.text("Name"),
        shape=shape,
        dtype=dtype,
        quantisation=_quantisation(quantisation, shape, dtype, data is not None),
        data=data,
        unknown=unknown,
        unsupported=unsupported,
    )


def _unsupported(view: View, quantisation: View | None, number: int) -> Iterator[str]:
    """Yield what of a tensor the records cannot express."""
    if model_schema.DTYPES[number] == np.dtype(object):
        yield f"holds elements of type {model_schema.TENSOR_TYPES[number]}"
    if view.number("IsVariable"):
        yield "is a variable"
    if view.number("ExternalBuffer"):
        yield "lies in another file"
    if view.table("Sparsity") is not None:
        yield "is sparse"
    if quantisation is not None and quantisation.number("DetailsType"):
        yield "is quantised by more than scales and zero points"


def _shape(view: View) -> tuple[tuple[int, ...], tuple[int, ...]]:
    """Return a tensor's dimensions, and those that the file leaves open."""
    shape, signature = tuple(view.numbers("Shape")), view.numbers("ShapeSignature")
    if len(shape) > _MOST_DIMENSIONS:
        raise ValueError(f"Need at most {_MOST_DIMENSIONS} dimensions, got {len(shape)}")
    if signature and len(signature) != len(shape):
        raise ValueError(f"Need a signature for {len(shape)} dimensions, got {len(signature)}")
    if any(size < 0 for size in shape) or any(size < -1 for size in signature):
        raise ValueError(f"Need dimensions of 0 or more, got {list(shape)} and {signature}")
    if math.prod(max(size, 1) for size in shape) > MOST_ELEMENTS:
        raise ValueError(f"Need at most {MOST_ELEMENTS} elements, got {list(shape)}")
    return shape, tuple(i for i, size in enumerate(signature) if size == -1)


def _elements(
    buffer: np.ndarray, shape: tuple[int, ...], dtype: np.dtype, view: View
) -> np.ndarray:
    """Return a constant's elements from its bytes."""
    bits = model_schema.BITS.get(dtype, 8 * dtype.itemsize)
    need = -(-math.prod(shape) * bits // 8)
    if buffer.size != need:
        raise ValueError(f"Need {need} bytes for {dtype.name} {list(shape)}, got {buffer.size}")
    if bits < 8:
        view.charge(math.prod(shape))
        found = _unpacked(buffer, math.prod(shape), bits).astype(dtype)
    else:
        found = buffer.view(dtype.newbyteorder("<"))
    if dtype == np.bool_:
        view.charge(buffer.size)
        if buffer.max() > 1:
            raise ValueError(f"Need truth values of 0 or 1, got {buffer.max()}")
    if not (found.flags.aligned and found.dtype.isnative):
        view.charge(buffer.size)
        found = found.astype(dtype)
    found = found.reshape(shape)
    found.flags.writeable = False
    return found


def _unpacked(buffer: np.ndarray, count: int, bits: int) -> np.ndarray:
    """Return numbers of fewer than eight bits, the first in the low bits, as bytes' low ones."""
    shifts = np.arange(0, 8, bits, dtype=np.uint8)
    values = ((buffer[:, None] >> shifts).reshape(-1)[:count]) & ((1 << bits) - 1)
    return values.astype(np.uint8)


def _quantisation(
    view: View | None, shape: tuple[int, ...], dtype: np.dtype, is_constant: bool
) -> Quantisation | None:
    """Return the scales and zero points of a tensor of integers."""
    # A converter leaves observed ranges, without scales, on tensors that stay float.
    if view is None or not _is_integer(dtype):
        return None
    scales = np.array(view.numbers("Scale"), np.float32)
    zero_points = np.array(view.numbers("ZeroPoint"), np.int64)
    if not scales.size:
        return None
    # Converters give dead channels of weights a scale of 0, and an infinite one where all are dead.
    sound = scales >= 0 if is_constant else np.isfinite(scales) & (scales > 0)
    if not sound.all():
        raise ValueError(f"Need finite scales above 0, got {_excerpt(scales)}")
    if scales.size != zero_points.size:
        raise ValueError(f"Need {scales.size} zero points, got {zero_points.size}")
    limits = ml_dtypes.iinfo(dtype)
    if zero_points.min() < int(limits.min) or zero_points.max() > int(limits.max):
        raise ValueError(f"Need zero points of {dtype.name}, got {_excerpt(zero_points)}")
    axis = 0
    if scales.size > 1:
        axis = view.number("QuantizedDimension")
        if not 0 <= axis < len(shape):
            raise ValueError(f"Need a quantised dimension of {len(shape)}, got {axis}")
        if shape[axis] != scales.size:
            raise ValueError(
                f"Need a scale for each of {shape[axis]} in dimension {axis}, got {scales.size}"
            )
    scales.flags.writeable = False
    zero_points.flags.writeable = False
    return Quantisation(scales, zero_points, axis)


def _is_integer(dtype: np.dtype) -> bool:
    return dtype.kind in "iu" or dtype in model_schema.BITS


def _excerpt(values: np.ndarray) -> str:
    more = f" and {values.size - 4} more" if values.size > 4 else ""
    return f"{values[:4].tolist()}{more}"
