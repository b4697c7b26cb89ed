# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Arrays in the configuration of a layer, which is JSON: their bytes, packed, and no numbers."""

from __future__ import annotations

import base64
import io
import zlib

import numpy as np


def is_packable(value: object) -> bool:
    """Return whether a value is an array of numbers."""
    return isinstance(value, np.ndarray) and value.dtype.kind in "biuf"


def packed(array: np.ndarray) -> str:
    """Return an array as text, with all its bits, its type and its shape."""
    content = io.BytesIO()
    np.save(content, array, allow_pickle=False)
    return base64.b64encode(zlib.compress(content.getvalue())).decode()


def unpacked(text: str) -> np.ndarray:
    """Return the array of a text.

    Raises:
        ValueError: for a text that `packed` did not make.
    """
    try:
        content = zlib.decompress(base64.b64decode(text, validate=True))
        return np.load(io.BytesIO(content), allow_pickle=False)
    except (ValueError, EOFError, zlib.error) as error:
        raise ValueError(f"Need an array as the library packs it, got {error}") from error
