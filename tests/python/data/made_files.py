# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The same images in files of every kind."""

from __future__ import annotations

import pathlib
from collections.abc import Callable

import numpy as np
import tensorflow as tf

import bitfold

# Of one image, and where the images are cut into files.
SHAPE = (6, 5, 3)
BORDERS = ((0, 7), (7, 8), (8, 23))
COUNT = BORDERS[-1][1]


def arrays() -> tuple[np.ndarray, np.ndarray]:
    """Return images and labels."""
    rng = np.random.default_rng(3)
    return rng.integers(0, 256, (COUNT, *SHAPE), np.uint8), np.arange(COUNT) // 8


def _npz(folder: pathlib.Path) -> bitfold.data.Files:
    x, y = arrays()
    for first, last in BORDERS:
        save = np.savez if first else np.savez_compressed
        save(folder / f"part{first:02}.npz", pictures=x[first:last], classes=y[first:last])
    return bitfold.data.npz(folder / "part*.npz", x="pictures", y="classes")


def _npy(folder: pathlib.Path) -> bitfold.data.Files:
    x, y = arrays()
    for first, last in BORDERS:
        np.save(folder / f"x{first:02}.npy", x[first:last])
    np.save(folder / "labels0.npy", y[:10])
    np.save(folder / "labels1.npy", y[10:])
    return bitfold.data.npy(folder / "x*.npy", folder / "labels?.npy")


def feature(kind: str, values) -> tf.train.Feature:
    """Return a feature of a record: "bytes", "float" or "int64"."""
    lists = {"bytes": tf.train.BytesList, "float": tf.train.FloatList, "int64": tf.train.Int64List}
    return tf.train.Feature(**{f"{kind}_list": lists[kind](value=values)})


def write_records(path: pathlib.Path, records) -> None:
    """Write dictionaries of features."""
    with tf.io.TFRecordWriter(str(path)) as writer:
        for record in records:
            features = tf.train.Features(feature=record)
            writer.write(tf.train.Example(features=features).SerializeToString())


def _tfrecord(folder: pathlib.Path) -> bitfold.data.Files:
    x, y = arrays()
    for first, last in BORDERS:
        write_records(
            folder / f"part{first:02}.tfrecord",
            (
                {"raw": feature("bytes", [x[i].tobytes()]), "label": feature("int64", [y[i]])}
                for i in range(first, last)
            ),
        )
    features = {
        "raw": bitfold.data.RawArray(SHAPE, "uint8"),
        "label": tf.io.FixedLenFeature([], tf.int64),
        "unused": tf.io.FixedLenFeature([], tf.float32),
    }
    return bitfold.data.tfrecord(folder / "*.tfrecord", features, x="raw", y="label")


def _image_folder(folder: pathlib.Path) -> bitfold.data.Files:
    x, y = arrays()
    for i in range(COUNT):
        below = folder / "classes" / f"class{y[i]}" / ("more" if i % 8 > 5 else "")
        below.mkdir(parents=True, exist_ok=True)
        tf.io.write_file(str(below / f"{i:02}.png"), tf.io.encode_png(x[i]))
    (folder / "classes" / "readme.txt").write_text("no class")
    (folder / "classes" / "class0" / "readme.txt").write_text("no picture")
    (folder / "classes" / ".hidden").mkdir()
    return bitfold.data.image_folder(folder / "classes", SHAPE[:2])


KINDS: dict[str, Callable[[pathlib.Path], bitfold.data.Files]] = {
    "npz": _npz,
    "npy": _npy,
    "tfrecord": _tfrecord,
    "image_folder": _image_folder,
}
"""What writes `arrays` into a folder and names them."""
