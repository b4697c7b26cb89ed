# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Gradients of the additions.

    HAdd                       value + n * factor * elementwise / s
    HBiasAdd                   value + n * bias[c] * factor / s
    HDecomposedBiasAdd         value + n * (bias_a[c] * factor_a + bias_b[c] * factor_b) / s
    HStandaloneElementwiseAdd  weights[0, c] * value / s + weights[1, c] * elementwise / s

n is the number of passes of the feed, s the shift's value, 1 where that is 0, c the channel. Each
of these functions is linear in every one of its float operands, so all of them have a gradient, the
factors too; n and s are settings and have none.
"""

from __future__ import annotations

from typing import Any

import tensorflow as tf

from bitfold.gradients.operands import divided, first, of_first, require, wants


@tf.RegisterGradient("HAdd")
def _add(op: Any, gradient: tf.Tensor) -> list[tf.Tensor | None]:
    value, elementwise, factor, feed_repeat, mult_shift = op.inputs
    _require_rank(op, value)
    results = [gradient, None, None, None, None]
    if wants(op, 1) or wants(op, 2):
        scaled = divided(_repeated(gradient, feed_repeat), mult_shift)
        scaled = tf.reshape(scaled, tf.shape(elementwise))
        results[1] = scaled * first(factor)
        if wants(op, 2):
            results[2] = of_first(tf.reduce_sum(scaled * elementwise), factor)
    return results


@tf.RegisterGradient("HBiasAdd")
def _bias_add(op: Any, gradient: tf.Tensor) -> list[tf.Tensor | None]:
    value, bias, factor, feed_repeat, mult_shift = op.inputs
    _require_rank(op, value)
    results = [gradient, None, None, None, None]
    if wants(op, 1) or wants(op, 2):
        scaled = divided(_repeated(_by_channel(gradient), feed_repeat), mult_shift)
        results[1], results[2] = _of_bias(scaled, bias, factor)
    return results


@tf.RegisterGradient("HDecomposedBiasAdd")
def _decomposed_bias_add(op: Any, gradient: tf.Tensor) -> list[tf.Tensor | None]:
    value, bias_a, bias_b, factor_a, factor_b, feed_repeat, mult_shift = op.inputs
    _require_rank(op, value)
    results = [gradient, *[None] * 6]
    if any(wants(op, index) for index in range(1, 5)):
        scaled = divided(_repeated(_by_channel(gradient), feed_repeat), mult_shift)
        results[1], results[3] = _of_bias(scaled, bias_a, factor_a)
        results[2], results[4] = _of_bias(scaled, bias_b, factor_b)
    return results


@tf.RegisterGradient("HStandaloneElementwiseAdd")
def _weighted_add(op: Any, gradient: tf.Tensor) -> list[tf.Tensor | None]:
    value, elementwise, weights, mult_shift = op.inputs
    _require_rank(op, value)
    scaled = divided(gradient, mult_shift)
    of_value, of_elementwise = tf.unstack(tf.reshape(weights, [2, -1]))
    results = [scaled * of_value, None, None, None]
    if wants(op, 1):
        results[1] = tf.reshape(scaled * of_elementwise, tf.shape(elementwise))
    if wants(op, 2):
        other = tf.reshape(elementwise, tf.shape(value))
        both = tf.stack([_by_channel(scaled * value), _by_channel(scaled * other)])
        results[2] = tf.reshape(both, tf.shape(weights))
    return results


def _require_rank(op: Any, value: tf.Tensor) -> None:
    """Require a rank of which the op computes every element."""
    require(value.shape.rank in (None, 2, 4), op, "a value of rank 2 or 4", value.shape)


def _repeated(gradient: tf.Tensor, feed_repeat: tf.Tensor) -> tf.Tensor:
    """Multiply by how often an operand is added (rule R1), which float32 holds."""
    repeat = tf.get_static_value(feed_repeat)
    if repeat is not None and repeat.flat[0] == 1:
        return gradient
    return gradient * tf.math.ceil(tf.maximum(first(feed_repeat), 0.0))


def _by_channel(gradient: tf.Tensor) -> tf.Tensor:
    """Return the sum over all positions of each channel."""
    rank = gradient.shape.rank
    axes = tf.range(tf.rank(gradient) - 1) if rank is None else list(range(rank - 1))
    return tf.reduce_sum(gradient, axes)


def _of_bias(scaled: tf.Tensor, bias: tf.Tensor, factor: tf.Tensor) -> tuple[tf.Tensor, tf.Tensor]:
    """Return the gradients of a bias and of its factor, given that of their product."""
    scaled = tf.reshape(scaled, tf.shape(bias))
    return scaled * first(factor), of_first(tf.reduce_sum(scaled * bias), factor)
