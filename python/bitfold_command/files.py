# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Networks and data from files."""

from __future__ import annotations

import argparse
import os
import zipfile
from collections.abc import Mapping
from typing import Any

import keras
import numpy as np

import bitfold

_IMAGES = ("x", "images", "x_test", "inputs")
_LABELS = ("y", "labels", "y_test")
# What files of each kind begin with.
_MODEL = b"TFL3"  # behind four bytes
_ARCHIVE = b"PK"
_ARRAY = b"\x93NUMPY"


def network(path: str) -> bitfold.Network:
    """Return the network of a model file or of what `Network.save` wrote."""
    start = _start(path)
    if start[4:8] == _MODEL:
        return bitfold.Network.from_tflite(path)
    if path.endswith((".keras", ".h5")):
        raise ValueError(
            f"Need a quantised model, got the float model {path}; bitfold.Network.from_keras makes "
            "one of it and calibration data"
        )
    if not start.startswith(_ARCHIVE):
        raise ValueError(f"Need a .tflite file or one that Network.save wrote, got {path}")
    return bitfold.Network.load(path)


def title(path: str) -> str:
    """Return what a study of a file's network is called."""
    return os.path.basename(path)


def float_model(path: str) -> Any:
    """Return a Keras model, or the bytes of a model file."""
    if path.endswith(".tflite"):
        with open(path, "rb") as file:
            return file.read()
    _start(path)  # where it cannot be read, this error says why
    return keras.saving.load_model(path)


def data(options: argparse.Namespace, of: bitfold.Network) -> tuple[Any, np.ndarray | None]:
    """Return images and labels as a network takes them.

    Args:
        options: of the command line.
        of: the network, whose inputs' names are looked for.

    Raises:
        OSError: for a file that cannot be read.
        ValueError: for one that is no array, or arrays that cannot be told apart.
    """
    found = _load(options.data)
    if isinstance(found, np.ndarray):
        if options.x or options.y:
            raise ValueError(f"Need a .npz for names of arrays, got one array in {options.data}")
        x, y = found, None
    else:
        x = _images(found, options, of)
        y = _labels(found, options)
    if options.labels is not None:
        y = _load(options.labels)
        if not isinstance(y, np.ndarray):
            raise ValueError(f"Need one array for labels, got several in {options.labels}")
    return _first(x, options.images), None if y is None else y[: options.images]


def _load(path: str) -> np.ndarray | dict[str, np.ndarray]:
    if not _start(path).startswith((_ARCHIVE, _ARRAY)):
        raise ValueError(f"Need arrays as .npz or .npy, got {path}")
    try:
        loaded = np.load(path, allow_pickle=False)
        return loaded if isinstance(loaded, np.ndarray) else dict(loaded)
    except (ValueError, EOFError, zipfile.BadZipFile) as error:
        raise ValueError(f"Need arrays as .npz or .npy, got {path}: {error}") from None


def _start(path: str) -> bytes:
    with open(path, "rb") as file:
        return file.read(8)


def _images(
    arrays: Mapping[str, np.ndarray], options: argparse.Namespace, of: bitfold.Network
) -> Any:
    names = [port.name for port in of.inputs]
    if options.x:
        chosen = [_named(arrays, name, options.data) for name in options.x]
        return chosen[0] if len(chosen) == 1 else chosen
    if all(name in arrays for name in names):
        return {name: arrays[name] for name in names}
    for name in _IMAGES:
        if name in arrays:
            return arrays[name]
    others = [name for name in arrays if name != (options.y or "") and name not in _LABELS]
    if len(others) == 1:
        return arrays[others[0]]
    raise ValueError(
        f"Need the name of the images by --x, got the arrays {sorted(arrays)} in {options.data}"
    )


def _labels(arrays: Mapping[str, np.ndarray], options: argparse.Namespace) -> np.ndarray | None:
    if options.y:
        return _named(arrays, options.y, options.data)
    return next((arrays[name] for name in _LABELS if name in arrays), None)


def _named(arrays: Mapping[str, np.ndarray], name: str, path: str) -> np.ndarray:
    if name not in arrays:
        raise ValueError(f"Need one of the arrays {sorted(arrays)} of {path}, got {name!r}")
    return arrays[name]


def _first(x: Any, count: int | None) -> Any:
    if isinstance(x, Mapping):
        return {name: value[:count] for name, value in x.items()}
    if isinstance(x, list):
        return [value[:count] for value in x]
    return x[:count]
