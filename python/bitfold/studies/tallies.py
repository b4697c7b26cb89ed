# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What was counted over a part of the data: integers that add up, in any order."""

from __future__ import annotations

import dataclasses
from collections import Counter
from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np

from bitfold.network.shards.metrics import State
from bitfold.studies.records import Counts

# Of extremes [least final, greatest final, least partial, greatest partial] before any sum.
_LIMITS = np.iinfo(np.int64)
_NONE = np.array([[_LIMITS.max], [_LIMITS.min], [_LIMITS.max], [_LIMITS.min]], np.int64)


@dataclasses.dataclass(frozen=True, eq=False)
class LayerTally:
    """What was counted of a layer.

    Attributes:
        sums: how many there were.
        counts: by a name of the arithmetic of the sums; what is left out had none of all.
        extremes: int64 [4, channels], the least and greatest final and partial sums; None where
            nobody looked.
        data_range: the least and greatest stored input; None where nobody looked.
        looked: of how many of the sums partial sums were looked at.
    """

    sums: int = 0
    counts: Mapping[str, Counts] = dataclasses.field(default_factory=dict)
    extremes: np.ndarray | None = None
    data_range: tuple[int, int] | None = None
    looked: int = 0

    @property
    def looked_at(self) -> int | None:
        """The same as records have it: None where it is all."""
        return None if self.looked == self.sums else self.looked

    def of_sample(self) -> LayerTally:
        """Return what this is to a tally of more images, these among them."""
        counts = {name: value.of_sample() for name, value in self.counts.items()}
        return dataclasses.replace(self, sums=0, counts=counts)

    def __add__(self, other: LayerTally) -> LayerTally:
        """Return what was counted of both."""
        counts = dict(self.counts)
        for name, value in other.counts.items():
            counts[name] = counts[name] + value if name in counts else value
        return LayerTally(
            self.sums + other.sums,
            counts,
            _joined(self.extremes, other.extremes),
            _joined_ranges(self.data_range, other.data_range),
            self.looked + other.looked,
        )

    def to_json(self) -> dict[str, Any]:
        """Return plain values."""
        return {
            "sums": self.sums,
            "counts": {name: dataclasses.astuple(value) for name, value in self.counts.items()},
            "extremes": None if self.extremes is None else self.extremes.tolist(),
            "data_range": self.data_range,
            "looked": self.looked,
        }

    @classmethod
    def from_json(cls, values: Mapping[str, Any]) -> LayerTally:
        """Make it from what `to_json` gave."""
        extremes, data_range = values["extremes"], values["data_range"]
        return cls(
            int(values["sums"]),
            {name: _counts(value) for name, value in values["counts"].items()},
            None if extremes is None else np.array(extremes, np.int64).reshape(4, -1),
            None if data_range is None else (int(data_range[0]), int(data_range[1])),
            int(values["looked"]),
        )


@dataclasses.dataclass(frozen=True, eq=False)
class Tally:
    """What was counted of a network in a setting.

    Attributes:
        images: how many were seen.
        layers: by the position of the operator.
        states: of the metric, by shard.
        lines: that float sums outside of 24 bits would have printed, by the name of the layer.
        seconds: what it took.
        looked: of how many of the images partial sums were looked at.
    """

    images: int = 0
    layers: Mapping[int, LayerTally] = dataclasses.field(default_factory=dict)
    states: Mapping[int, State] = dataclasses.field(default_factory=dict)
    lines: Mapping[str, int] = dataclasses.field(default_factory=dict)
    seconds: float = 0.0
    looked: int = 0

    def __add__(self, other: Tally) -> Tally:
        """Return what was counted in both, of different shards."""
        layers = dict(self.layers)
        for position, value in other.layers.items():
            layers[position] = layers.get(position, LayerTally()) + value
        return Tally(
            self.images + other.images,
            layers,
            {**self.states, **other.states},
            dict(Counter(self.lines) + Counter(other.lines)),
            self.seconds + other.seconds,
            self.looked + other.looked,
        )

    def to_json(self) -> dict[str, Any]:
        """Return plain values: every number as it is."""
        return {
            "images": self.images,
            "layers": {str(place): layer.to_json() for place, layer in self.layers.items()},
            "states": {
                str(shard): [[value.dtype.name, list(value.shape), value.ravel().tolist()]
                             for value in state]
                for shard, state in self.states.items()
            },
            "lines": dict(self.lines),
            "seconds": self.seconds,
            "looked": self.looked,
        }  # fmt: skip

    @classmethod
    def from_json(cls, values: Mapping[str, Any]) -> Tally:
        """Make it from what `to_json` gave."""
        return cls(
            int(values["images"]),
            {int(place): LayerTally.from_json(layer) for place, layer in values["layers"].items()},
            {
                int(shard): [
                    np.array(numbers, np.dtype(dtype)).reshape(shape)
                    for dtype, shape, numbers in state
                ]
                for shard, state in values["states"].items()
            },
            {str(name): int(count) for name, count in values["lines"].items()},
            float(values["seconds"]),
            int(values["looked"]),
        )


def _counts(values: Sequence[int | None]) -> Counts:
    """Return counts of the list of their fields."""
    *counts, looked_at = values
    return Counts(*map(int, counts), None if looked_at is None else int(looked_at))


def no_extremes(channels: int) -> np.ndarray:
    """Return the extremes of no sums, int64 [4, channels]."""
    return np.repeat(_NONE, channels, 1)


def within_bits(extremes: np.ndarray) -> np.ndarray:
    """Return extremes of which those of partial sums span all that as many bits hold.

    Args:
        extremes: int64 [4, channels], as `bitfold.ops.partial_sums` gives them.

    Example:
        >>> within_bits(np.array([[-3], [90], [-5], [100]]))[:, 0].tolist()
        [-3, 90, -128, 127]
    """
    least, greatest = extremes[2:]
    span = np.maximum(greatest, -1 - least)
    for shift in (1, 2, 4, 8, 16, 32):
        span |= span >> shift
    seen = least <= greatest  # else of no sums
    result = extremes.copy()
    result[2], result[3] = np.where(seen, -1 - span, least), np.where(seen, span, greatest)
    return result


def _joined(one: np.ndarray | None, other: np.ndarray | None) -> np.ndarray | None:
    """Return the extremes of both."""
    if one is None or other is None:
        return other if one is None else one
    return np.stack([
        np.minimum(one[0], other[0]), np.maximum(one[1], other[1]),
        np.minimum(one[2], other[2]), np.maximum(one[3], other[3]),
    ])  # fmt: skip


def _joined_ranges(
    one: tuple[int, int] | None, other: tuple[int, int] | None
) -> tuple[int, int] | None:
    if one is None or other is None:
        return other if one is None else one
    return min(one[0], other[0]), max(one[1], other[1])
