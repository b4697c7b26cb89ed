# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What all records of tables share."""

from __future__ import annotations

from typing import Any

import numpy as np


class Output:
    """What all records share."""

    output_scale: float
    output_zero_point: int

    def dequantise(self, result: Any) -> np.ndarray:
        """Return what results stand for: output_scale * (result - output_zero_point), float64."""
        return self.output_scale * (np.asarray(result, np.float64) - self.output_zero_point)
