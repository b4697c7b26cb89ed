# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the final sums of a layer reach at full width, at hardly more than the layer's own cost."""

from __future__ import annotations

from collections.abc import Sequence

import tensorflow as tf

from bitfold.network.operators import SummingStep, Watched
from bitfold.studies.bounds import WIDEST, bits_of
from bitfold.studies.wraps import partial_ranges

Inputs = Sequence[tf.Tensor | None]
# Of counts [widths, channels, 3] the sums that end outside.
_ENDS = 0


def watch(
    step: SummingStep, reference: SummingStep, inputs: Inputs, widths: Sequence[int]
) -> Watched:
    """Compute a layer, and look at the final sums that it would have at full width.

    The layer's own op does both at once. Where a layer is several ops one after the other its sums
    are at hand; where those of full width are others, they are computed beside.

    Args:
        step: the layer.
        reference: at full width, with the same shift; `step` itself where it is that.
        inputs: of the layer.
        widths: that the sums are compared with, 1 to 32.
    """
    found = step.watched(inputs, widths)
    if found is not None:
        return found
    if step is not reference:
        beside = watch(reference, reference, inputs, widths)
        return Watched(step.run(inputs), beside.extremes, beside.outside)
    if _are_whole(reference):
        sums = reference.sums(inputs)
        return Watched(reference.finish(sums), *_reached(sums, widths))
    extremes, counts, _ = reference.partial_sums(inputs, widths)
    return Watched(reference.run(inputs), extremes[:2], counts[:, :, _ENDS])


def _are_whole(reference: SummingStep) -> bool:
    """Return whether nothing wraps, so that sums of full width are whole numbers as they are."""
    if reference.products.is_wide:
        return True
    return all(bits_of(low, high) <= WIDEST for low, high in partial_ranges(reference))


def _reached(sums: tf.Tensor, widths: Sequence[int]) -> tuple[tf.Tensor, tf.Tensor]:
    """Return the extremes of each channel, and how many are outside of each width."""
    sums = tf.reshape(tf.cast(sums, tf.int64), [-1, sums.shape[-1]])
    extremes = tf.stack([tf.reduce_min(sums, 0), tf.reduce_max(sums, 0)])
    limits = tf.constant([1 << (width - 1) for width in widths], tf.int64)[:, None, None]
    is_outside = (sums < -limits) | (sums >= limits)
    return extremes, tf.math.count_nonzero(is_outside, axis=1)
