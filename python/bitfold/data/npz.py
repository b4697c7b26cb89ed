# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Images in .npz files, archives of named arrays.

An archive may be compressed, so a file is read as a whole; the last one stays in memory, for it is
often the next one, too.
"""

from __future__ import annotations

import dataclasses
import functools
import zipfile
from collections.abc import Iterable, Iterator, Mapping
from typing import Any

import numpy as np

from bitfold.data import paths
from bitfold.data.files import Files, files_of
from bitfold.data.headers import read_header
from bitfold.data.pieces import ArraySpec, Layout, Piece, arranged, names_in, need_alike


def npz(
    files: paths.Pattern | Iterable[paths.Pattern],
    x: str | list[str] | Mapping[str, str] = "x",
    y: str | None = None,
) -> Files:
    """Name images in .npz files.

    Of each file the headers of the arrays are read. Files of some hundreds of megabytes suit best,
    since a worker holds one at a time as a whole.

    Args:
        files: a path, a glob pattern in which ** stands for folders, or several of these.
        x: the name of the array of images in each file. For several inputs of a network a list, or
            a dictionary from the inputs' names.
        y: that of the labels; None for images without.

    Returns:
        The images, file after file.

    Raises:
        OSError: for a file that cannot be read, and a pattern that no file matches.
        ValueError: for a file that is damaged, has no such arrays, or other ones than the first.

    Example:
        >>> import bitfold, numpy as np, pathlib, tempfile
        >>> folder = pathlib.Path(tempfile.mkdtemp())
        >>> for i in range(3):
        ...     x = np.full((10, 4), i, np.float32)
        ...     np.savez(folder / f"part{i}.npz", images=x, labels=np.full(10, i))
        >>> source = bitfold.data.npz(folder / "part*.npz", x="images", y="labels")
        >>> source
        <bitfold.data.Files of 30: images float32 [4] with labels int64 []>
        >>> source[9:12].read()[1]
        array([0, 1, 1])
    """
    found = paths.found(files)
    pieces, layouts = [], []
    for path in found:
        specs, images = _headers(path, names_in(x, y))
        pieces.append(_Piece(path, 0, images, images, _Names(x, y)))
        layouts.append(Layout(arranged(x, specs), None if y is None else specs[y]))
    need_alike(layouts, found)
    return files_of(pieces, layouts[0], found[0])


@dataclasses.dataclass(frozen=True)
class _Names:
    """Which arrays of a file are images, and which labels."""

    x: Any
    y: str | None


@dataclasses.dataclass(frozen=True)
class _Piece(Piece):
    """Some of the images of a file, which has `total` of them."""

    path: str
    first: int
    images: int
    total: int
    names: _Names

    def cut(self, first: int, last: int) -> Piece:
        """Return some of them."""
        return dataclasses.replace(self, first=self.first + first, images=last - first)

    def read(self) -> tuple[Any, Any]:
        """Read the file, unless it was the last one, and return slices."""
        x, y = self.names.x, self.names.y
        names = names_in(x, y)
        stamp = paths.stamp(self.path)
        with paths.reading(self.path):
            arrays = _arrays(self.path, tuple(names), stamp)
            if any(len(array) != self.total for array in arrays.values()):
                raise ValueError(f"it has no longer {self.total} images")
        slices = {
            name: array[self.first : self.first + self.images] for name, array in arrays.items()
        }
        return arranged(x, slices), None if y is None else slices[y]

    def identity(self) -> Iterator[str]:
        """Yield the file, the range and the names."""
        yield f"{paths.stamp(self.path)} {self.first} {self.images} {self.names}"


@functools.lru_cache(maxsize=1)
def _arrays(path: str, names: tuple[str, ...], stamp: str) -> dict[str, np.ndarray]:
    """Return arrays of a file, which nobody may change; the stamp tells a file that was."""
    with np.load(path, allow_pickle=False) as archive:
        arrays = {name: archive[name] for name in names}
    for array in arrays.values():
        array.flags.writeable = False
    return arrays


def _headers(path: str, names: list[str]) -> tuple[dict[str, ArraySpec], int]:
    """Return what the arrays of a file look like, and how many images they have."""
    specs, counts = {}, {}
    with paths.reading(path), zipfile.ZipFile(path) as archive:
        members = {name.removesuffix(".npy") for name in archive.namelist()}
        for name in names:
            if name not in members:
                raise ValueError(f"it has no array {name!r} but {sorted(members)}")
            with archive.open(f"{name}.npy") as member:
                counts[name], specs[name] = read_header(member)
        if len(set(counts.values())) != 1:
            raise ValueError(f"its arrays have {counts} elements, of which all must be equal")
    return specs, next(iter(counts.values()))
