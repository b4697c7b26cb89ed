# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Data in files, of which any range of images can be read by itself."""

from __future__ import annotations

import bisect
import hashlib
import itertools
from collections.abc import Callable, Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.data.pieces import ArraySpec, Layout, Piece
from bitfold.network.shards.source import Part, Source


class Files(Source, Part):
    """Images in files, and their labels where there are any; made by the functions of this room.

    It can be pickled, and is small: it holds paths, counts and functions, but no image.

    Attributes:
        images: how many there are.
        has_labels: whether there are labels.
        image_bytes: what an image takes in memory.
    """

    def __init__(
        self, pieces: Sequence[Piece], layout: Layout, functions: Sequence[Callable] = ()
    ) -> None:
        """Take what the files hold, in order.

        Args:
            pieces: which all look alike.
            layout: of what comes out.
            functions: through which every image goes.
        """
        self._pieces = tuple(piece for piece in pieces if piece.images)
        self._ends = list(itertools.accumulate(piece.images for piece in self._pieces))
        self._layout = layout
        self._functions = tuple(functions)
        self.images = self._ends[-1] if self._ends else 0

    @property
    def has_labels(self) -> bool:
        """Whether there are labels."""
        return self._layout.y is not None

    @property
    def image_bytes(self) -> int:
        """What an image takes in memory, once it is read."""
        return self._layout.image_bytes

    def __len__(self) -> int:
        """Return how many images there are."""
        return self.images

    def __getitem__(self, chosen: slice) -> Files:
        """Return some of the images in a row, as source[1000:2000].

        Raises:
            TypeError: for anything but a range.
            ValueError: for a range with steps.
        """
        if not isinstance(chosen, slice):
            raise TypeError(f"Need a range of images as source[1000:2000], got [{chosen!r}]")
        first, last, step = chosen.indices(self.images)
        if step != 1:
            raise ValueError(f"Need images in a row, got a range in steps of {step}")
        return self.part(first, max(first, last))

    def part(self, first: int, last: int) -> Files:
        """Return the images from the first to before the last; nothing is read."""
        pieces = []
        for index in range(bisect.bisect_right(self._ends, first), len(self._pieces)):
            piece, end = self._pieces[index], self._ends[index]
            begin = end - piece.images
            if begin >= last:
                break
            inner = (max(first - begin, 0), min(last - begin, piece.images))
            pieces.append(piece if inner == (0, piece.images) else piece.cut(*inner))
        return Files(pieces, self._layout, self._functions)

    def map(self, function: Callable) -> Files:
        """Return the same images, each of which goes through a function when it is read.

        As in `tf.data.Dataset.map` the function takes an image, and its label where there are
        labels, and returns the same. It is tried on the first image. Worker processes import it by
        its name: it must stand in a module that they find, neither in a function nor in the script
        that is run, and be no lambda.

        Args:
            function: from arrays of one image, without a dimension for the batch, to such arrays.

        Raises:
            ValueError: for a function that returns something else.

        Example:
            >>> import bitfold, numpy as np, pathlib, tempfile
            >>> folder = pathlib.Path(tempfile.mkdtemp())
            >>> np.savez(folder / "a.npz", x=np.arange(6, dtype=np.uint8).reshape(3, 2))
            >>> source = bitfold.data.npz(folder / "*.npz", x="x").map(np.float32)
            >>> source.read()[0]
            array([[0., 1.],
                   [2., 3.],
                   [4., 5.]], dtype=float32)
        """
        if not callable(function):
            raise TypeError(f"Need a function, got {function!r}")
        mapped = Files(self._pieces, self._layout, (*self._functions, function))
        if self.images:
            x, y = mapped.part(0, 1).read()
            spec = None if y is None else ArraySpec.of(y)
            mapped._layout = Layout(tf.nest.map_structure(ArraySpec.of, x), spec)
        return mapped

    def read(self) -> tuple[Any, Any]:
        """Read all images at once.

        Returns:
            The images, an array [images, ...] or a list or dictionary of them, and the labels, an
            array [images, ...] or None.

        Raises:
            OSError: for a file that this machine does not reach by its path.
            ValueError: for a file that is damaged or has changed, and for no images.
        """
        if not self._pieces:
            raise ValueError("Need images to read, got none")
        parts = [piece.read() for piece in self._pieces]
        x = _joined([x for x, _ in parts])
        y = _joined([y for _, y in parts]) if self.has_labels else None
        for function in self._functions:
            x, y = _mapped(function, x, y, self.images)
        return x, y

    def digest(self) -> str:
        """Return what tells these images from others: names, sizes and times of files, and ranges.

        Nothing is read, so that it costs little. Folders do not count.

        Raises:
            OSError: for a file that this machine does not reach.
        """
        found = hashlib.blake2b(digest_size=16)
        for piece in self._pieces:
            for line in piece.identity():
                found.update(f"{line}\n".encode())
        for function in self._functions:
            name = getattr(function, "__qualname__", type(function).__qualname__)
            found.update(f"{getattr(function, '__module__', '')}.{name}\n".encode())
        return found.hexdigest()

    def __repr__(self) -> str:
        """Return how many images there are, and what they look like."""
        return f"<bitfold.data.Files of {self.images:,}: {self._layout}>"


def files_of(pieces: Sequence[Piece], layout: Layout, path: str) -> Files:
    """Return data of these pieces.

    Args:
        pieces: in their order.
        layout: of all of them.
        path: where they were looked for.

    Raises:
        ValueError: for no images.
    """
    files = Files(pieces, layout)
    if not files.images:
        raise ValueError(f"Need images, found none in {path}")
    return files


def _joined(values: Sequence[Any]) -> Any:
    """Join arrays, or structures of them."""
    if len(values) == 1:
        return values[0]
    return tf.nest.map_structure(lambda *arrays: np.concatenate(arrays), *values)


def _mapped(function: Callable, x: Any, y: Any, images: int) -> tuple[Any, Any]:
    """Return images and labels that went through a function, one by one."""
    found = []
    for i in range(images):
        image = tf.nest.map_structure(lambda array, i=i: array[i], x)
        found.append(_of_one(function, image, None if y is None else y[i]))
    ys = None if y is None else _stacked([label for _, label in found])
    return _stacked([image for image, _ in found]), ys


def _of_one(function: Callable, image: Any, label: Any) -> tuple[Any, Any]:
    if label is None:
        return function(image), None
    result = function(image, label)
    if not isinstance(result, tuple) or len(result) != 2:
        raise ValueError(
            f"Need a function from (x, y) to (x, y) for images with labels, got "
            f"{type(result).__name__} of {getattr(function, '__qualname__', function)}"
        )
    return result


def _stacked(values: Sequence[Any]) -> Any:
    """Return values of single images as arrays of all.

    Raises:
        ValueError: where their shapes differ.
    """
    return tf.nest.map_structure(lambda *arrays: np.stack(list(map(np.asarray, arrays))), *values)
