# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The data of a study, shard by shard."""

from __future__ import annotations

import dataclasses
import hashlib
import itertools
from collections.abc import Iterator
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.network import evaluation

# Into how many shards arrays are split, where there are as many batches.
_SHARDS = 32
# How many batches of a dataset, whose length is not known, are a shard: they are kept meanwhile.
_DATASET_BATCHES = 8


@dataclasses.dataclass(frozen=True, eq=False)
class Shard:
    """A part of the data.

    Attributes:
        index: its place.
        batches: pairs of images and labels; labels None where there are none.
        first: how many images lie before it.
    """

    index: int
    batches: list[tuple[Any, Any]]
    first: int = 0

    @property
    def images(self) -> int:
        """How many images it holds."""
        return sum(count_of(images) for images, _ in self.batches)

    def digest(self) -> str:
        """Return what tells these data from others."""
        found = hashlib.blake2b(digest_size=16)
        for value in tf.nest.flatten(self.batches):
            if value is None:
                found.update(b"none")
                continue
            array = np.ascontiguousarray(value)
            found.update(f"{array.dtype} {array.shape} ".encode())
            found.update(array.data if array.size else b"")
        return found.hexdigest()


class Data:
    """Images, and labels where there are any.

    Attributes:
        images: how many; None where that is not known beforehand.
        is_indexed: whether any shard is at hand at any time.
        batch_size: images at once, of arrays.
    """

    def __init__(self, x: Any, y: Any, batch_size: int) -> None:
        """Take what `Network.evaluate` takes, or images alone."""
        self._x, self._y, self.batch_size = x, y, batch_size
        self.images = evaluation.count_images(x)
        self.is_indexed = self.images is not None
        if y is not None:
            if not self.is_indexed:
                raise ValueError("Need y=None with a dataset, whose elements are pairs (x, y)")
            if len(y) != self.images:
                raise ValueError(f"Need a label for each image, got {len(y)} for {self.images}")

    @property
    def has_labels(self) -> bool:
        """Whether there are labels."""
        if self.is_indexed:
            return self._y is not None
        element = self._x.element_spec
        return isinstance(element, tuple) and len(element) > 1

    def shards(self) -> Iterator[Shard]:
        """Yield the data in shards, always the same ones of arrays."""
        size = _DATASET_BATCHES
        if self.is_indexed:
            size = max(1, -(-self.images // (self.batch_size * _SHARDS)))
        batches, first = self.batches(), 0
        for index in itertools.count():
            part = list(itertools.islice(batches, size))
            if not part:
                return
            shard = Shard(index, part, first)
            first += shard.images
            yield shard

    def batches(self) -> Iterator[tuple[Any, Any]]:
        """Yield pairs of images and labels; labels None where there are none."""
        if self.is_indexed and self._y is None:
            yield from ((images, None) for images in evaluation.batches(self._x, self.batch_size))
        elif self.has_labels:
            yield from evaluation.pairs(self._x, self._y, self.batch_size)
        else:
            for element in self._x:
                yield (element[0] if isinstance(element, tuple) else element), None


def count_of(images: Any) -> int:
    """Return how many images a batch holds."""
    return len(tf.nest.flatten(images)[0])
