# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Real factors as the weights of 8 bits that the accelerator's units take."""

from __future__ import annotations

import math

import numpy as np

_LARGEST = 127


def unit_weights(factors: np.ndarray) -> tuple[np.ndarray, int]:
    """Return factors as whole numbers of 8 bits, and how many of the bits lie above the point.

    The finest power of two whose multiples hold them all is the unit. Halves go to even.

    Args:
        factors: finite float64, any shape.
    """
    largest = float(np.abs(factors).max(initial=0.0))
    if not largest:
        return np.zeros(np.shape(factors), np.int32), 0
    bits = math.floor(math.log2(_LARGEST / largest))
    bits -= round(math.ldexp(largest, bits)) > _LARGEST
    return np.rint(np.ldexp(factors, bits)).astype(np.int32), bits
