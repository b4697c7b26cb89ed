# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The partial sums of a layer at full width: what they reach, and which sums have left a width.

The op counts for all sums of a channel together. Which sum it was is found here addend by addend,
plainly: few arithmetics ask for that.
"""

from __future__ import annotations

import dataclasses
from collections.abc import Callable, Sequence

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.operators._prepared import Placement
from bitfold.network.operators._windows import Axis
from bitfold.ops._partial_sums import PartialSums

# Partial sums, and whether one of them until now was outside.
_State = tuple[tf.Tensor, tf.Tensor]


@dataclasses.dataclass(frozen=True, eq=False)
class Part:
    """Sums of a layer that are one convolution.

    Attributes:
        data: stored elements, int8 or int16 [N, H, W, inputs].
        zero_point: of the data.
        weights: [height, width, inputs, outputs]; depthwise [height, width, 1, outputs].
        bias: [outputs] or None.
    """

    data: tf.Tensor
    zero_point: int
    weights: np.ndarray
    bias: np.ndarray | None


def chosen(parts: Sequence[Part], channels: Sequence[int]) -> list[Part]:
    """Return what gives the sums of some channels alone, in rising order; not depthwise."""
    found, first = [], 0
    for part in parts:
        count = part.weights.shape[3]
        own = [c - first for c in channels if first <= c < first + count]
        first += count
        if own:
            bias = None if part.bias is None else part.bias.reshape(-1)[own]
            found.append(dataclasses.replace(part, weights=part.weights[..., own], bias=bias))
    return found


def of_channels(
    sums: Callable[[tf.Tensor | None], PartialSums],
    count: int,
    known_extremes: tf.Tensor | None,
    channels: Sequence[int],
) -> PartialSums:
    """Return what the partial sums of some channels reach where it costs less to sum all.

    Images without the other channels, whose numbers lie one by one, take several times as long to
    make as the sums of all.

    Args:
        sums: returns what all channels reach, of their known extremes.
        count: of all channels.
        known_extremes: int64 [4, channels] of those asked for, or None.
        channels: in rising order.
    """
    if len(channels) == count:
        return sums(known_extremes)
    if known_extremes is not None:
        # Of the others whatever is known will do.
        columns = np.searchsorted(channels, range(count)).clip(max=len(channels) - 1)
        known_extremes = tf.gather(known_extremes, columns, axis=1)
    return PartialSums(*(tf.gather(table, channels, axis=1) for table in sums(known_extremes)))


def partial_sums(
    parts: Sequence[Part],
    placement: Placement,
    mult_shift: int,
    accumulator_sizes: Sequence[int],
    known_extremes: tf.Tensor | None,
) -> PartialSums:
    """Return what the partial sums of all parts reach, channels side by side."""
    found, first = [], 0
    for part in parts:
        channels = part.weights.shape[3]
        known = None
        if known_extremes is not None:
            known = known_extremes[:, first : first + channels]
        found.append(
            ops.partial_sums(
                part.data,
                part.weights,
                part.bias,
                strides=placement.strides,
                dilations=placement.dilations,
                padding=placement.padding,
                zeros=placement.zeros,
                depthwise=placement.depthwise,
                input_zero_point=part.zero_point,
                mult_shift=mult_shift,
                accumulator_sizes=accumulator_sizes,
                known_extremes=known,
            )
        )
        first += channels
    if len(found) == 1:
        return found[0]
    return type(found[0])(*(tf.concat(same, 1) for same in zip(*found, strict=True)))


def was_outside(
    parts: Sequence[Part], placement: Placement, mult_shift: int, accumulator_size: int
) -> tf.Tensor:
    """Return whether some partial sum was outside of an accumulator, bool [N, H', W', outputs]."""
    chain = Chain(mult_shift, accumulator_size)
    return tf.concat([_of_part(part, placement, chain) for part in parts], 3)


class Chain:
    """Adds addends up, and looks whether the sum is outside of an accumulator."""

    def __init__(self, mult_shift: int, accumulator_size: int) -> None:
        """Take the shift of every addend and the bits of the accumulator."""
        self._shift = mult_shift
        self._limit = 1 << (accumulator_size - 1)

    def start(self, shape: tf.Tensor) -> _State:
        """Return sums of no addends."""
        return tf.zeros(shape, tf.int64), tf.zeros(shape, tf.bool)

    def add(self, state: _State, addend: tf.Tensor) -> _State:
        """Add a number, int64, to each sum."""
        sums, is_outside = state
        sums += self._scaled(addend)
        return sums, is_outside | (sums < -self._limit) | (sums >= self._limit)

    def add_all(self, state: _State, addends: Callable[[tf.Tensor], list], count: int) -> _State:
        """Add the lists of numbers that a function of 0 to count - 1 gives."""

        def add(i: tf.Tensor, *state: tf.Tensor) -> tuple[tf.Tensor, ...]:
            for addend in addends(i):
                state = self.add(state, addend)
            return (i + 1, *state)

        return tf.while_loop(lambda i, *_: i < count, add, (0, *state), parallel_iterations=1)[1:]

    def _scaled(self, addend: tf.Tensor) -> tf.Tensor:
        """Return a number divided by 2^shift, halves to even."""
        if not self._shift:
            return addend
        shifted = tf.bitwise.right_shift
        below_half = (1 << (self._shift - 1)) - 1
        odd = tf.bitwise.bitwise_and(shifted(addend, np.int64(self._shift)), np.int64(1))
        return shifted(addend + below_half + odd, np.int64(self._shift))


def _of_part(part: Part, placement: Placement, chain: Chain) -> tf.Tensor:
    """Return which sums of a convolution were outside."""
    weights = part.weights.astype(np.int64)
    height, width, inputs, outputs = weights.shape
    images, axes = _padded(part, placement)
    shape = [tf.shape(images)[0], axes[0].outputs, axes[1].outputs, outputs]
    state = chain.start(shape)
    for row in range(height):
        taps = [_tap(images, axes, row, column) for column in range(width)]
        if placement.depthwise:
            for tap, weight in zip(taps, weights[row], strict=True):
                state = chain.add(state, tap * weight[0])
            continue

        def products(i: tf.Tensor, row: int = row, taps: list = taps) -> list[tf.Tensor]:
            of_input = tf.gather(tf.constant(weights[row]), i, axis=1)
            return [tap[..., i, None] * of_input[k] for k, tap in enumerate(taps)]

        state = chain.add_all(state, products, inputs)
    if part.bias is not None:
        state = chain.add(state, tf.constant(part.bias.reshape(-1).astype(np.int64)))
    return state[1]


def _padded(part: Part, placement: Placement) -> tuple[tf.Tensor, tuple[Axis, Axis]]:
    """Return numbers with all zeros that windows meet, int64, and where the windows lie in them."""
    numbers = tf.cast(part.data, tf.int64) - part.zero_point
    top, bottom, left, right = placement.zeros
    numbers = tf.pad(numbers, [[0, 0], [top, bottom], [left, right], [0, 0]])
    axes = [
        Axis(size, window, stride, dilation, placement.padding == "SAME")
        for size, window, stride, dilation in zip(
            numbers.shape[1:3], part.weights.shape, placement.strides, placement.dilations,
            strict=False,
        )
    ]  # fmt: skip
    paddings = [[0, 0], *(list(axis.padding) for axis in axes), [0, 0]]
    return tf.pad(numbers, paddings), (axes[0], axes[1])


def _tap(images: tf.Tensor, axes: tuple[Axis, Axis], row: int, column: int) -> tf.Tensor:
    """Return what a tap of the windows meets."""
    rows, columns = (
        slice(tap * axis.dilation, tap * axis.dilation + (axis.outputs - 1) * axis.stride + 1,
              axis.stride)
        for tap, axis in zip((row, column), axes, strict=True)
    )  # fmt: skip
    return images[:, rows, columns]
