# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What data in files are made of: images in a row of one file, and what they look like."""

from __future__ import annotations

import abc
import dataclasses
import math
from collections.abc import Iterator, Sequence
from typing import Any

import numpy as np
import tensorflow as tf


@dataclasses.dataclass(frozen=True)
class ArraySpec:
    """What the elements of an array are.

    Attributes:
        dtype: numpy's name of their type.
        shape: of one image's.
    """

    dtype: str
    shape: tuple[int, ...]

    @classmethod
    def of(cls, array: np.ndarray) -> ArraySpec:
        """Return that of an array of several images."""
        return cls(array.dtype.name, tuple(array.shape[1:]))

    @property
    def bytes(self) -> int:
        """What an image takes."""
        return math.prod(self.shape) * tf.as_dtype(self.dtype).size

    def __str__(self) -> str:
        """Return type and shape."""
        return f"{self.dtype} {list(self.shape)}"


@dataclasses.dataclass(frozen=True)
class Layout:
    """What images and labels look like.

    Attributes:
        x: an `ArraySpec`, or several as a list or a dictionary as images have them.
        y: of labels; None without.
    """

    x: Any
    y: ArraySpec | None

    @property
    def image_bytes(self) -> int:
        """What an image takes, labels aside."""
        return sum(spec.bytes for spec in tf.nest.flatten(self.x))

    def __str__(self) -> str:
        """Return what images and labels are."""
        x = ", ".join(map(str, tf.nest.flatten(self.x)))
        return f"images {x}" + ("" if self.y is None else f" with labels {self.y}")


class Piece(abc.ABC):
    """Images in a row of a file. It is pickled by reference, to be read anywhere.

    Attributes:
        images: how many.
    """

    images: int

    @abc.abstractmethod
    def cut(self, first: int, last: int) -> Piece:
        """Return the images from the first to before the last."""

    @abc.abstractmethod
    def read(self) -> tuple[Any, Any]:
        """Return images, in a structure as the network takes them, and labels or None.

        Raises:
            OSError: for a file that cannot be reached, saying on which machine.
            ValueError: for a file that is damaged or another than before.
        """

    @abc.abstractmethod
    def identity(self) -> Iterator[str]:
        """Yield what tells these images from others, without reading them."""


def need_alike(found: Sequence[Any], paths: Sequence[str]) -> None:
    """Raise ValueError unless all files look like the first.

    Args:
        found: what they look like.
        paths: where they are.
    """
    for other, path in zip(found, paths, strict=True):
        if other != found[0]:
            raise ValueError(f"Need {found[0]} as in {paths[0]}, got {other} in {path}")


def arranged(names: Any, values: dict[str, Any]) -> Any:
    """Return values by name in the structure of names: one, or a list or dictionary of them."""
    return tf.nest.map_structure(values.__getitem__, names)


def names_in(*structures: Any) -> list[str]:
    """Return the names in structures, each once; None is none."""
    names = [name for names in structures if names is not None for name in tf.nest.flatten(names)]
    for name in names:
        if not isinstance(name, str):
            raise TypeError(f"Need names as text, got {name!r}")
    return list(dict.fromkeys(names))
