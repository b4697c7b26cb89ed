# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Lines with whole offsets and slopes of few bits, as the activation unit's pieces are."""

from __future__ import annotations

import math
from typing import NamedTuple

import numpy as np

# The unit keeps six fraction bits of a product, cuts off what lies below, and rounds.
FRACTION_BITS = 6
ROUNDING = 0.5 + 1 / 64
LONGEST_SHIFT = 40
_SAMPLES = 1024


class Piece(NamedTuple):
    """The line mantissa * x / 2^exponent + offset on the inputs from index `start` on."""

    start: int
    mantissa: int
    exponent: int
    offset: int

    def values(self, x: np.ndarray) -> np.ndarray:
        """Return the line without its offset."""
        return x * (self.mantissa / 2.0**self.exponent)


class Fit:
    """Lines with whole offsets and slopes of few bits along a function on whole numbers."""

    def __init__(
        self,
        x: np.ndarray,
        target: np.ndarray,
        limits: tuple[int, int],
        largest_mantissa: int,
        smallest_exponent: int,
    ) -> None:
        """Fit to `target` at `x`; results are to lie within `limits`."""
        self.x, self.target = x, target
        # A line that stays within these rounds into the limits.
        self.floor, self.ceiling = limits[0] - (1 - ROUNDING), limits[1] + (1 - ROUNDING)
        self.largest_mantissa, self.smallest_exponent = largest_mantissa, smallest_exponent
        self.steepest = largest_mantissa / 2.0**smallest_exponent

    def pieces(self, count: int) -> list[Piece]:
        """Return at most `count` pieces whose largest error is as small as it can be."""
        middle = round(float(self.target.min() + self.target.max()) / 2)
        best = [Piece(0, 0, self.smallest_exponent, middle)]  # whatever else fails
        low, high = 0.0, self.error(best)
        while high - low > max(0.002, 0.002 * high):
            middle = (low + high) / 2
            found = self._cover(middle, count)
            if found is None:
                low = middle
            else:
                best, high = found, middle
        return best

    def error(self, pieces: list[Piece]) -> float:
        """Return the largest distance of the lines from the function."""
        return max(
            float(np.abs(piece.values(self.x[span]) + piece.offset - self.target[span]).max())
            for piece, span in self._spans(pieces)
        )

    def largest_product(self, pieces: list[Piece]) -> float:
        """Return the largest magnitude before the offset."""
        return max(
            float(np.abs(piece.values(self.x[span])).max()) for piece, span in self._spans(pieces)
        )

    def _spans(self, pieces: list[Piece]) -> list[tuple[Piece, slice]]:
        ends = [piece.start for piece in pieces[1:]] + [self.x.size]
        return [(p, slice(p.start, end)) for p, end in zip(pieces, ends, strict=True)]

    def _cover(self, error: float, count: int) -> list[Piece] | None:
        """Cover all inputs with pieces within the error; None where they would be too many."""
        pieces: list[Piece] = []
        start = 0
        while start < self.x.size:
            if len(pieces) == count:
                return None
            piece, start = self._longest(start, error)
            if piece is None:
                return None
            pieces.append(piece)
        return pieces

    def _longest(self, start: int, error: float) -> tuple[Piece | None, int]:
        """Return the longest piece from an input on, and where the next one starts."""
        best, good, bad = None, start, self.x.size + 1
        step = 1
        while bad - good > 1:  # doubles the length, then halves what is between
            end = min(start + step, self.x.size) if bad > self.x.size else (good + bad) // 2
            piece = self._line(start, end, error)
            if piece is None:
                bad = end
            else:
                best, good = piece, end
                if end == self.x.size:
                    break
            step *= 2
        return best, good

    def _line(self, start: int, end: int, error: float) -> Piece | None:
        """Return a line within the error on inputs [start, end), or None."""
        index = np.arange(start, end)
        if index.size > 2 * _SAMPLES:
            index = np.unique(np.linspace(start, end - 1, _SAMPLES).astype(np.int64))
        x, target = self.x[index], self.target[index]
        low = np.maximum(target - error, self.floor)
        high = np.minimum(target + error, self.ceiling)
        # The room between the slopes is a concave function of the offset: climb, then bisect.
        offset, step = round(_best_offset(x, target)), 1
        below, above = -math.inf, math.inf
        while above - below > 1:
            least, most, direction = _slopes_between(x, low - offset, high - offset, self.steepest)
            short = self._shortest(least, most) if least <= most else None
            if short is not None:
                return Piece(start, *short, offset)
            if direction == 0:
                return None
            below, above = (offset, above) if direction > 0 else (below, offset)
            if math.isfinite(above - below):
                offset = (above + below) // 2
            else:
                offset += direction * step
                step *= 2
        return None

    def _shortest(self, low: float, high: float) -> tuple[int, int] | None:
        """Return (m, e) with m / 2^e in [low, high], near its middle; None where there is none."""
        if low <= 0 <= high:
            return 0, self.smallest_exponent
        middle = (low + high) / 2
        exponent = math.floor(math.log2(self.largest_mantissa / abs(middle)))
        exponent = min(exponent, LONGEST_SHIFT)
        mantissa = round(middle * 2.0**exponent)
        if exponent < self.smallest_exponent or not low <= mantissa / 2.0**exponent <= high:
            return None
        return mantissa, exponent


def _slopes_between(
    x: np.ndarray, low: np.ndarray, high: np.ndarray, steepest: float
) -> tuple[float, float, int]:
    """Return the range of slopes with low <= slope * x <= high everywhere, none above `steepest`.

    With it, whether the range widens as an offset that is subtracted from low and high grows (1) or
    falls (-1), or neither (0). An empty range has its first end above the second.
    """
    zero = x == 0
    if (low[zero] > 0).any():
        return math.inf, -math.inf, 1
    if (high[zero] < 0).any():
        return math.inf, -math.inf, -1
    x, low, high = x[~zero], low[~zero], high[~zero]
    if x.size == 0:
        return -steepest, steepest, 0
    least, most = np.where(x > 0, low, high) / x, np.where(x > 0, high, low) / x
    first, second = int(least.argmax()), int(most.argmin())
    rise = 1 / x[first] if least[first] > -steepest else 0.0
    rise -= 1 / x[second] if most[second] < steepest else 0.0
    return max(least[first], -steepest), min(most[second], steepest), int(np.sign(rise))


def _best_offset(x: np.ndarray, target: np.ndarray) -> float:
    """Return the offset of the real line with the smallest largest distance from the target.

    The width of the residual target - slope * x is a convex function of the slope, made of straight
    parts. Two of them, one falling and one rising, meet above or at the minimum's place; the part
    found there replaces the one of its direction.
    """
    if x.size == 1:
        return float(target[0])
    rise, run = target[-1] - target[0], x[-1] - x[0]
    falling, rising = (rise, -run), (-rise, run)  # width = first + second * slope
    slope = rise / run
    while True:
        residual = target - slope * x
        top, bottom = int(residual.argmax()), int(residual.argmin())
        width = residual[top] - residual[bottom]
        if width <= falling[0] + falling[1] * slope + 1e-9 * (1 + abs(width)):
            break
        part = (target[top] - target[bottom], x[bottom] - x[top])
        if part[1] == 0:
            break
        if part[1] < 0:
            falling = part
        else:
            rising = part
        slope = (falling[0] - rising[0]) / (rising[1] - falling[1])
    return float(residual[top] + residual[bottom]) / 2
