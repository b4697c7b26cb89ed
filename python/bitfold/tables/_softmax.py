# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Tables of the softmax unit."""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Any

import numpy as np

from bitfold._frame.checks import require
from bitfold.tables._output import Output

_LARGEST_EXPONENTIAL = 2**16 - 1
_LARGEST_SUM = 2**24 - 1
_LARGEST_RECIPROCAL = 255


@dataclass(frozen=True, eq=False)
class SoftmaxTable(Output):
    """What `softmax` returns.

    Attributes:
        lut_table: uint32 [512], the exponentials and the reciprocals.
        is_velquin: whether it is for the second variant of the unit, whose sum saturates.
        input_scale: the real value of one step of the input.
        output_scale: the real value of one step of the result.
        largest_exponential: the exponential of the largest element, E below.
        largest_vector: the longest vector whose sum stays within 24 bits whatever it holds.
    """

    lut_table: np.ndarray
    is_velquin: bool
    input_scale: float
    output_scale: float
    largest_exponential: int
    largest_vector: int
    output_zero_point: int = 0

    @property
    def keywords(self) -> dict[str, Any]:
        """Keyword arguments of ``bitfold.ops.softmax``."""
        return {"lut_table": self.lut_table, "is_velquin": self.is_velquin}

    def max_error(self, vector_size: int) -> float:
        """Bound the error for vectors of a length, as `softmax` derives it.

        Args:
            vector_size: the number of elements.

        Returns:
            The bound in real units, for inputs at most 255 below the maximum; infinite where the
            sum may wrap.
        """
        if vector_size > self.largest_vector and not self.is_velquin:
            return math.inf
        reciprocal = 0.5 if vector_size <= self.largest_vector else 1.0
        exponentials = 0.5 * vector_size / self.largest_exponential / self.output_scale
        return self.output_scale * (
            reciprocal * (self.largest_exponential + 1) / 65536 + exponentials + 0.5 + 1 / 2048
        )


def softmax(
    input_scale: float, *, vector_size: int = 256, is_velquin: bool = False
) -> SoftmaxTable:
    """Build the table of the softmax unit.

    The result stands for exp(x) / sum(exp(x)); its zero point is 0.

    Derivation:

    Exponentials. An element k steps below the maximum has the exponential
    E * exp(-k * input_scale), rounded; E = 65535 fills 16 bits. The maximum itself counts E.

    Sum. It has 24 bits, so up to (2^24 - 1) div E elements are safe whatever they are: 256 with
    E = 65535. Beyond that one variant saturates, which costs at most half a step more, since every
    result is then below one step. The other wraps, and its results are meaningless; so for
    it E is lowered to (2^24 - 1) div vector_size, and the steps of the result become coarser by as
    much. No sum lies below E.

    Reciprocals. The result is exponential * inv / 2^16. With inv = c / sum that is
    c / 2^16 times the softmax, so output_scale = 2^16 / c. inv has 8 bits and is largest, 255,
    where the sum is E; so c = 255 * (E + 1), and with E = 65535 output_scale is 1/255. The unit's
    binary search finds the first row whose sum is not above the one sought, and row 255 where
    there is none; the sum of row 255 is never looked at. With inv = r in row r, that row has to
    hold from c / (r + 1/2) on, where r becomes the nearest whole number: sum_value =
    ceil(c / (r + 1/2)). No sum needs row 0 (it would start at 2c), which gets the largest sum and
    an inv of 1.

    Error, in steps of the result. inv is wrong by at most 1/2, which counts
    1/2 * (E + 1) / 2^16 for an exponential of E; the two roundings add 1/2 + 1/2048; exponentials
    wrong by 1/2 each add at most vector_size / (2 * E * output_scale). Together 1.0 step for short
    vectors and 1.5 for 256 elements (`SoftmaxTable.max_error`), with E = 65535. Inputs of 8 bits
    are never further than 255 below their maximum; what is, counts as 0, and the dropped
    exp(-256 * input_scale) per element comes on top.

    Measured on the unit with E = 65535: over all 256 pairs (0, -k), for input scales of 1/8, 1/16
    and 1/32, at most 0.69 steps of 1/255; over random vectors of 2 to 256 elements at most 0.96.

    Args:
        input_scale: the real value of one step of the input, above 0.
        vector_size: the longest vector, where `is_velquin` is False.
        is_velquin: selects the second variant of the unit, whose sum saturates instead of wrapping.

    Returns:
        A `SoftmaxTable`.

    Raises:
        ValueError: for an `input_scale` that is not above 0, or a `vector_size` outside
            [1, 65793], beyond which no exponential of 8 bits is left.

    Example:
        >>> from bitfold import tables
        >>> table = tables.softmax(1 / 16)
        >>> round(table.max_error(16) / table.output_scale, 2)  # in steps
        1.03
        >>> table.largest_vector, tables.softmax(1 / 16, vector_size=1000).largest_vector
        (256, 1000)
    """
    require(input_scale > 0, "input_scale must be above 0", input_scale)
    require(
        1 <= vector_size <= _LARGEST_SUM // 255, "vector_size must lie in [1, 65793]", vector_size
    )
    largest = _LARGEST_EXPONENTIAL
    if not is_velquin:
        largest = min(largest, _LARGEST_SUM // vector_size)
    exponentials = np.rint(largest * np.exp(-input_scale * np.arange(256.0))).astype(np.uint64)
    product = _LARGEST_RECIPROCAL * (largest + 1)
    reciprocals = np.arange(256, dtype=np.uint64)
    sums = np.minimum(np.ceil(product / (reciprocals + 0.5)), _LARGEST_SUM).astype(np.uint64)
    reciprocals[0] = 1
    rows = exponentials | sums << np.uint64(16) | reciprocals << np.uint64(40)
    lut_table = np.stack([rows & np.uint64(2**32 - 1), rows >> np.uint64(32)], axis=1)
    return SoftmaxTable(
        lut_table.astype(np.uint32).ravel(), bool(is_velquin), float(input_scale),
        65536 / product, largest, _LARGEST_SUM // largest,
    )  # fmt: skip
