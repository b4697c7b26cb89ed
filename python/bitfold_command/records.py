# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Pictures and TFRecord files, whose features the first record tells."""

from __future__ import annotations

import argparse
import math
import os
from collections.abc import Sequence

import tensorflow as tf

import bitfold

_IMAGES = ("image", "image/encoded", "x", "images", "image_raw")
_LABELS = ("label", "image/class/label", "y", "labels")
# What encoded pictures begin with.
_PICTURES = (b"\xff\xd8\xff", b"\x89PNG", b"GIF8", b"BM")
# A record is its length in eight bytes, four of checksum, its bytes, and four of checksum.
_FRAME = 16


def is_records(path: str) -> bool:
    """Return whether a file can begin with a record, by the length that it says first."""
    with open(path, "rb") as file:
        length = int.from_bytes(file.read(8), "little")
    return _FRAME <= length + _FRAME <= os.stat(path).st_size


def image_for(network: bitfold.Network, options: argparse.Namespace) -> bitfold.data.EncodedImage:
    """Return how pictures are decoded for a network, by the shape of its input.

    Raises:
        ValueError: for a network whose input is no picture.
    """
    shape = network.inputs[0].shape[1:]
    if len(network.inputs) != 1 or len(shape) != 3:
        raise ValueError(f"Need a network of one input [height, width, channels], got {shape}")
    *size, channels = shape
    return bitfold.data.EncodedImage(
        tuple(size), channels, scale=options.scale, offset=options.offset
    )


def data(
    options: argparse.Namespace, files: Sequence[str], network: bitfold.Network
) -> bitfold.data.Files:
    """Return the images of TFRecord files.

    Raises:
        ValueError: for features that are not there or not of a kind that a network takes.
    """
    found = _first(files[0])
    if options.x:
        x = [_named(found, name, files[0]) for name in options.x]
    else:
        x = [name for name in _IMAGES if name in found][:1]
    if len(x) != len(network.inputs):
        raise ValueError(
            f"Need the names of the images by --x, got the features {sorted(found)} in {files[0]}"
        )
    y = options.y and _named(found, options.y, files[0])
    if y is None and options.labels is None:
        y = next((name for name in _LABELS if name in found), None)
    features = {
        name: _image_feature(found[name], name, port.shape[1:], network, options)
        for name, port in zip(x, network.inputs, strict=True)
    }
    if y is not None:
        features[y] = _numbers(found[y], y)
    return bitfold.data.tfrecord(files, features, x[0] if len(x) == 1 else x, y)


def _first(path: str) -> dict[str, tf.train.Feature]:
    """Return the features of a file's first record."""
    try:
        content = next(iter(tf.data.TFRecordDataset(path))).numpy()
        found = dict(tf.train.Example.FromString(content).features.feature)
    except Exception as error:  # of the runtime or of its messages, each of its own kind
        raise ValueError(f"Need records of tf.train.Example, got {path}: {error}") from None
    return found


def _image_feature(
    feature: tf.train.Feature,
    name: str,
    shape: tuple[int, ...],
    network: bitfold.Network,
    options: argparse.Namespace,
) -> tf.io.FixedLenFeature | bitfold.data.EncodedImage | bitfold.data.RawArray:
    """Return how an image is read, by what the first record has."""
    content = b"".join(feature.bytes_list.value)
    if not content:
        if len(_values(feature)) != math.prod(shape):
            raise ValueError(
                f"Need images {list(shape)}, got {len(_values(feature))} numbers in {name!r}"
            )
        return tf.io.FixedLenFeature(shape, _numbers(feature, name).dtype)
    if content.startswith(_PICTURES):
        return image_for(network, options)
    if len(content) != 4 * math.prod(shape):
        raise ValueError(
            f"Need an encoded picture or float32 {list(shape)} in {name!r}, got {len(content)} "
            "other bytes; bitfold.data.tfrecord reads these, too, from Python"
        )
    return bitfold.data.RawArray(shape, "float32")


def _values(feature: tf.train.Feature) -> Sequence[float]:
    return feature.float_list.value or feature.int64_list.value


def _numbers(feature: tf.train.Feature, name: str) -> tf.io.FixedLenFeature:
    """Return how numbers are read.

    Raises:
        ValueError: for a feature that has none.
    """
    count = len(_values(feature))
    if not count:
        raise ValueError(f"Need numbers in the feature {name!r}, got none")
    dtype = tf.float32 if feature.float_list.value else tf.int64
    return tf.io.FixedLenFeature([] if count == 1 else [count], dtype)


def _named(features: dict[str, tf.train.Feature], name: str, path: str) -> str:
    if name not in features:
        raise ValueError(f"Need one of the features {sorted(features)} of {path}, got {name!r}")
    return name
