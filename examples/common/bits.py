# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""How many bits whole numbers take."""

from __future__ import annotations

import numpy as np


def bits_needed(values: np.ndarray) -> int:
    """Narrowest two's complement width that holds every one of some whole numbers."""
    largest = max(int(values.max()), -1 - int(values.min()), 0)
    return largest.bit_length() + 1
