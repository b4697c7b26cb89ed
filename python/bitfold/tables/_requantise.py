# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Tables of the activation unit that requantise sums, a group for each channel."""

from __future__ import annotations

import functools
from dataclasses import dataclass
from typing import Any

import numpy as np

from bitfold import ops
from bitfold._frame.checks import require
from bitfold.tables._lines import FRACTION_BITS, LONGEST_SHIFT

_INT32 = np.iinfo(np.int32)
_FRACTION = 2**FRACTION_BITS
_STEPS_AT_A_TIME = 2048  # of the result, so that their sums stay in the caches


@dataclass(frozen=True, eq=False)
class RequantisationTable:
    """What `requantise` returns, with C channels.

    Attributes:
        x_points: int64 [C, 2], or [C, 0] where the clip alone limits the results.
        offsets: int64 [C, 3], or [C, 1].
        slopes_m: int64 [C, 3], or [C, 1].
        slopes_e: int64 [C, 3], or [C, 1].
        options: the other keyword arguments of ``bitfold.ops.activation``.
        multipliers: float64 [C], what sums are to be multiplied by.
        zero_point: what is to be added.
        output_range: the smallest and the largest result.
        sum_range: int64 [2, C], the smallest and the largest sum of each channel.
    """

    x_points: np.ndarray
    offsets: np.ndarray
    slopes_m: np.ndarray
    slopes_e: np.ndarray
    options: dict[str, int | bool]
    multipliers: np.ndarray
    zero_point: int
    output_range: tuple[int, int]
    sum_range: np.ndarray

    @property
    def keywords(self) -> dict[str, Any]:
        """Keyword arguments of ``bitfold.ops.activation``."""
        return {
            "x_points": self.x_points,
            "offsets": self.offsets,
            "slopes_m": self.slopes_m,
            "slopes_e": self.slopes_e,
            "size_splits": np.ones(self.multipliers.size, np.int64),
            **self.options,
        }

    def exact(self, sums: Any) -> np.ndarray:
        """Return what `sums` [..., C] become by the rule that the tables come near to, int64.

        The product is formed in double precision and rounded to the nearest whole number, ties to
        even.
        """
        products = np.rint(np.asarray(sums, np.float64) * self.multipliers)
        return np.clip(products + self.zero_point, *self.output_range).astype(np.int64)

    @functools.cached_property
    def max_difference(self) -> np.ndarray:
        """The largest difference between the unit and `exact` over `sum_range`, int64 [C].

        It is found on the unit when it is first asked for, in milliseconds for 8-bit results of
        hundreds of channels.
        """
        # Both results rise, or both fall, and between two steps of the exact one it stays the same:
        # there the unit's is furthest from it at an end.
        low, high = self.sum_range
        worst = self._differences(self.sum_range)
        first, last = (end - self.zero_point for end in self.output_range)
        start = np.where(self.multipliers >= 0, first, -last) + 1
        parts = list(range(0, last - first, _STEPS_AT_A_TIME))
        for done in parts[:1] + parts[:0:-1]:  # slopes err most at the ends
            if (worst >= self._bound()).all():
                break
            count = min(_STEPS_AT_A_TIME, last - first - done)
            steps = start + done + np.arange(count)[:, np.newaxis]
            sums = _smallest_sums(steps, np.abs(self.multipliers))
            ends = np.clip(np.concatenate([sums - 1, sums]), low, high)
            worst = np.maximum(worst, self._differences(ends))
        return worst

    def _bound(self) -> np.ndarray:
        """Return differences that none exceeds: those of the products, and one of rounding."""
        middle = self.slopes_m.shape[1] // 2
        exponents = self.slopes_e[:, middle] + FRACTION_BITS
        slopes = np.ldexp(self.slopes_m[:, middle].astype(np.float64), -exponents)
        reach = max(abs(end - self.zero_point) for end in self.output_range) + 1
        widest = np.abs(self.sum_range).max(axis=0)
        with np.errstate(divide="ignore"):
            least = np.minimum(np.abs(slopes), np.abs(self.multipliers))
            widest = np.minimum(widest, reach / least)  # beyond, both are at a limit
        return np.floor(widest * np.abs(slopes - self.multipliers) + 1 / _FRACTION) + 1

    def _differences(self, sums: np.ndarray) -> np.ndarray:
        """Return the largest difference of each channel over sums [n, C]."""
        results = ops.activation(sums[np.newaxis, np.newaxis], **self.keywords).numpy()[0, 0]
        return np.abs(results - self.exact(sums)).max(axis=0)


