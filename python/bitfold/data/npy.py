# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Images in .npy files, which are mapped into memory, so that only what is asked for is read."""

from __future__ import annotations

import bisect
import dataclasses
import itertools
from collections.abc import Iterable, Iterator, Mapping
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.data import paths
from bitfold.data.files import Files, files_of
from bitfold.data.headers import read_header
from bitfold.data.pieces import ArraySpec, Layout, Piece, need_alike

_Patterns = paths.Pattern | Iterable[paths.Pattern]


def npy(images: _Patterns | Mapping[str, _Patterns], labels: _Patterns | None = None) -> Files:
    """Name images in .npy files.

    Args:
        images: a path, a glob pattern in which ** stands for folders, or several of these. For
            several inputs of a network a dictionary from the inputs' names to such.
        labels: the files of the labels; None for images without. They may be cut elsewhere.

    Returns:
        The images, file after file.

    Raises:
        OSError: for a file that cannot be read, and a pattern that no file matches.
        ValueError: for a file that is damaged, or that differs from the first in type or shape, and
            for another number of labels than of images.

    Example:
        >>> import bitfold, numpy as np, pathlib, tempfile
        >>> folder = pathlib.Path(tempfile.mkdtemp())
        >>> np.save(folder / "images.npy", np.ones((30, 4), np.float32))
        >>> np.save(folder / "labels.npy", np.arange(30))
        >>> source = bitfold.data.npy(folder / "images.npy", folder / "labels.npy")
        >>> source[10:13].read()[1]
        array([10, 11, 12])
    """
    several = isinstance(images, Mapping)
    x = {name: _Column.of(found) for name, found in images.items()} if several else (
        _Column.of(images)
    )  # fmt: skip
    y = None if labels is None else _Column.of(labels)
    columns = [*tf.nest.flatten(x), *([] if y is None else [y])]
    counts = [column.ends[-1] for column in columns]
    if len(set(counts)) != 1:
        raise ValueError(f"Need as many labels as images, and of every input, got {counts}")
    borders = sorted({0}.union(*(column.ends for column in columns)))
    pieces = [_Piece(_ranges(x, *ends), _ranges(y, *ends)) for ends in itertools.pairwise(borders)]
    specs = tf.nest.map_structure(lambda column: column.spec, x)
    return files_of(pieces, Layout(specs, None if y is None else y.spec), columns[0].files[0])


@dataclasses.dataclass(frozen=True)
class _Column:
    """An array that is cut into files.

    Attributes:
        files: their paths.
        ends: how many elements there are up to the end of each.
        spec: what the elements are.
    """

    files: list[str]
    ends: list[int]
    spec: ArraySpec

    @classmethod
    def of(cls, patterns: _Patterns) -> _Column:
        """Read the headers of files.

        Raises:
            OSError: for one that cannot be read.
            ValueError: for one that is damaged or differs from the first.
        """
        files = paths.found(patterns)
        counts, specs = [], []
        for path in files:
            array = _mapped(path)
            counts.append(len(array))
            specs.append(ArraySpec.of(array))
        need_alike(specs, files)
        return cls(files, list(itertools.accumulate(counts)), specs[0])

    def range(self, first: int, last: int) -> _Range:
        """Return elements that lie in one file."""
        index = bisect.bisect_right(self.ends, first)
        begin = self.ends[index - 1] if index else 0
        return _Range(self.files[index], first - begin, last - begin)


@dataclasses.dataclass(frozen=True)
class _Range:
    """Some of the elements of a file."""

    path: str
    first: int
    last: int

    def __len__(self) -> int:
        """Return how many."""
        return self.last - self.first

    def cut(self, first: int, last: int) -> _Range:
        """Return some of them."""
        return _Range(self.path, self.first + first, self.first + last)

    def read(self) -> np.ndarray:
        """Read them."""
        array = _mapped(self.path)
        with paths.reading(self.path):
            if len(array) < self.last:
                raise ValueError(f"it had {self.last} elements or more and has {len(array)}")
            return np.array(array[self.first : self.last])


@dataclasses.dataclass(frozen=True)
class _Piece(Piece):
    """Images of which each array lies in one file.

    Attributes:
        x: a range, or a dictionary of them.
        y: of labels; None without.
    """

    x: Any
    y: _Range | None

    @property
    def images(self) -> int:
        """How many."""
        return len(tf.nest.flatten(self.x)[0])

    def cut(self, first: int, last: int) -> Piece:
        """Return some of them."""
        x = tf.nest.map_structure(lambda found: found.cut(first, last), self.x)
        return _Piece(x, None if self.y is None else self.y.cut(first, last))

    def read(self) -> tuple[Any, Any]:
        """Read the ranges."""
        x = tf.nest.map_structure(lambda found: found.read(), self.x)
        return x, None if self.y is None else self.y.read()

    def identity(self) -> Iterator[str]:
        """Yield the files and ranges."""
        for found in (*tf.nest.flatten(self.x), self.y):
            if found is not None:
                yield f"{paths.stamp(found.path)} {found.first} {found.last}"


def _ranges(column: Any, first: int, last: int) -> Any:
    """Return a range of a column, of each of several, or None of none."""
    if column is None:
        return None
    return tf.nest.map_structure(lambda one: one.range(first, last), column)


def _mapped(path: str) -> np.ndarray:
    """Return a file's array, of which nothing is read but what is used.

    Raises:
        OSError: for a path that cannot be reached.
        ValueError: for anything but an array of numbers.
    """
    with paths.reading(path):
        with open(path, "rb") as file:
            read_header(file)
        return np.load(path, mmap_mode="r", allow_pickle=False)
