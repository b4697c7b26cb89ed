# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Arrays in memory as data."""

from __future__ import annotations

import dataclasses
import math
from collections.abc import Mapping
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.network import evaluation
from bitfold.network.shards.source import Part, Source, digest_of


class Arrays(Source):
    """Arrays in memory, or what is sliced like them."""

    def __init__(self, x: Any, y: Any) -> None:
        """Take images, an array or several, and labels or None."""
        self.images = evaluation.count_images(x)
        if y is not None and len(y) != self.images:
            raise ValueError(f"Need a label for each image, got {len(y)} for {self.images}")
        self._x, self._y = x, y
        self.image_bytes = sum(map(_image_bytes, _arrays(x)))
        self.has_labels = y is not None

    def part(self, first: int, last: int) -> Part:
        """Return some of the images; nothing is sliced yet."""
        return _Slice(self._x, self._y, first, last, self.image_bytes)


@dataclasses.dataclass(frozen=True, eq=False)
class _Slice(Part):
    """A slice of arrays; what is pickled is the slice alone."""

    x: Any
    y: Any
    first: int
    last: int
    image_bytes: int

    @property
    def images(self) -> int:
        """How many images it has."""
        return self.last - self.first

    @property
    def held_bytes(self) -> int:
        """What is pickled: all of it."""
        return self.images * self.image_bytes

    def read(self) -> tuple[Any, Any]:
        """Return the slices."""
        part = slice(self.first, self.last)
        y = None if self.y is None else np.asarray(self.y[part])
        if isinstance(self.x, Mapping):
            return {name: value[part] for name, value in self.x.items()}, y
        if isinstance(self.x, list | tuple):
            return type(self.x)(value[part] for value in self.x), y
        return self.x[part], y

    def digest(self) -> str:
        """Return what tells these elements from others."""
        return digest_of(self.read())

    def __reduce__(self) -> tuple[Any, ...]:
        """Pickle the slices alone."""
        return _Slice, (*self.read(), 0, self.images, self.image_bytes)


def _arrays(x: Any) -> list[Any]:
    if isinstance(x, Mapping):
        return list(x.values())
    return list(x) if isinstance(x, list | tuple) else [x]


def _image_bytes(array: Any) -> int:
    if not hasattr(array, "dtype"):
        array = np.asarray(array)
    return math.prod(array.shape[1:]) * tf.as_dtype(array.dtype).size
