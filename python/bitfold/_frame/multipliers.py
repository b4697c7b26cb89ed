# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Multipliers in fixed point, as the requantisation has them (include/bitfold/requantise.h)."""

from __future__ import annotations

from typing import Any

import numpy as np

LOWEST_EXPONENT = -31
# By rounding; one rounding works in double precision and has no limits.
HIGHEST_EXPONENTS = {"two_roundings": 31, "short_multiplier": 7}


def quantise_multipliers(multipliers: Any) -> tuple[np.ndarray, np.ndarray]:
    """Return mantissas m and exponents e of multipliers: m / 2^31 * 2^e is the nearest, halves up.

    A mantissa has 31 bits; both are 0 where the exponent would be below -31.

    Args:
        multipliers: real numbers, finite and not negative, of any shape.

    Returns:
        Two int32 arrays of the shape of `multipliers`.

    Example:
        >>> from bitfold._frame.multipliers import quantise_multipliers
        >>> quantise_multipliers([0.75, 3.0, 0.0])
        (array([1610612736, 1610612736,          0], dtype=int32), array([0, 2, 0], dtype=int32))
    """
    fractions, exponents = np.frexp(np.asarray(multipliers, np.float64))
    mantissas = np.floor(np.ldexp(fractions, 31) + 0.5).astype(np.int64)
    carries = mantissas == 2**31
    mantissas, exponents = np.where(carries, 2**30, mantissas), exponents + carries
    kept = (mantissas != 0) & (exponents >= LOWEST_EXPONENT)
    return (
        np.where(kept, mantissas, 0).astype(np.int32),
        np.where(kept, exponents, 0).astype(np.int32),
    )
