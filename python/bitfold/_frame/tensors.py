# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What is a tensor, and what a number: asked of every argument, so soon answered."""

from __future__ import annotations

import functools
from typing import Any

import numpy as np
import tensorflow as tf

_PLAIN = frozenset((bool, int, float, str, list, tuple, np.ndarray, np.bool_, type(None)))


def is_tensor(x: Any) -> bool:
    """Answer as ``tf.is_tensor``, which takes longer over a number than an op does."""
    kind = type(x)
    return kind not in _PLAIN and (issubclass(kind, tf.Tensor) or tf.is_tensor(x))


@functools.cache
def limits(dtype: tf.DType) -> tuple[int, int]:
    """Return the least and the greatest number of an integer type."""
    return dtype.min, dtype.max


def as_tensor(x: Any, dtype: tf.DType | None = None) -> tf.Tensor:
    """Return what ``tf.convert_to_tensor`` does, without its search for a converter.

    Eagerly a tensor stands for itself; a graph has a tensor of its own for one from outside.
    """
    if isinstance(x, tf.Tensor) and dtype in (None, x.dtype) and tf.executing_eagerly():
        return x
    if type(x) is np.ndarray:
        return tf.constant(x, dtype)
    return tf.convert_to_tensor(x, dtype)
