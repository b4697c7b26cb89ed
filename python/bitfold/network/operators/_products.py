# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What a step's sums are sums of, as far as it is known before the data is."""

from __future__ import annotations

import dataclasses

import numpy as np

from bitfold.network.operators._accumulator import narrowed, shifted
from bitfold.network.operators._step import SummingStep
from bitfold.network.operators._windows import Axis


@dataclasses.dataclass(frozen=True, eq=False)
class Products:
    """The products of a sum, for each output channel.

    A sum adds up, for each tap of a window that lies in the image and each input channel, a data
    element less its zero point times a weight. Each data element is met once by a sum, so that all
    products of a sum can be at their extremes together.

    Attributes:
        least: int64 [rows, columns, inputs, outputs], the weights or, of a second operand that is
            data, the least that its elements can be, less the zero point.
        greatest: the same with the greatest; the same array where weights are stored.
        rows: bool [ways, rows], the rows of a window that lie in the image, each way once that an
            output has; None where each row is a way of its own. Outputs have every way of rows with
            every way of columns.
        columns: bool [ways, columns], the same for columns.
        is_wide: whether exact sums are those of 64 bits.
        has_half_weights: whether the accelerator reads the weights as numbers of half the
            accumulator's width.
    """

    least: np.ndarray
    greatest: np.ndarray
    rows: np.ndarray | None
    columns: np.ndarray
    is_wide: bool
    has_half_weights: bool = False

    @classmethod
    def of_stored(
        cls,
        weights: np.ndarray,
        *,
        is_wide: bool,
        rows: np.ndarray | None = None,
        columns: np.ndarray | None = None,
        has_half_weights: bool = False,
    ) -> Products:
        """Make those of stored weights [rows, columns, inputs, outputs]; all are met by default."""
        weights = weights.astype(np.int64)
        height, width = weights.shape[:2]
        rows = np.ones((1, height), bool) if rows is None else rows
        columns = np.ones((1, width), bool) if columns is None else columns
        return cls(weights, weights, rows, columns, is_wide, has_half_weights)

    @property
    def met(self) -> np.ndarray:
        """Which taps any output meets, bool [rows, columns]."""
        rows = np.ones(len(self.least), bool) if self.rows is None else self.rows.any(0)
        return rows[:, None] & self.columns.any(0)


def met_by_windows(axis: Axis) -> np.ndarray:
    """Return which taps of windows lie in the image, bool [ways, taps]."""
    # The taps of a window that do are neighbours.
    first = np.arange(axis.outputs) * axis.stride - axis.padding[0]
    begins = np.maximum(-(first // axis.dilation), 0)
    ends = np.minimum(-((first - axis.size) // axis.dilation), axis.window)
    pairs = np.unique(np.stack([begins, np.maximum(begins, ends)], 1), axis=0)
    taps = np.arange(axis.window)
    return np.unique((pairs[:, :1] <= taps) & (taps < pairs[:, 1:]), axis=0)


def met_by_spread(axis: Axis, size: int) -> np.ndarray:
    """Return which taps meet a pixel of data that is spread a stride apart, bool [ways, taps].

    Args:
        axis: the windows that would lie in the output if it were convolved to the data.
        size: of the data.
    """
    first = axis.window - 1 - axis.padding[0]
    # The last output whose window lies before the end of the spread data. Between both ends ways
    # come again with every stride.
    last = size * axis.stride + first - axis.window
    ends = [np.arange(axis.window + axis.stride), np.arange(last, last + axis.window + 2)]
    outputs = np.unique(np.concatenate(ends))
    outputs = outputs[(outputs >= 0) & (outputs < axis.size)]
    places = outputs[:, None] + np.arange(axis.window) - first
    is_pixel = (places >= 0) & (places % axis.stride == 0) & (places < size * axis.stride)
    return np.unique(is_pixel, axis=0)


def scaled(products: np.ndarray, shift: int) -> np.ndarray:
    """Return int64 numbers within 32 bits as an accumulator adds them, shifted right and rounded.

    Halves go to even. By 31 bits the accelerator rounds no negative number, and a half up
    (rule S1 of docs/arithmetic.md).
    """
    if not shift:
        return products
    quotients, rests = products >> shift, products & ((1 << shift) - 1)
    half = 1 << (shift - 1)
    if shift == 31:
        return quotients + (products >= half)
    return quotients + ((rests > half) | ((rests == half) & (quotients & 1 == 1)))


def biases(step: SummingStep, shift: int) -> tuple[np.ndarray, np.ndarray]:
    """Return a layer's bias as full width and as an accumulator adds it, int64 [outputs].

    An accumulator takes the low 32 bits of a wide one.
    """
    products = step.products
    if step.bias_tensor is None:
        nothing = np.zeros(products.least.shape[-1], np.int64)
        return nothing, nothing
    stored = step.bias_tensor.data.reshape(-1).astype(np.int64)
    added = scaled(narrowed(stored).astype(np.int64), shift)
    return (shifted(stored, shift) if products.is_wide else added), added
