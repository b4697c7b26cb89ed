# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The pictures that the examples classify: handwritten digits and pieces of clothing."""

from __future__ import annotations

import gzip
from dataclasses import dataclass
from pathlib import Path

import numpy as np

CLASSES = 10
"""Both data sets have ten."""

FASHION_FOLDER = Path("/usr/share/datasets/fashion-mnist")
"""Where Debian's package dataset-fashion-mnist puts its files."""

SPLIT_SEED = 0
"""The digits' split into training and test never changes, whatever --seed says."""

_DIGIT_MAX, _PIXEL_MAX = 16, 255


@dataclass(frozen=True)
class Dataset:
    """Pictures and their classes. Images are float32 [n, h, w, 1] from 0 to 1, labels int64 [n]."""

    name: str
    train_images: np.ndarray
    train_labels: np.ndarray
    test_images: np.ndarray
    test_labels: np.ndarray


def load_digits() -> Dataset:
    """Return scikit-learn's 1,797 digits of 8x8 pixels; a third of every class is for the test."""
    from sklearn import datasets, model_selection

    digits = datasets.load_digits()
    images = (digits.images[..., np.newaxis] / _DIGIT_MAX).astype(np.float32)
    train_images, test_images, train_labels, test_labels = model_selection.train_test_split(
        images, digits.target, test_size=1 / 3, random_state=SPLIT_SEED, stratify=digits.target
    )
    return Dataset("digits", train_images, train_labels, test_images, test_labels)


def load_fashion(folder: Path = FASHION_FOLDER) -> Dataset | None:
    """Return 60,000 and 10,000 pictures of clothes, 28x28 pixels; None where there is no folder."""
    if not folder.is_dir():
        return None
    train, test = (
        (
            (_read(folder / f"{part}-images-idx3-ubyte.gz") / np.float32(_PIXEL_MAX))[..., None],
            _read(folder / f"{part}-labels-idx1-ubyte.gz").astype(np.int64),
        )
        for part in ("train", "t10k")
    )
    return Dataset("Fashion-MNIST", *train, *test)


def _read(path: Path) -> np.ndarray:
    """Read an array of bytes: three bytes of a mark, the rank, each size in four bytes, the rest.

    The sizes have their most significant byte first.
    """
    content = gzip.decompress(path.read_bytes())
    rank = content[3]
    sizes = np.frombuffer(content, ">u4", rank, offset=4)
    return np.frombuffer(content, np.uint8, offset=4 + 4 * rank).reshape(sizes)
