# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Between what callers give and get, and the stored elements that a network computes on."""

from __future__ import annotations

from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.network.graph import Tensor
from bitfold.network.operators.quantise import dequantise, quantise


def as_list(x: Any, names: Sequence[str], ranks: Sequence[int]) -> list[Any]:
    """Return a value for each input from a dictionary by name, a list, or the only value.

    Raises:
        ValueError: naming the inputs, where others are given.
    """
    if isinstance(x, Mapping):
        if set(x) != set(names):
            raise ValueError(f"Need the inputs {list(names)}, got {sorted(map(str, x))}")
        return [x[name] for name in names]
    if len(names) == 1:
        is_wrapped = isinstance(x, list | tuple) and len(x) == 1 and np.ndim(x[0]) == ranks[0]
        return list(x) if is_wrapped else [x]
    if not isinstance(x, list | tuple) or len(x) != len(names):
        given = f"{len(x)} values" if isinstance(x, list | tuple) else type(x).__name__
        raise ValueError(f"Need a list or a dictionary of the inputs {list(names)}, got {given}")
    return list(x)


def as_input(value: Any, name: str, tensor: Tensor) -> tf.Tensor:
    """Return an input as a tensor of floats or of its stored type.

    Raises:
        TypeError: for other types.
        ValueError: for another shape.
    """
    if tf.is_tensor(value) or isinstance(value, tf.Variable):
        value = tf.convert_to_tensor(value)
    else:
        value = np.asarray(value)
        if value.dtype == np.float64:
            value = value.astype(np.float32)
        value = tf.convert_to_tensor(value)
    if value.dtype.is_floating and value.dtype != tf.float32:
        value = tf.cast(value, tf.float32)
    stored = tf.as_dtype(tensor.dtype)
    if value.dtype != stored and not (value.dtype == tf.float32 and tensor.is_quantised):
        floats = "floats, or " if tensor.is_quantised and stored != tf.float32 else ""
        raise TypeError(
            f"Need {floats}{stored.name} as stored, for input {name!r}, got {value.dtype.name}; "
            "of real values make floats: x.astype('float32')"
        )
    rows = tensor.shape[0]
    needed = [None if rows == 1 else f"a multiple of {rows}", *tensor.shape[1:]]
    is_fitting = value.shape.is_compatible_with([None, *tensor.shape[1:]])
    if is_fitting and value.shape.rank and value.shape[0] is not None:
        is_fitting = value.shape[0] % rows == 0
    if not is_fitting:
        raise ValueError(f"Need input {name!r} of shape {needed}, got {value.shape.as_list()}")
    return value


def need_equal_batches(values: Sequence[tf.Tensor], tensors: Sequence[Tensor]) -> None:
    """Raise ValueError unless every input holds as many images, where that is known."""
    counts = {
        value.shape[0] // tensor.shape[0]
        for value, tensor in zip(values, tensors, strict=True)
        if value.shape.rank and value.shape[0] is not None
    }
    if len(counts) > 1:
        raise ValueError(f"Need as many images for every input, got {sorted(counts)}")


def is_real(values: Sequence[tf.Tensor], tensors: Sequence[Tensor]) -> bool:
    """Return whether a call is in real numbers: unless stored integers were given throughout."""
    quantised = [
        value for value, tensor in zip(values, tensors, strict=True) if tensor.is_quantised
    ]
    return not quantised or any(value.dtype == tf.float32 for value in quantised)


def stored(value: tf.Tensor, tensor: Tensor) -> tf.Tensor:
    """Return an input's stored elements."""
    if value.dtype == tf.float32 and tensor.dtype != np.float32:
        return quantise(value, tensor)
    return value


def real(value: tf.Tensor, tensor: Tensor) -> tf.Tensor:
    """Return the real numbers that an output stands for; what is not quantised as it is."""
    return dequantise(value, tensor) if tensor.is_quantised else value