def requantise(
    multipliers: Any,
    *,
    zero_point: int = 0,
    output_range: tuple[int, int] = (-128, 127),
    sum_range: tuple[Any, Any] = (_INT32.min, _INT32.max),
    slope_bits: int = 16,
) -> RequantisationTable:
    """Build tables of the activation unit that requantise the sums of a layer.

    With them the unit comes as near as it can to

        limit(round(sum * multiplier) + zero_point),

    limited to `output_range`, which a fused activation narrows. Each channel is a group of its own.

    Derivation. A slope is m / 2^e with m of `slope_bits` bits, the nearest to the multiplier that
    the format holds: in magnitude at most 2^(slope_bits - 1) - 1 over 2^6, and at steps of 2^-40 at
    the finest. It acts on the sum itself, so the middle piece is round(m * sum / 2^e) + zero_point.
    It begins at the first sum for which this is within the limits and ends before the first for
    which it is beyond: outside the pieces are constants, the limits. Where these are [-c - 1, c]
    around the zero point, the clip does the same and there are no breakpoints. The mode is that of
    16-bit precision, since sums are wide.

    Error. The slope is wrong by at most 2^-(slope_bits - 1) of itself, and so is the product, whose
    magnitude is at most that of the widest result, less the zero point. From the product the unit
    cuts off what lies below six fraction bits, then rounds half to even: up to 1/64 above a tie a
    product is rounded as the tie. A result is therefore wrong by 1 where the product lies that
    close to a tie, and by more only where the slope's error is half a step and above:

    - 8-bit results: with 16-bit slopes by at most 1. Of evenly spread products that is 1 in 128,
      besides those that the slope moves over a tie, 1 in 256 or fewer.
    - 16-bit results: with 16-bit slopes by up to 2 of 65,536 steps, and one in six is wrong. With
      slopes of 24 bits and more it is as with 8-bit results.

    `RequantisationTable.max_difference` is the true number for the tables at hand.

    Args:
        multipliers: a real number for each channel, [C].
        zero_point: the result that stands for 0.
        output_range: the smallest and the largest result: those of the type, or of the activation
            that follows.
        sum_range: the smallest and the largest sum, numbers or arrays [C]: those of an accumulator,
            or what is proven of each channel. Within 32 bits, which are what the unit reads. Other
            sums are limited as well; the range is what `max_difference` holds for.
        slope_bits: the bits of a slope's mantissa, 2 to 32.

    Returns:
        A `RequantisationTable`.

    Raises:
        ValueError: for multipliers that are no vector of finite numbers, or too large for a slope;
            ranges that are empty or too wide.

    Example:
        >>> import bitfold, numpy as np
        >>> from bitfold import tables
        >>> table = tables.requantise([0.01, 0.02], zero_point=-10, sum_range=(-50000, 50000))
        >>> sums = np.array([[1000, 1000], [-20000, -2000]]).reshape(1, 1, 2, 2)
        >>> bitfold.ops.activation(sums, **table.keywords).numpy()[0, 0]
        array([[   0,   10],
               [-128,  -50]], dtype=int32)
        >>> table.max_difference
        array([1, 1])
    """
    numbers = np.asarray(multipliers, np.float64)
    require(numbers.ndim == 1, "Need multipliers of shape [C]", numbers.shape)
    require(bool(np.isfinite(numbers).all()), "Need finite multipliers", numbers)
    low, high = (int(end) for end in output_range)
    require(0 < high - low < 65536, "Need output_range to hold 2 to 65536 values", output_range)
    for name, value in (("zero_point", zero_point), ("output_range", low), ("output_range", high)):
        require(abs(value) < 65536, f"Need {name} within 65535 of 0", value)
    require(2 <= slope_bits <= 32, "Need slope_bits in [2, 32]", slope_bits)
    sums = _sum_range(sum_range, numbers.size)
    mantissas, exponents = _slopes(numbers, slope_bits)

    first, last = low - zero_point, high - zero_point
    by_clip = first == -last - 1
    largest = last if by_clip else 2 ** max(last, -first - 1, 0).bit_length() - 1
    line = (np.full(numbers.size, zero_point), mantissas, exponents - FRACTION_BITS)
    if by_clip:
        points, columns = np.zeros([numbers.size, 0]), [entry[:, np.newaxis] for entry in line]
    else:
        points, columns = _limited(line, exponents, (low, high), zero_point)
    options = {
        "ebias": FRACTION_BITS,
        "clip_bits": int(largest),
        "is_8bit_to_16bit_mode": False,
        "is_16bit_precision_mode": True,
        "is_velquin": False,
    }
    return RequantisationTable(
        *(np.asarray(table, np.int64) for table in (points, *columns)),
        options,
        numbers,
        int(zero_point),
        (low, high),
        sums,
    )


