# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What data are, that can be read in parts."""

from __future__ import annotations

import abc
import hashlib
from typing import Any

import numpy as np
import tensorflow as tf


class Part(abc.ABC):
    """Some images of a source: enough to read them in another process, where it is pickled to.

    One that is a source, too, is not read as a whole but batch by batch.

    Attributes:
        images: how many.
    """

    images: int

    @property
    def held_bytes(self) -> int:
        """How much of the data is pickled with it: 0 where it only says where they are."""
        return 0

    @abc.abstractmethod
    def read(self) -> tuple[Any, Any]:
        """Return images as `Network.evaluate` takes them, and labels, None where there are none."""

    @abc.abstractmethod
    def digest(self) -> str:
        """Return what tells these images and labels from others."""


class Source(abc.ABC):
    """Data of which any part can be read at any time.

    Attributes:
        images: how many there are.
        image_bytes: what an image takes in memory.
        has_labels: whether there are labels.
    """

    images: int
    image_bytes: int
    has_labels: bool

    @abc.abstractmethod
    def part(self, first: int, last: int) -> Part:
        """Return the images from the first to before the last, of which none is read yet."""


def digest_of(values: Any) -> str:
    """Return what tells arrays from others; any of them may be None."""
    found = hashlib.blake2b(digest_size=16)
    for value in tf.nest.flatten(values):
        if value is None:
            found.update(b"none")
            continue
        array = np.ascontiguousarray(value)
        found.update(f"{array.dtype} {array.shape} ".encode())
        found.update(array.data if array.size else b"")
    return found.hexdigest()
