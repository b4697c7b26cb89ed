# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The widths with which no input can give a wrong sum, from a layer's weights and bias alone.

A sum is right in an accumulator of w bits, however it wraps on the way, if the accumulator holds it
and no addend is above 2^w in magnitude (theorem 1 of docs/arithmetic.md). Both are known before the
data is: every product, shifted and rounded, is monotone in its data element, each sum meets an
element once, and what lies outside of the image adds nothing. So the extreme sums of an output are
those of data at the ends of its range, by the signs of the weights, over the taps that lie in the
image there.
"""

from __future__ import annotations

import dataclasses

import numpy as np

from bitfold.network.operators import Products, SummingStep, biases, scaled

# The widest accumulator.
WIDEST = 32


@dataclasses.dataclass(frozen=True, eq=False)
class Bounds:
    """Widths of a layer's accumulator with which sums are right. Wider ones are right, too.

    Attributes:
        bits: int [channels], the least widths for each channel; above `WIDEST` where none is
            proven.
        harmless_from: the least width at which every sum comes out right that the accumulator
            holds, for all channels: no addend is above 2^w there, and no weight is read with
            another sign.
        smallest_sums: the least sums that inputs can give, Python's integers, by channel.
        largest_sums: the greatest.
        products_from: the least width w at which no product is above 2^w. Below it one wrap does
            not bring a sum back, which so is no number of w bits.
    """

    bits: np.ndarray
    harmless_from: int
    smallest_sums: tuple[int, ...]
    largest_sums: tuple[int, ...]
    products_from: int = 0


def bits_of(smallest: int, largest: int) -> int:
    """Return the bits of a signed number that holds both.

    Example:
        >>> bits_of(-128, 127), bits_of(0, 128), bits_of(0, 0)
        (8, 9, 1)
    """
    return max(largest, -1 - smallest, 0).bit_length() + 1


def layer_bounds(step: SummingStep, low: int, high: int, shift: int = 0) -> Bounds:
    """Return the widths with which no stored input in a range can give a wrong sum.

    A sum is wrong where it differs from that of full width with the same shift. Full width is that
    of exact sums: 64 bits in layers of 16-bit data with a bias of 64 bits, else 32.

    The widths of a channel are the least with such a proof. One bit less gives a wrong sum for some
    input wherever the width is that of the extreme sums and above `Bounds.harmless_from`: these
    sums are reached, and a right one would be outside of the accumulator. Where a wider addend or
    the sign of a weight decides, sums may happen to be right.

    Args:
        step: an operator with an accumulator; its own arithmetic does not matter.
        low: the smallest stored element of the data. A second operand that is data, too, may be
            anything that its type holds.
        high: the largest.
        shift: by how many bits every addend is shifted right, 0 to 31.

    Returns:
        The widths.

    Raises:
        ValueError: for a range outside of the stored type, or a shift that no layer has.
    """
    limits = np.iinfo(step.data.dtype)
    if not limits.min <= low <= high <= limits.max:
        raise ValueError(f"Need {limits.min} <= low <= high <= {limits.max}, got {low} and {high}")
    if not 0 <= shift <= 31:
        raise ValueError(f"Need 0 <= shift <= 31, got {shift}")
    products = step.products
    zero_point = step.data.zero_point
    least, greatest = _addends(products, low - zero_point, high - zero_point, shift)
    smallest, largest = _sums(products, least).min(0), _sums(products, greatest).max(0)
    exact, added = biases(step, shift)
    smallest_sums = tuple(int(a) + int(b) for a, b in zip(smallest, exact, strict=True))
    largest_sums = tuple(int(a) + int(b) for a, b in zip(largest, exact, strict=True))
    harmless = _harmless(products, least, greatest, exact, added)
    bits = np.array(
        [
            max(bits_of(*extremes), right)
            for *extremes, right in zip(smallest_sums, largest_sums, harmless, strict=True)
        ]
    )
    if not products.is_wide:
        # Full width is an accumulator itself: where its sums wrap, those of 32 bits are the same.
        bits = np.minimum(bits, WIDEST)
    widest = int(np.maximum(-least, greatest)[products.met].max(initial=0))
    return Bounds(bits, max(harmless), smallest_sums, largest_sums, _exponent(widest))


def _addends(products: Products, low: int, high: int, shift: int) -> tuple[np.ndarray, np.ndarray]:
    """Return the least and the greatest addend of each weight; a product has them at corners."""
    corners = [scaled(products.least * data, shift) for data in (low, high)]
    if products.greatest is not products.least:
        corners += [scaled(products.greatest * data, shift) for data in (low, high)]
    return np.minimum.reduce(corners), np.maximum.reduce(corners)


def _sums(products: Products, addends: np.ndarray) -> np.ndarray:
    """Return the sums of addends over the taps that lie in the image, [ways, outputs]."""
    by_tap = addends.sum(axis=2)
    by_rows = by_tap
    if products.rows is not None:
        by_rows = np.tensordot(products.rows.astype(np.int64), by_tap, axes=1)
    columns = products.columns.astype(np.int64)
    return np.einsum("vw,rwo->rvo", columns, by_rows).reshape(-1, by_tap.shape[-1])


def _harmless(
    products: Products,
    least: np.ndarray,
    greatest: np.ndarray,
    exact: np.ndarray,
    added: np.ndarray,
) -> list[int]:
    """Return the widths from which on each channel's sums are right where they fit."""
    magnitudes = np.maximum(-least, greatest)[products.met].max(axis=(0, 1), initial=0)
    magnitudes = np.maximum(magnitudes, np.abs(added))
    widths = [_exponent(int(magnitude)) for magnitude in magnitudes]
    if products.has_half_weights:
        weights = products.greatest[products.met].max(axis=(0, 1), initial=0)
        widths = list(map(max, widths, (width_for_weight(int(weight)) for weight in weights)))
    # Another number in place of the bias: its low 32 bits, which are as good without a shift, or
    # with a shift a quotient of them, which is not.
    differs = (exact - added) & ((1 << WIDEST) - 1) != 0
    return [WIDEST + 1 if other else width for width, other in zip(widths, differs, strict=True)]


def _exponent(magnitude: int) -> int:
    """Return the least w >= 0 with magnitude <= 2^w."""
    return max(magnitude - 1, 0).bit_length()


def width_for_weight(weight: int) -> int:
    """Return the least width of an accumulator of whose half a weight is a signed number."""
    return 2 * (weight.bit_length() + 1) if weight > 0 else 0
