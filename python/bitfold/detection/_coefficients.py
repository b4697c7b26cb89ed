# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Rounds real coefficients and references to a decoder's numbers, and bounds the error of it."""

from __future__ import annotations

import math
from typing import Any

import numpy as np

from bitfold._frame.checks import require

_INT32_MAX = 2**31 - 1
_LONGEST_SHIFT = 30  # the op counts shifts modulo 32, and its rounding mask needs one bit more
# Roundings of float32 that the largest term of a corner passes: its coefficient, the product, two
# sums, and one for what they make of each other.
_FLOAT_ERROR = 5 * 2.0**-24
# A stated error that is not 0 also covers the float64 arithmetic that it was computed in.
_HOST_ERROR = 2.0**-46


def fitted(
    products: list[np.ndarray],
    references: list[np.ndarray],
    largest_code: float,
    fraction_bits: int,
    coefficient_bits: int,
    dtype: Any,
) -> tuple[list[np.ndarray], dict[str, Any]]:
    """Round coefficients and references to the decoder's numbers, and say what that costs.

    Args:
        products: pixels per step of a code, [A, 2] for each product of a corner.
        references: pixels, [H, A, 2] for y and [W, A, 2] for x.
        largest_code: as the builders take it, like the rest.
        fraction_bits: see there.
        coefficient_bits: see there.
        dtype: see there.

    Returns:
        The coefficients in the order of `products`, and the fields that both decoders'
        records share.

    Raises:
        ValueError: for settings out of range, and coefficients or sums that do not fit.
    """
    require(largest_code > 0, "largest_code must be above 0", largest_code)
    require(np.dtype(dtype) in (np.int32, np.float32), "dtype must be int32 or float32", dtype)
    if np.dtype(dtype) == np.float32:
        steps, shift = 1, 0
        error = largest_code * sum(products) + _per_anchor([np.abs(r) for r in references])
        error *= _FLOAT_ERROR
        reach = largest_code * sum(products) + error
    else:
        require(0 <= fraction_bits <= 24, "fraction_bits must lie in [0, 24]", fraction_bits)
        steps = 2**fraction_bits
        exact, targets = ([steps * x for x in group] for group in (products, references))
        shift = _longest_shift(max(c.max() for c in exact), coefficient_bits, largest_code)
        unit = 2.0**shift
        products, references = [np.rint(unit * c) for c in exact], [np.rint(t) for t in targets]
        error = _per_anchor([np.abs(t - r) for t, r in zip(targets, references, strict=True)])
        for coefficient, real in zip(products, exact, strict=True):
            error += largest_code * np.abs(coefficient / unit - real) + 0.5 * (
                coefficient % unit > 0
            )
        reach = sum(np.rint(largest_code * c / unit) for c in products)
    largest = reach + _per_anchor([np.abs(r) for r in references])
    error += np.where(error > 0, _HOST_ERROR * largest, 0)
    bits = _accumulator_bits(reach, references)
    require(
        np.dtype(dtype) == np.float32 or bits <= 32,
        "boxes must fit an accumulator of 32 bits; lower fraction_bits",
        f"{bits} bits",
    )
    y_centers, x_centers = (r.reshape(len(r), -1).astype(dtype) for r in references)
    return [c.astype(dtype) for c in products], {
        "y_centers": y_centers,
        "x_centers": x_centers,
        "mult_shift": shift,
        "output_scale": 1 / steps,
        "max_error": float(error.max()) / steps,
        "accumulator_bits": bits,
    }


def _longest_shift(largest: float, bits: int, largest_code: float) -> int:
    """Return the largest shift with which the largest coefficient fits, and its product."""
    require(2 <= bits <= 32, "coefficient_bits must lie in [2, 32]", bits)
    limit = min(2 ** (bits - 1) - 1, _INT32_MAX // largest_code)
    require(
        np.rint(largest) <= limit,
        f"coefficients must be at most {limit} steps; lower fraction_bits or largest_code, or "
        "raise coefficient_bits",
        largest,
    )
    return next(s for s in range(_LONGEST_SHIFT, -1, -1) if np.rint(largest * 2.0**s) <= limit)


def _accumulator_bits(reach: np.ndarray, references: list[np.ndarray]) -> int:
    """Return the bits that hold all sums of products, up to `reach` [A, 2], and references."""
    largest = reach.max()
    for reference, products in zip(references, reach.T, strict=True):
        for corners in (reference, -1 - reference):
            largest = max(largest, (corners + products[:, np.newaxis]).max(initial=0))
    return math.ceil(largest).bit_length() + 1


def _per_anchor(values: list[np.ndarray]) -> np.ndarray:
    """Return the largest value of each anchor, [A, 2], from [H, A, 2] for y and [W, A, 2] for x."""
    return np.stack([v.max(axis=(0, 2), initial=0) for v in values], axis=1)
