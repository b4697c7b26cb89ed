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


def require_multipliers(multipliers: np.ndarray, rounding: str, shift: int) -> None:
    """Raise ValueError unless multipliers are numbers that a rounding takes.

    Args:
        multipliers: float64, one for each channel or one for all.
        rounding: a name of `bitfold.ops.requantise`.
        shift: added to every exponent.
    """
    wrong = ~(np.isfinite(multipliers) & (multipliers >= 0))
    if wrong.any():
        raise ValueError(
            "multipliers must be finite and not negative, "
            f"got {multipliers[wrong].flat[0]} in channel {np.flatnonzero(wrong)[0]}"
        )
    if rounding not in HIGHEST_EXPONENTS:
        with np.errstate(over="ignore"):
            wrong = np.isinf(np.ldexp(multipliers, shift))
        needed = "stay finite after the shift"
    else:
        mantissas, exponents = quantise_multipliers(multipliers)
        shifted = exponents.astype(np.int64) + shift
        highest = HIGHEST_EXPONENTS[rounding]
        wrong = (mantissas != 0) & ((shifted < LOWEST_EXPONENT) | (shifted > highest))
        needed = f"have exponents from {LOWEST_EXPONENT} to {highest} for {rounding}"
    if wrong.any():
        raise ValueError(
            f"multipliers must {needed}, got {multipliers[wrong].flat[0]} with a shift of {shift} "
            f"in channel {np.flatnonzero(wrong)[0]}"
        )