def _sum_range(sum_range: tuple[Any, Any], channels: int) -> np.ndarray:
    """Return the smallest and the largest sum of each channel."""
    ends = [np.asarray(end) for end in sum_range]
    fits = len(ends) == 2 and all(end.shape in ((), (channels,)) for end in ends)
    what = f"Need sum_range to be two whole numbers or two vectors of {channels}"
    require(fits and all(end.dtype.kind in "iu" for end in ends), what, sum_range)
    low, high = (np.broadcast_to(end, [channels]).astype(np.int64) for end in ends)
    holds = bool(((low >= _INT32.min) & (low <= high) & (high <= _INT32.max)).all())
    require(holds, "Need sum_range to rise within 32 bits", sum_range)
    return np.stack([low, high])


def _slopes(multipliers: np.ndarray, bits: int) -> tuple[np.ndarray, np.ndarray]:
    """Return (m, e) with m / 2^e nearest to each multiplier, m in `bits` bits."""
    _, magnitude = np.frexp(multipliers)
    exponents = np.clip(bits - 1 - magnitude, FRACTION_BITS, LONGEST_SHIFT).astype(np.int64)
    mantissas = np.rint(np.ldexp(multipliers, exponents))
    limit = 2 ** (bits - 1) - 1
    carried = (np.abs(mantissas) > limit) & (exponents > FRACTION_BITS)
    exponents = exponents - carried
    mantissas = np.rint(np.ldexp(multipliers, exponents))
    most = limit / _FRACTION
    too_large = np.abs(mantissas) > limit
    require(not too_large.any(), f"Need multipliers of at most {most}", multipliers[too_large])
    return mantissas.astype(np.int64), exponents


def _limited(
    line: tuple[np.ndarray, ...], exponents: np.ndarray, limits: tuple[int, int], zero_point: int
) -> tuple[np.ndarray, list[np.ndarray]]:
    """Return breakpoints [C, 2] and tables [C, 3] of a line between two constants."""
    offsets, mantissas, shifts = line
    low, high = limits
    rises = mantissas >= 0
    # Sums from which on a rising line is at or above its first limit, and above its second. A
    # falling line is the rising one of the negated sum, and comes to its limits in reverse.
    starts = np.stack(
        [
            np.where(rises, _first_at(low - zero_point, mantissas, exponents),
                     _first_below(high - zero_point + 1, mantissas, exponents)),
            np.where(rises, _first_at(high - zero_point + 1, mantissas, exponents),
                     _first_below(low - zero_point, mantissas, exponents)),
        ],
        axis=1,
    )  # fmt: skip
    zeros = np.zeros_like(mantissas)
    ends = [np.where(rises, low, high), np.where(rises, high, low)]
    # A breakpoint that no sum reaches stands at the last sum, and before it is what is behind it.
    never = starts > _INT32.max
    pieces = []
    for middle, first, last in (
        (offsets, *ends),
        (mantissas, zeros, zeros),
        (shifts, zeros, zeros),
    ):
        second = np.where(never[:, 0], first, middle)
        pieces.append(np.stack([first, second, np.where(never[:, 1], second, last)], axis=1))
    return np.clip(starts, _INT32.min, _INT32.max), pieces


def _first_at(value: int, mantissas: np.ndarray, exponents: np.ndarray) -> np.ndarray:
    """Return the smallest sum for which a rising line gives `value` or more.

    The unit rounds 1/64ths half to even: to `value` or more from 64 * value - 32 on, which is a tie
    and goes down where `value` is odd. Beyond 32 bits where there is none or all.
    """
    threshold = (_FRACTION * value - _FRACTION // 2 + value % 2) << (exponents - FRACTION_BITS)
    flat = np.where(threshold <= 0, _INT32.min, np.int64(2**31))
    slopes = np.maximum(mantissas, 1)
    return np.where(mantissas > 0, np.clip(-(-threshold // slopes), -(2**31), 2**31), flat)


def _first_below(value: int, mantissas: np.ndarray, exponents: np.ndarray) -> np.ndarray:
    """Return the smallest sum for which a falling line gives less than `value`."""
    threshold = (_FRACTION * value - _FRACTION // 2 + value % 2) << (exponents - FRACTION_BITS)
    # sum * m >= threshold up to threshold // m, the quotient of a negative m rounded down.
    return np.clip(threshold // np.minimum(mantissas, -1) + 1, -(2**31), 2**31)


def _smallest_sums(steps: np.ndarray, multipliers: np.ndarray) -> np.ndarray:
    """Return the smallest sums whose products round to `steps` or more, int64 [n, C]."""
    with np.errstate(divide="ignore", over="ignore"):
        guess = np.ceil((steps - 0.5) / multipliers)
    # The quotient is off by less than 1; beyond 32 bits it does not matter.
    sums = np.clip(guess, -(2.0**32), 2.0**32) - 1
    for _ in range(2):
        sums += np.rint(sums * multipliers) < steps
    return sums.astype(np.int64)
