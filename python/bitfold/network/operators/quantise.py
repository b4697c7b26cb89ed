# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Between real numbers and stored integers."""

from __future__ import annotations

import numpy as np
import tensorflow as tf

from bitfold.network.graph import Tensor


def quantise(values: tf.Tensor, tensor: Tensor) -> tf.Tensor:
    """Return round(value / scale) + zero point, halves away from zero, within the stored type."""
    limits = np.iinfo(tensor.dtype)
    steps = values / np.float32(tensor.scale)
    magnitude = tf.floor(tf.abs(steps) + np.float32(0.5))
    whole = tf.sign(steps) * magnitude + np.float32(tensor.zero_point)
    return tf.cast(tf.clip_by_value(whole, limits.min, limits.max), tensor.dtype)


def dequantise(stored: tf.Tensor, tensor: Tensor) -> tf.Tensor:
    """Return scale * (stored - zero point)."""
    return np.float32(tensor.scale) * tf.cast(
        tf.cast(stored, tf.int32) - tensor.zero_point, tf.float32
    )
