# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The end of a layer: its output clamped, and the gradient that passes through all its integers."""

from __future__ import annotations

import dataclasses
from collections.abc import Sequence
from typing import Any

import tensorflow as tf


@dataclasses.dataclass(frozen=True, eq=False)
class Term:
    """A part of the real function that a layer approximates: values * factors.

    Attributes:
        values: float32, in the output's shape.
        factors: float32, one or one for each channel.
    """

    values: tf.Tensor
    factors: tf.Tensor


def clamped(
    unclamped: tf.Tensor,
    terms: Sequence[Term],
    bounds: tuple[tf.Tensor, tf.Tensor],
    *,
    is_wrong: tf.Tensor | None = None,
    log_scale: tf.Tensor | None = None,
) -> tf.Tensor:
    """Clamp a layer's centred output.

    Args:
        unclamped: whole numbers, float32.
        terms: what they approximate, in units of the output, as a sum. The gradient by a term's
            values is that of the output times the factors, 0 where the output is clamped.
        bounds: the least and the greatest output.
        is_wrong: where the gradient is 0, too; None for nowhere.
        log_scale: the logarithm of the output's scale where it is learned. Its gradient is that of
            scale * output: within the bounds the rounding's error, beyond them the bound; a sum
            over so many elements that it is divided by the root of their number times the bounds'
            distance.
    """
    low, high = bounds
    learned = [] if log_scale is None else [log_scale]

    @tf.custom_gradient
    def compute(*arguments: tf.Tensor) -> Any:
        output = tf.clip_by_value(unclamped, low, high)

        def gradient(upstream: tf.Tensor) -> list[tf.Tensor]:
            kept = unclamped == output
            if is_wrong is not None:
                kept = kept & ~is_wrong
            inside = tf.where(kept, upstream, tf.zeros_like(upstream))
            found = [inside * term.factors for term in terms]
            if learned:
                exact = tf.add_n([term.values * term.factors for term in terms])
                total = tf.reduce_sum(upstream * output) - tf.reduce_sum(inside * exact)
                count = tf.cast(tf.size(output), tf.float32)
                found.append(total / tf.sqrt(count * (high - low)))
            return found

        return output, gradient

    return compute(*(term.values for term in terms), *learned)
