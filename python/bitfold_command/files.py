# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Networks from files."""

from __future__ import annotations

import os
from typing import Any

import keras

import bitfold

# What files of each kind begin with.
_MODEL = b"TFL3"  # behind four bytes
_ARCHIVE = b"PK"


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


def _start(path: str) -> bytes:
    with open(path, "rb") as file:
        return file.read(8)
