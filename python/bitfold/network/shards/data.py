# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Data in shards, each of which can be read by itself, wherever it is computed.

Where a shard begins and ends depends on the data alone, so that whatever is counted by shard is the
same however and wherever the shards are computed.
"""

from __future__ import annotations

import dataclasses
import itertools
import math
from collections.abc import Iterable, Iterator
from typing import Any

import tensorflow as tf

from bitfold.network import evaluation
from bitfold.network.shards.arrays import Arrays
from bitfold.network.shards.source import Part, Source, digest_of

# Into how many shards arrays are split as far as a shard stays within these images and bytes:
# enough of them that sending one costs little beside its work, few enough to be held and sent at
# once.
_SHARDS = 32
_FEWEST_IMAGES = 1024
_MOST_BYTES = 8 << 20
# Into how many what is read batch by batch, so that a shard may be large: enough for hundreds of
# workers, few enough that a scheduler bears them for hundreds of settings.
_READ_SHARDS = 256
# How many batches of a dataset, whose length is not known, are a shard: they are kept meanwhile.
_DATASET_BATCHES = 8


@dataclasses.dataclass(frozen=True, eq=False)
class Shard:
    """A part of the data.

    Attributes:
        index: its place.
        batches: pairs of images and labels; labels None where there are none. They may be read anew
            each time that they are gone through.
        first: how many images lie before it.
    """

    index: int
    batches: Iterable[tuple[Any, Any]]
    first: int = 0

    @property
    def images(self) -> int:
        """How many images it holds."""
        return sum(count_of(images) for images, _ in self.batches)

    def digest(self) -> str:
        """Return what tells these data from others."""
        return digest_of(list(self.batches))

    def load(self) -> Shard:
        """Return this: it is read already."""
        return self


@dataclasses.dataclass(frozen=True, eq=False)
class _Batches:
    """Batches that are read when they are asked for."""

    source: Source
    batch_size: int

    def __iter__(self) -> Iterator[tuple[Any, Any]]:
        """Read them."""
        return evaluation.read(self.source, self.batch_size)


@dataclasses.dataclass(frozen=True, eq=False)
class ShardReference:
    """A shard that is yet to be read, in this process or in another.

    Attributes:
        index: its place.
        part: its images.
        batch_size: how many of them are computed at once.
        first: how many images lie before it.
    """

    index: int
    part: Part
    batch_size: int
    first: int = 0

    @property
    def images(self) -> int:
        """How many images it has."""
        return self.part.images

    def digest(self) -> str:
        """Return what tells its data from others."""
        return self.part.digest()

    def load(self) -> Shard:
        """Read the shard, or let it be read batch by batch where that can be done."""
        if isinstance(self.part, Source):
            return Shard(self.index, _Batches(self.part, self.batch_size), self.first)
        return Shard(self.index, list(_pairs(*self.part.read(), self.batch_size)), self.first)


class Data:
    """Images, and labels where there are any.

    Attributes:
        images: how many; None where that is not known beforehand.
        is_indexed: whether any shard is at hand at any time.
        has_labels: whether there are labels.
        shard_size: how many images are a shard; None where that is not known beforehand.
        batch_size: images at once, of arrays.
    """

    def __init__(
        self, x: Any, y: Any, batch_size: int, *, shard_size: int | None = None, rows: int = 1
    ) -> None:
        """Take what `Network.evaluate` takes, or images alone.

        Args:
            x: images.
            y: labels, or None.
            batch_size: images at once.
            shard_size: how many images are a shard; by default what suits the data.
            rows: that belong together, so that no shard ends between them.

        Raises:
            ValueError: for labels that do not fit, and a shard size below 1.
        """
        if shard_size is not None and shard_size < 1:
            raise ValueError(f"Need shard_size >= 1, got {shard_size}")
        self._x, self._y, self.batch_size = x, y, batch_size
        self.is_indexed = not isinstance(x, tf.data.Dataset)
        self.images = self.shard_size = None
        if self.is_indexed:
            self._source = _with_labels(x, y) if isinstance(x, Source) else Arrays(x, y)
            self.images, self.has_labels = self._source.images, self._source.has_labels
            size = shard_size or _shard_size(self._source)
            self.shard_size = math.ceil(size / rows) * rows
        elif y is not None:
            raise ValueError("Need y=None with a dataset, whose elements are pairs (x, y)")
        else:
            element = x.element_spec
            self.has_labels = isinstance(element, tuple) and len(element) > 1

    def references(self) -> list[ShardReference]:
        """Return all shards in their order, none of them read.

        Raises:
            ValueError: for a dataset, which is read from its beginning to its end.
        """
        if not self.is_indexed:
            raise ValueError(
                "Need arrays or files for an executor, got a tf.data.Dataset, of which no part can "
                "be read by itself"
            )
        starts = range(0, self.images, self.shard_size)
        return [
            ShardReference(
                index,
                self._source.part(first, min(first + self.shard_size, self.images)),
                self.batch_size,
                first,
            )
            for index, first in enumerate(starts)
        ]

    def shards(self) -> Iterator[Shard]:
        """Yield the data in shards, always the same ones but of a dataset that is shuffled."""
        if self.is_indexed:
            yield from (reference.load() for reference in self.references())
            return
        batches, first = self.batches(), 0
        for index in itertools.count():
            part = list(itertools.islice(batches, _DATASET_BATCHES))
            if not part:
                return
            shard = Shard(index, part, first)
            first += shard.images
            yield shard

    def batches(self) -> Iterator[tuple[Any, Any]]:
        """Yield pairs of images and labels; labels None where there are none."""
        if self.is_indexed:
            yield from (batch for shard in self.shards() for batch in shard.batches)
        elif self.has_labels:
            yield from evaluation.pairs(self._x, None, self.batch_size)
        else:
            for element in self._x:
                yield (element[0] if isinstance(element, tuple) else element), None


def count_of(images: Any) -> int:
    """Return how many images a batch holds."""
    return len(tf.nest.flatten(images)[0])


def _pairs(x: Any, y: Any, batch_size: int) -> Iterator[tuple[Any, Any]]:
    """Yield batches of images with labels, where there are any."""
    if y is None:
        yield from ((images, None) for images in evaluation.batches(x, batch_size))
    else:
        yield from evaluation.pairs(x, y, batch_size)


def _shard_size(source: Source) -> int:
    """Return how many images are a shard, if nobody says."""
    if not isinstance(source, Arrays):
        return max(math.ceil(source.images / _READ_SHARDS), _FEWEST_IMAGES)
    size = max(math.ceil(source.images / _SHARDS), _FEWEST_IMAGES)
    return max(1, min(size, _MOST_BYTES // max(source.image_bytes, 1)))


def _with_labels(source: Source, y: Any) -> Source:
    if y is not None:
        raise ValueError("Need y=None with data that have their own labels")
    return source
