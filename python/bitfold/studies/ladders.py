# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""How much narrower accumulators are guessed to hurt, before any of them is measured.

Guesses only sort what a search tries: they save evaluations, and decide nothing. Sums are taken for
normally distributed with the extremes that were seen four standard deviations out.
"""

from __future__ import annotations

import dataclasses
import itertools
import math
from collections.abc import Mapping, Sequence

from bitfold.studies.records import ChannelBits, LayerBits

# How many standard deviations the extremes of some 10,000 sums are out.
_DEVIATIONS = 4.0
# What a wrong sum is to the power of the right ones: it is off by the accumulator's whole range.
_WRONG = 16.0


@dataclasses.dataclass(frozen=True)
class Rung:
    """An accumulator's width, with what may be shifted there.

    Attributes:
        width: bits.
        shifts: those that go with it, the least hurtful by guess first.
        harms: with each of them: the error's power relative to that of the sums.
        saved: multiply-adds times the bits that are saved from the rung before, 0 on the first.
    """

    width: int
    shifts: tuple[int, ...]
    harms: tuple[float, ...]
    saved: int


# The widths of a layer to choose from, downwards.
Ladder = Sequence[Rung]


def ladder(
    layer: LayerBits,
    channels: Sequence[ChannelBits],
    widths: Sequence[int],
    harmless: Mapping[int, int],
    images: int,
    start: int,
    floors: Mapping[int, int],
) -> tuple[Rung, ...]:
    """Return the widths of a layer, from one downwards.

    Args:
        layer: its sums.
        channels: those of its channels; none where they are not known.
        widths: to choose from.
        harmless: by each shift to choose from, the width from which on no wrap on the way matters.
        images: that the layer's sums were counted over.
        start: the first rung is the least width that reaches this, or the greatest of all.
        floors: by each shift, the width below which it has no further rung.
    """
    extremes = [max(abs(c.smallest_sum), abs(c.largest_sum)) for c in channels]
    extremes = extremes or [1 << (layer.needed - 1)]
    power = sum((extreme / _DEVIATIONS) ** 2 for extreme in extremes) / len(extremes)
    addends = layer.multiply_adds * images / max(layer.sums, 1)
    first = min((w for w in widths if w >= start), default=max(widths))
    rungs: list[Rung] = []
    for width in sorted((w for w in widths if w <= first), reverse=True):
        harms = {}
        for shift, from_width in harmless.items():
            if rungs and width < floors[shift]:
                continue
            wrong = 1.0 if width < from_width else _wrong(layer, extremes, width + shift)
            # Each addend is off by up to half of 2^shift, evenly spread.
            rounding = addends * 4.0**shift / 12 / max(power, 1.0) if shift else 0.0
            harms[shift] = _WRONG * wrong + rounding
        if not harms:
            break
        order = tuple(sorted(harms, key=lambda shift: (harms[shift], shift)))
        saved = layer.multiply_adds * (rungs[-1].width - width) if rungs else 0
        rungs.append(Rung(width, order, tuple(harms[shift] for shift in order), saved))
    return tuple(rungs)


def _wrong(layer: LayerBits, extremes: Sequence[int], width: int) -> float:
    """Guess the share of sums that a width does not hold."""
    if width >= layer.needed:
        return 0.0
    return sum(_outside(extreme, width) for extreme in extremes) / len(extremes)


def _outside(extreme: int, width: int) -> float:
    """Return the share of normally distributed sums beyond a width."""
    if not extreme:
        return 0.0
    return math.erfc(_DEVIATIONS * 2.0 ** (width - 1) / extreme / math.sqrt(2))


def unshifted(rungs: Ladder) -> Ladder:
    """Return a ladder on which nothing is shifted."""
    return [
        dataclasses.replace(rung, shifts=(0,), harms=(rung.harms[rung.shifts.index(0)],))
        for rung in rungs
        if 0 in rung.shifts
    ]


def prices(rungs: Ladder) -> list[float]:
    """Return the harm of each step down a ladder for what it saves.

    No rung is reached but by those above it, so none is cheaper than these.
    """
    found, price = [], 0.0
    for upper, lower in itertools.pairwise(rungs):
        price = max(price, (lower.harms[0] - upper.harms[0]) / max(lower.saved, 1))
        found.append(price)
    return found


def by_price(ladders: Sequence[Ladder]) -> list[int]:
    """Return whose turn it is to go a rung down, the least harm for what it saves first.

    Args:
        ladders: of each layer.

    Returns:
        Indices of layers: each as often as its ladder has rungs below the first.
    """
    steps = [
        (price, index, depth)
        for index, rungs in enumerate(ladders)
        for depth, price in enumerate(prices(rungs))
    ]
    return [index for _, index, _ in sorted(steps)]
