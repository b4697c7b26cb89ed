# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The photographs, which scikit-image ships, or one of the user's."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import skimage.color
import skimage.data
import skimage.io

DEFAULT = "astronaut"
CALIBRATION = ("coffee", "chelsea", "camera")
"""The ranges of the networks' values come from these: a cup, a cat, and a man seen from aside."""


def load(path: Path | None) -> np.ndarray:
    """Return a photograph, uint8 [h, w, 3]."""
    return _colours(skimage.io.imread(path) if path else getattr(skimage.data, DEFAULT)())


def calibration() -> list[np.ndarray]:
    """Return the photographs that the scales are taken from."""
    return [_colours(getattr(skimage.data, name)()) for name in CALIBRATION]


def _colours(image: np.ndarray) -> np.ndarray:
    return skimage.color.gray2rgb(image) if image.ndim == 2 else image[..., :3]
