# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Scales of weights with which no input can lead a partial sum out of an accumulator.

A channel's sum begins at zero, takes one addend for each weight and then the bias. Data less its
zero point lies in [low, high] with low <= 0 <= high, so that the addend of a weight q is at most
that of q * high or q * low, and at least the other; no order of addends leads beyond the sum of all
that are above zero, or below the sum of all that are below. Where both fit the accumulator, before
the bias and after it, nothing wraps, whatever the data is.

Rounding to nearest is monotone: stored weights round(w / s) and biases round(b / (data scale * s))
never grow in magnitude when the scale s does, and at some scale all of them are zero. So there is a
least scale at which a channel fits, and the quantiser needs no other rule than a larger scale.
Files and converters quantise alike at a given scale, which is why a network keeps the guarantee
outside of training.
"""

from __future__ import annotations

import dataclasses
import math

import tensorflow as tf

from bitfold.training import quantising

# The least and the greatest width that can be asked for, and the greatest shift: by 31 bits the
# accelerator rounds in another way.
_WIDTHS = (2, 32)
_LARGEST_SHIFT = 30
# The scale that fits is sought from an eighth of the estimate that rounds nothing, in steps of a
# hundredth or so, to eight times the estimate: rounding at most doubles a number, and the rounding
# of a shifted product doubles it once more.
_RANGE = 8.0
_STEPS = 256
# Weights are rounded at so many scales at once, few of them where a layer has many weights.
_TRIES = (3, 16)
_MOST_NUMBERS = 1 << 16


@dataclasses.dataclass(frozen=True, eq=False)
class Limits:
    """What a layer's sums must fit.

    Attributes:
        width: bits of the accumulator.
        low: the least stored input less its zero point, at most 0; a number or a scalar tensor.
        high: the greatest, at least 0.
        shift: by how many bits every addend is divided, halves to even.
        has_half_weights: whether the unit reads weights as numbers of half the accumulator's width,
            as those of depthwise layers.

    Raises:
        ValueError: for a width or a shift for which nothing can be proven.
    """

    width: int
    low: float | tf.Tensor
    high: float | tf.Tensor
    shift: int = 0
    has_half_weights: bool = False

    def __post_init__(self) -> None:
        """Check width and shift."""
        least, greatest = _WIDTHS
        if not least <= self.width <= greatest:
            raise ValueError(f"Need a proven width of {least} to {greatest}, got {self.width}")
        if not 0 <= self.shift <= _LARGEST_SHIFT:
            raise ValueError(
                f"Need a mult_shift of 0 to {_LARGEST_SHIFT} beside a proven width, "
                f"got {self.shift}"
            )

    @property
    def smallest(self) -> float:
        """The least number that the accumulator holds."""
        return -(2.0 ** (self.width - 1))

    @property
    def largest(self) -> float:
        """The greatest."""
        return 2.0 ** (self.width - 1) - 1

    @property
    def largest_weight(self) -> float:
        """The greatest weight that the unit reads as it is. Those below zero it always does."""
        if not self.has_half_weights:
            return quantising.LARGEST_WEIGHT
        return 2.0 ** (self.width // 2 - 1) - 1


def partial_sums_range(
    filter: tf.Tensor, bias: tf.Tensor | None, limits: Limits
) -> tuple[tf.Tensor, tf.Tensor]:
    """Return the least and the greatest partial sum that any input can give each channel.

    Args:
        filter: stored weights, whole numbers in float32 [..., outputs].
        bias: stored, whole numbers in float64 [outputs]; None without.
        limits: the data's, and the shift; the width does not matter.

    Returns:
        Whole numbers, float64 [outputs] both. Windows that lie in the image in part give less.

    Example:
        >>> limits = Limits(width=16, low=0, high=255)
        >>> filter, bias = tf.constant([[2.0], [-1.0]]), tf.constant([100.0], tf.float64)
        >>> least, greatest = partial_sums_range(filter, bias, limits)
        >>> least.numpy(), greatest.numpy()
        (array([-255.]), array([610.]))
    """
    return _range_over(list(range(filter.shape.rank - 1)), filter, bias, limits)


def _range_over(
    axes: list[int], filter: tf.Tensor, bias: tf.Tensor | None, limits: Limits
) -> tuple[tf.Tensor, tf.Tensor]:
    """Return the same of weights whose taps are some of the dimensions."""
    if limits.shift:
        # Products of 8 and 17 bits are exact in single precision, and so are their quotients.
        corners = [
            tf.round(filter * (tf.cast(data, tf.float32) / 2.0**limits.shift))
            for data in (limits.low, limits.high)
        ]
        greatest, least = (
            tf.reduce_sum(tf.cast(choose(*corners), tf.float64), axes)
            for choose in (tf.maximum, tf.minimum)
        )
    else:
        positive, negative = (
            tf.cast(tf.reduce_sum(tf.nn.relu(weights), axes), tf.float64)
            for weights in (filter, -filter)
        )
        low, high = (tf.cast(data, tf.float64) for data in (limits.low, limits.high))
        greatest = high * positive - low * negative
        least = low * positive - high * negative
    if bias is None:
        return least, greatest
    added = tf.round(tf.cast(bias, tf.float64) / 2.0**limits.shift)
    return least + tf.minimum(added, 0.0), greatest + tf.maximum(added, 0.0)


def bounded_largest(
    filter: tf.Tensor,
    bias: tf.Tensor | None,
    largest: tf.Tensor,
    data_scale: tf.Tensor | float,
    limits: Limits,
) -> tf.Tensor:
    """Return what to store as 127 so that no input leads a partial sum out of the accumulator.

    Args:
        filter: float64 [..., outputs], with what is folded into it.
        bias: float64 [outputs]; None without.
        largest: float32 [outputs], above 0: what would be stored as 127 if sums did not matter. It
            is returned where they do not.
        data_scale: of the layer's data.
        limits: what sums must fit.

    Returns:
        float32 [outputs], none less than before, and some hundredths greater than need be at most.
        They are constants to gradients.

    Example:
        >>> filter = tf.constant([[0.5], [0.5], [-0.25]], tf.float64)
        >>> largest = bounded_largest(filter, None, [0.5], 1.0, Limits(12, low=0, high=255))
        >>> scales = quantising.filter_scales(largest)
        >>> quantising.integer_filter(filter, scales).numpy().ravel()  # 255 * (4 + 4) < 2^11
        array([ 4.,  4., -2.], dtype=float32)
    """
    filter, largest = tf.convert_to_tensor(filter), tf.convert_to_tensor(largest, tf.float32)
    estimate = quantising.LARGEST_WEIGHT * _least_scales(filter, bias, data_scale, limits)
    low, high = tf.maximum(largest, estimate / _RANGE), tf.maximum(largest, estimate * _RANGE)
    # What fits already stays.
    (fits,) = tf.unstack(_fits(filter, bias, low[None], data_scale, limits))
    high = tf.where(fits, low, high)
    least, most = _TRIES
    count = min(max(_MOST_NUMBERS // max(filter.shape.num_elements(), 1), least), most)
    places = tf.range(1, count + 1, dtype=tf.float32)[:, None] / (count + 1)
    for _ in range(math.ceil(math.log(_STEPS, count + 1))):
        tried = low * (high / low) ** places
        fits = _fits(filter, bias, tried, data_scale, limits)
        fits = tf.pad(fits, [[0, 1], [0, 0]], constant_values=True)
        first = tf.argmax(fits, output_type=tf.int32)
        ends = tf.transpose(tf.concat([low[None], tried, high[None]], 0))
        low, high = (tf.gather(ends, first + i, batch_dims=1) for i in range(2))
    return tf.stop_gradient(high)


def excess_bits(filter: tf.Tensor, bias: tf.Tensor | None, limits: Limits) -> tf.Tensor:
    """Return by how many bits each channel's partial sums can leave the accumulator.

    A penalty: where they can, its gradient makes the magnitudes of weights and bias less.

    Args:
        filter: stored weights, whole numbers in float32 [..., outputs].
        bias: stored, whole numbers [outputs]; None without.
        limits: what sums must fit.

    Returns:
        float32 [outputs]; 0 where the accumulator holds all partial sums.

    Example:
        >>> filter = tf.constant([[-3.0], [-5.0], [2.0]])
        >>> excess_bits(filter, None, Limits(8, low=0, high=32)).numpy()  # down to -2^8
        array([1.], dtype=float32)
        >>> excess_bits(filter, None, Limits(9, low=0, high=32)).numpy()
        array([0.], dtype=float32)
    """
    least, greatest = partial_sums_range(filter, bias, limits)
    excess = tf.maximum(greatest / limits.largest, least / limits.smallest)
    return tf.cast(tf.math.log(tf.maximum(excess, 1.0)) / math.log(2), tf.float32)


def _least_scales(
    filter: tf.Tensor, bias: tf.Tensor | None, data_scale: tf.Tensor | float, limits: Limits
) -> tf.Tensor:
    """Return the scales at which sums would just fit if nothing were rounded, float32."""
    unshifted = dataclasses.replace(limits, shift=0)
    in_data = None
    if bias is not None:
        in_data = tf.cast(bias, tf.float64) / tf.cast(data_scale, tf.float64)
    least, greatest = partial_sums_range(filter, in_data, unshifted)
    sums = tf.maximum(greatest / limits.largest, least / limits.smallest)
    scales = tf.cast(sums / 2.0**limits.shift, tf.float32)
    if limits.has_half_weights:
        # Where the unit reads no number above zero as it is, all of them must round to zero.
        greatest_weight = tf.reduce_max(filter, list(range(filter.shape.rank - 1)))
        weights = greatest_weight / max(limits.largest_weight, 0.5)
        scales = tf.maximum(scales, tf.cast(weights, tf.float32))
    return scales


def _fits(
    filter: tf.Tensor,
    bias: tf.Tensor | None,
    largest: tf.Tensor,
    data_scale: tf.Tensor | float,
    limits: Limits,
) -> tf.Tensor:
    """Return whether sums fit with `largest` [tries, outputs], bool of that shape."""
    tries, outputs = largest.shape
    shape = [tries, *(1 for _ in filter.shape[:-1]), outputs]
    scales = quantising.filter_scales(largest)
    stored = quantising.integer_filter(filter, tf.reshape(scales, shape))
    added = None
    if bias is not None:
        units = tf.cast(data_scale, tf.float64) * tf.cast(scales, tf.float64)
        added = quantising.integer_bias(bias, units)
    taps = list(range(1, len(shape) - 1))
    least, greatest = _range_over(taps, stored, added, limits)
    fits = (least >= limits.smallest) & (greatest <= limits.largest)
    if limits.has_half_weights:
        fits &= tf.reduce_max(stored, taps) <= limits.largest_weight
    return fits
