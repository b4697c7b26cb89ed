# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Pictures in folders, one for each class."""

from __future__ import annotations

import dataclasses
import os
from collections.abc import Iterator, Sequence
from typing import Any

import numpy as np

from bitfold.data import paths
from bitfold.data.files import Files, files_of
from bitfold.data.images import EncodedImage
from bitfold.data.pieces import ArraySpec, Layout, Piece

_ENDINGS = (".bmp", ".gif", ".jpeg", ".jpg", ".png")


def image_folder(
    path: paths.Pattern,
    size: tuple[int, int],
    *,
    labels: bool = True,
    class_names: Sequence[str] | None = None,
    **decoding: Any,
) -> Files:
    """Name the pictures in a folder that has a folder for each class.

    Pictures come in the order in which `keras.utils.image_dataset_from_directory` takes them
    without shuffling: class by class, and in each by folder and name. Folders are listed and no
    picture is read.

    Args:
        path: of the folder.
        size: height and width that pictures are brought to.
        labels: whether folders are classes. Without, all pictures below the folder are taken.
        class_names: the classes' folders in the order of their numbers; by default all in the order
            of their names. Folders of no class are left out.
        **decoding: `channels`, `interpolation`, `crop_to_aspect_ratio`, `scale` and `offset`, as
            `bitfold.data.EncodedImage` explains them.

    Returns:
        The pictures, float32 [height, width, channels], with the number of their class, int32.

    Raises:
        OSError: for a folder that cannot be read.
        ValueError: for a folder without pictures, and for classes without folders.

    Example:
        >>> import bitfold, pathlib, tempfile, tensorflow as tf
        >>> folder = pathlib.Path(tempfile.mkdtemp())
        >>> for name in ("cat", "dog"):
        ...     (folder / name).mkdir()
        ...     for i in range(3):
        ...         tf.io.write_file(
        ...             str(folder / name / f"{i}.png"),
        ...             tf.io.encode_png(tf.zeros([9, 9, 3], tf.uint8)),
        ...         )
        >>> source = bitfold.data.image_folder(folder, (4, 4), scale=1 / 255)
        >>> x, y = source.read()
        >>> x.shape, y
        ((6, 4, 4, 3), array([0, 0, 0, 1, 1, 1], dtype=int32))
    """
    root = os.path.abspath(path)
    image = EncodedImage(size, **decoding)
    with paths.reading(root):
        if not labels:
            if class_names is not None:
                raise ValueError("class_names are of no use without labels")
            pieces = [_Piece(root, tuple(_pictures(root)), None, image)]
        else:
            pieces = [
                _Piece(folder, tuple(_pictures(folder)), number, image)
                for number, folder in enumerate(_classes(root, class_names))
            ]
            if not any(piece.images for piece in pieces) and any(_pictures(root)):
                raise ValueError(
                    "it has pictures, but no folder for each class; labels=False takes them "
                    "without labels"
                )
    return files_of(pieces, Layout(image.spec, ArraySpec("int32", ()) if labels else None), root)


@dataclasses.dataclass(frozen=True)
class _Piece(Piece):
    """Pictures below a folder.

    Attributes:
        folder: its path.
        names: the paths of the pictures in it.
        label: of all of them; None without.
        image: how they are decoded.
    """

    folder: str
    names: tuple[str, ...]
    label: int | None
    image: EncodedImage

    @property
    def images(self) -> int:
        """How many."""
        return len(self.names)

    def cut(self, first: int, last: int) -> Piece:
        """Return some of them."""
        return dataclasses.replace(self, names=self.names[first:last])

    def read(self) -> tuple[Any, Any]:
        """Read and decode the pictures."""
        x = np.empty((self.images, *self.image.spec.shape), np.float32)
        for i, path in enumerate(self._paths()):
            with paths.reading(path):
                with open(path, "rb") as file:
                    content = file.read()
                x[i] = self.image.decode(content)
        return x, None if self.label is None else np.full(self.images, self.label, np.int32)

    def identity(self) -> Iterator[str]:
        """Yield how pictures are decoded, and each of them."""
        yield f"{self.label} {self.image}"
        yield from map(paths.stamp, self._paths())

    def _paths(self) -> Iterator[str]:
        return (os.path.join(self.folder, name) for name in self.names)


def _classes(root: str, class_names: Sequence[str] | None) -> list[str]:
    """Return the folders of the classes in their order."""
    with os.scandir(root) as entries:
        names = sorted(
            entry.name for entry in entries if entry.is_dir() and not entry.name.startswith(".")
        )
    if class_names is not None:
        if missing := sorted(set(class_names) - set(names)):
            raise ValueError(f"it has no folders {missing} but {names}")
        names = list(class_names)
    return [os.path.join(root, name) for name in names]


def _pictures(folder: str) -> Iterator[str]:
    """Yield the pictures below a folder, by folder and name, as paths in it."""

    def fail(error: OSError) -> None:
        raise error

    for below, _, names in sorted(os.walk(folder, onerror=fail), key=lambda found: found[0]):
        for name in sorted(names):
            if name.lower().endswith(_ENDINGS):
                yield os.path.relpath(os.path.join(below, name), folder)
