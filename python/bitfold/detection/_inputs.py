# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What stands before a decoder: the centres of a map's cells, and sizes of logarithms."""

from __future__ import annotations

import math
from typing import Any

import numpy as np

from bitfold._frame.checks import require


def grid_centers(count: int, stride: float, *, offset: float = 0.5) -> np.ndarray:
    """Return the centres of the cells along one axis of a map, float64 [count], in pixels.

    Args:
        count: the number of cells.
        stride: the distance of their centres, in pixels.
        offset: the place of the first centre, in strides.

    Raises:
        ValueError: for a negative count, or a stride that is not above 0.

    Example:
        >>> from bitfold import detection
        >>> detection.grid_centers(3, 8)
        array([ 4., 12., 20.])
    """
    require(count >= 0, "count must not be negative", count)
    require(stride > 0, "stride must be above 0", stride)
    return (np.arange(count) + offset) * float(stride)


def size_terms(
    codes: Any, *, code_scale: float, size_scale: float, largest_code: int = 128
) -> np.ndarray:
    """Turn logarithms of sizes into the codes of sizes that ``bitfold.ops.decode_boxes`` takes.

    The decoder has no exponential. An accelerator has it in a table before the decoder, with one
    entry per code; this is that table: rint(exp(code_scale * code) / size_scale), limited to
    `largest_code`. A size that is not limited is off by half a step, size_scale / 2 of the anchor's
    size, and its edges by half of that, which adds to the decoder's `max_error`.

    Args:
        codes: whole or real numbers of any shape.
        code_scale: what a step of them stands for, with the network's own factor.
        size_scale: a step of the result, as a share of the anchor's size.
        largest_code: the largest result.

    Returns:
        An int32 array of the shape of `codes`.

    Raises:
        ValueError: for scales that are not above 0.

    Example:
        >>> import numpy as np
        >>> from bitfold import detection
        >>> detection.size_terms(np.int8([-32, 0, 16]), code_scale=1 / 32, size_scale=1 / 64)
        array([ 24,  64, 106], dtype=int32)
    """
    require(code_scale > 0, "code_scale must be above 0", code_scale)
    require(size_scale > 0, "size_scale must be above 0", size_scale)
    logarithms = code_scale * np.asarray(codes, np.float64)
    # Limited before the exponential, which would overflow.
    logarithms = np.minimum(logarithms, math.log(size_scale * (largest_code + 1)))
    return np.minimum(np.rint(np.exp(logarithms) / size_scale), largest_code).astype(np.int32)
