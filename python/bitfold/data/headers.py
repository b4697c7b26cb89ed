# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Headers of arrays in files."""

from __future__ import annotations

from typing import BinaryIO

import numpy as np

from bitfold.data.pieces import ArraySpec

_READERS = {
    (1, 0): np.lib.format.read_array_header_1_0,
    (2, 0): np.lib.format.read_array_header_2_0,
}


def read_header(file: BinaryIO) -> tuple[int, ArraySpec]:
    """Return how many images an array has and what they look like, without reading it.

    Args:
        file: where the array begins.

    Raises:
        ValueError: for anything but an array of numbers.
    """
    version = np.lib.format.read_magic(file)
    if version not in _READERS:
        raise ValueError(f"it has an array in the format {version}")
    shape, _, dtype = _READERS[version](file)
    if dtype.kind not in "biuf" or not shape:
        raise ValueError(f"it has an array {dtype} {list(shape)} where images or labels should be")
    return shape[0], ArraySpec(dtype.name, tuple(shape[1:]))
