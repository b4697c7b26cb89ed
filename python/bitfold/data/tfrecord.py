# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Images in TFRecord files, as serialised tf.train.Example."""

from __future__ import annotations

import dataclasses
import os
import struct
from collections.abc import Iterable, Iterator, Mapping
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.data import paths
from bitfold.data.files import Files, files_of
from bitfold.data.images import EncodedImage, RawArray
from bitfold.data.pieces import ArraySpec, Layout, Piece, arranged, names_in

Feature = tf.io.FixedLenFeature | EncodedImage | RawArray

# A record is its length and the length's checksum, its bytes, and their checksum.
_HEADER = struct.Struct("<QI")
_FOOTER = 4


def tfrecord(
    files: paths.Pattern | Iterable[paths.Pattern],
    features: Mapping[str, Feature],
    x: str | list[str] | Mapping[str, str],
    y: str | None = None,
) -> Files:
    """Name images in TFRecord files without compression.

    Records are counted by their lengths, without reading them. A reader of some records passes over
    those before them in the file, so files of up to some hundreds of megabytes suit best.

    Args:
        files: a path, a glob pattern in which ** stands for folders, or several of these.
        features: what to take out of each tf.train.Example, by name: `tf.io.FixedLenFeature` for
            numbers; `bitfold.data.EncodedImage` for a picture, `bitfold.data.RawArray` for an
            array in bytes.
        x: the name of the feature with the image. For several inputs of a network a list, or a
            dictionary from the inputs' names.
        y: that of the label; None for images without.

    Returns:
        The images, file after file.

    Raises:
        OSError: for a file that cannot be read, and a pattern that no file matches.
        TypeError: for features of another kind.
        ValueError: for a file that is damaged, and a name without a feature.

    Example:
        >>> import bitfold, pathlib, tempfile, tensorflow as tf
        >>> path = pathlib.Path(tempfile.mkdtemp()) / "a.tfrecord"
        >>> with tf.io.TFRecordWriter(str(path)) as writer:
        ...     for i in range(3):
        ...         floats = tf.train.FloatList(value=[i, i])
        ...         label = tf.train.Int64List(value=[i])
        ...         example = tf.train.Example(features=tf.train.Features(feature={
        ...             "image": tf.train.Feature(float_list=floats),
        ...             "label": tf.train.Feature(int64_list=label),
        ...         }))
        ...         writer.write(example.SerializeToString())
        >>> features = {
        ...     "image": tf.io.FixedLenFeature([2], tf.float32),
        ...     "label": tf.io.FixedLenFeature([], tf.int64),
        ... }
        >>> source = bitfold.data.tfrecord(path, features, x="image", y="label")
        >>> source[1:].read()
        (array([[1., 1.],
               [2., 2.]], dtype=float32), array([1, 2]))
    """
    names = names_in(x, y)
    for name in names:
        if name not in features:
            raise ValueError(f"Need a feature of {sorted(features)}, got {name!r}")
    records = _Records({name: features[name] for name in names}, x, y)
    layout = records.layout()
    found = paths.found(files)
    pieces = [_Piece(path, 0, _count(path), records) for path in found]
    return files_of(pieces, layout, found[0])


@dataclasses.dataclass(frozen=True)
class _Records:
    """What is taken out of each record."""

    features: dict[str, Feature]
    x: Any
    y: str | None

    def layout(self) -> Layout:
        """Return what comes out.

        Raises:
            TypeError: for features of another kind.
        """
        specs = {name: _spec(name, feature) for name, feature in self.features.items()}
        return Layout(arranged(self.x, specs), None if self.y is None else specs[self.y])

    def parsed(self, serialised: list[bytes]) -> tuple[Any, Any]:
        """Return the images and labels of records."""
        wanted = {
            name: feature
            if isinstance(feature, tf.io.FixedLenFeature)
            else tf.io.FixedLenFeature([], tf.string)
            for name, feature in self.features.items()
        }
        found = tf.io.parse_example(serialised, wanted)
        arrays = {
            name: found[name].numpy()
            if isinstance(feature, tf.io.FixedLenFeature)
            else np.stack([feature.decode(content) for content in found[name].numpy()])
            for name, feature in self.features.items()
        }
        return arranged(self.x, arrays), None if self.y is None else arrays[self.y]


@dataclasses.dataclass(frozen=True)
class _Piece(Piece):
    """Some of the records of a file."""

    path: str
    first: int
    images: int
    records: _Records

    def cut(self, first: int, last: int) -> Piece:
        """Return some of them."""
        return dataclasses.replace(self, first=self.first + first, images=last - first)

    def read(self) -> tuple[Any, Any]:
        """Read the records, of which the runtime compares the checksums."""
        with paths.reading(self.path):
            records = tf.data.TFRecordDataset(self.path).skip(self.first).take(self.images)
            serialised = [record.numpy() for record in records]
            if len(serialised) != self.images:
                raise ValueError(f"it had {self.first + self.images} records or more")
            return self.records.parsed(serialised)

    def identity(self) -> Iterator[str]:
        """Yield the file, the range and the features."""
        yield f"{paths.stamp(self.path)} {self.first} {self.images} {self.records}"


def _spec(name: str, feature: Any) -> ArraySpec:
    """Return what a feature becomes."""
    if isinstance(feature, EncodedImage | RawArray):
        return feature.spec
    is_number = isinstance(feature, tf.io.FixedLenFeature) and feature.dtype != tf.string
    if not is_number:
        raise TypeError(
            "Need a tf.io.FixedLenFeature of numbers, a bitfold.data.EncodedImage or a "
            f"bitfold.data.RawArray for {name!r}, got {feature!r}"
        )
    return ArraySpec(feature.dtype.name, tuple(feature.shape))


def _count(path: str) -> int:
    """Return how many records a file has, by their lengths.

    Raises:
        ValueError: for a file that does not end where its last record does.
    """
    count = end = 0
    with paths.reading(path):
        size = os.stat(path).st_size
        with open(path, "rb") as file:
            while end < size:
                header = file.read(_HEADER.size)
                length = _HEADER.unpack(header)[0] if len(header) == _HEADER.size else size
                end += _HEADER.size + length + _FOOTER
                if end > size:
                    raise ValueError(f"record {count} goes beyond its end; it is cut, compressed "
                                     "or no TFRecord file")  # fmt: skip
                file.seek(end)
                count += 1
    return count
