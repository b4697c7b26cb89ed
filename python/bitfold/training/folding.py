# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Batch normalisation folded into the filter and the bias of the layer before it, while training.

A layer normalises by the moving statistics, in training too: the filter that it computes with is
the one that remains. The statistics of a batch are found from the sums of that filter, divided by
the gain that was folded into it, so that no second convolution is needed.
"""

from __future__ import annotations

import keras
import tensorflow as tf

# A smaller gain hides what the sums were before it.
_LEAST_GAIN = 1e-6


def folded(
    kernel: tf.Tensor, bias: tf.Tensor | None, normalisation: keras.layers.Layer | None
) -> tuple[tf.Tensor, tf.Tensor]:
    """Return filter [..., outputs] and bias [outputs] with a normalisation in them, float64.

    Args:
        kernel: float32 [..., outputs].
        bias: float32 [outputs], or None.
        normalisation: the layer's batch normalisation, or None.
    """
    filter = tf.cast(kernel, tf.float64)
    shift = tf.zeros([kernel.shape[-1]], tf.float64) if bias is None else tf.cast(bias, tf.float64)
    if normalisation is None:
        return filter, shift
    gain = _gain(normalisation)
    shift = (shift - tf.cast(normalisation.moving_mean, tf.float64)) * gain
    if normalisation.center:
        shift = shift + tf.cast(normalisation.beta, tf.float64)
    return filter * gain, shift


def _gain(normalisation: keras.layers.Layer) -> tf.Tensor:
    """Return what filters are multiplied by, float64 [outputs]."""
    variance = tf.cast(normalisation.moving_variance, tf.float64)
    gain = tf.math.rsqrt(variance + normalisation.epsilon)
    return gain * tf.cast(normalisation.gamma, tf.float64) if normalisation.scale else gain


def update_statistics(
    normalisation: keras.layers.Layer,
    sums: tf.Tensor,
    bias: tf.Tensor,
    units: tf.Tensor,
    before: tf.Tensor | None,
) -> None:
    """Move the moving statistics towards those of a batch.

    Args:
        normalisation: the layer's batch normalisation.
        sums: float32 [..., outputs], in full width, with the bias.
        bias: whole numbers, float64 [outputs].
        units: float64 [outputs], what a step of the sums stands for.
        before: float32 [outputs], the bias that the layer has before the normalisation, or None.
    """
    gain = _gain(normalisation)
    is_seen = tf.abs(gain) > _LEAST_GAIN
    factor = units / tf.where(is_seen, gain, tf.ones_like(gain))
    mean, variance = tf.nn.moments(sums, axes=list(range(sums.shape.rank - 1)))
    mean = tf.cast((tf.cast(mean, tf.float64) - bias) * factor, tf.float32)
    variance = tf.cast(tf.cast(variance, tf.float64) * factor**2, tf.float32)
    if before is not None:
        mean = mean + before
    kept = normalisation.momentum
    for moving, batch in (
        (normalisation.moving_mean, mean),
        (normalisation.moving_variance, variance),
    ):
        old = tf.convert_to_tensor(moving)
        moving.assign(tf.where(is_seen, kept * old + (1 - kept) * batch, old))
