# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the sums of a layer need on their way."""

from __future__ import annotations

import math
from collections.abc import Sequence
from typing import Any, NamedTuple

import numpy as np
import tensorflow as tf

from bitfold._frame.arguments import integer
from bitfold._frame.loaded import raw_ops
from bitfold._frame.operands import Needs
from bitfold._frame.tensors import as_tensor

_STORED = (tf.int8, tf.int16)
_BIASES = (tf.int32, tf.int64)
_NONE = {dtype: np.zeros([0], dtype.as_numpy_dtype) for dtype in _BIASES}


class PartialSums(NamedTuple):
    """What was found, of all sums of an output channel together; int64 tensors.

    Attributes:
        extremes: [4, C]: the least and the greatest final sum, the least and the greatest partial
            sum. Where there was no sum, int64's greatest and least number: what other data are
            combined with by minimum and maximum.
        counts: [widths, C, 3]: sums that end outside of the width, sums of which some partial sum
            was outside, and single partial sums outside. Other data add to them.
        first: [widths, C]: the least number of addends after which a partial sum was outside, 0
            where none was.
    """

    extremes: tf.Tensor
    counts: tf.Tensor
    first: tf.Tensor


def partial_sums(
    input: Any,
    filter: Any,
    bias: Any | None = None,
    *,
    strides: Sequence[int] = (1, 1),
    dilations: Sequence[int] = (1, 1),
    padding: str = "VALID",
    zeros: Sequence[int] = (0, 0, 0, 0),
    depthwise: bool = False,
    input_zero_point: int = 0,
    filter_zero_point: int = 0,
    mult_shift: int = 0,
    accumulator_sizes: Sequence[int] = (),
    known_extremes: Any | None = None,
    name: str | None = None,
) -> PartialSums:
    """Find what the sums of a layer need on their way, and what would leave an accumulator.

    The sums are those of `prepared_conv2d` as whole numbers that never wrap. The first partial sum
    is the first addend; each further one is the one before plus the next addend, in the order of
    the convolutions; the bias, where there is one, is the last addend. What a window meets outside
    of the image and its `zeros` is no addend. A sum is outside of w bits if it is below -2^(w-1) or
    above 2^(w-1) - 1.

    There is no gradient: results are integers.

    Args:
        input: int8 or int16 [N, H, W, C].
        filter: int8 or int16 [h, w, C, outputs]; depthwise [h, w, 1, outputs], outputs at most C.
            With a leading dimension N, one for each image.
        bias: int32 or int64 [outputs], of at most 2^62 in magnitude, or None.
        strides: of the windows, for rows and columns.
        dilations: distances of the taps, for rows and columns.
        padding: "SAME" or "VALID", where the windows lie: as those of the convolutions.
        zeros: rows of zeros above and below, columns left and right, that the image has before.
        depthwise: whether each channel is summed for itself.
        input_zero_point: the stored integer of the input that stands for 0.
        filter_zero_point: the stored integer of the filter that stands for 0.
        mult_shift: every product, and the bias, is divided by 2^mult_shift, halves to even, before
            it is added. At most 30.
        accumulator_sizes: the widths that sums are compared with, from 1 to 32 bits.
        known_extremes: int64 [4, outputs], extremes that were found before, or None: those of the
            result are of all together. The more they span, the sooner the result is there.
        name: the node's name.

    Returns:
        The extremes, the counts of each width, and the first addends that left it.

    Raises:
        TypeError: for tensors of other types.
        ValueError, tf.errors.InvalidArgumentError: for shapes, sizes, widths and zero points that
            do not fit.

    Example:
        >>> import bitfold, numpy as np
        >>> # 100 + 100 leaves 8 bits; -90 brings the sum back.
        >>> data = np.int8([100, 100, -90]).reshape(1, 1, 1, 3)
        >>> found = bitfold.ops.partial_sums(data, np.ones([1, 1, 3, 1], np.int8),
        ...                                  accumulator_sizes=[8, 9])
        >>> found.extremes.numpy()[:, 0]
        array([110, 110, 100, 200])
        >>> found.counts.numpy()[:, 0]
        array([[0, 1, 1],
               [0, 0, 0]])
        >>> found.first.numpy()[:, 0]
        array([2, 0])
    """
    input = _stored(input, "input")
    filter = _stored(filter, "filter")
    bias = as_tensor(_NONE[tf.int32] if bias is None else bias)
    if bias.dtype not in _BIASES:
        raise TypeError(f"bias must be int32 or int64, got {bias.dtype.name}")
    known = as_tensor(_NONE[tf.int64] if known_extremes is None else known_extremes, tf.int64)
    found = raw_ops.h_partial_sums(
        input=input,
        filter=filter,
        bias=bias,
        known_extremes=known,
        strides=[integer(value, "strides") for value in strides],
        dilations=[integer(value, "dilations") for value in dilations],
        padding=padding,
        zeros=[integer(value, "zeros") for value in zeros],
        is_depthwise=bool(depthwise),
        input_zero_point=integer(input_zero_point, "input_zero_point"),
        filter_zero_point=integer(filter_zero_point, "filter_zero_point"),
        mult_shift=integer(mult_shift, "mult_shift"),
        accumulator_sizes=[integer(value, "accumulator_sizes") for value in accumulator_sizes],
        name=name,
    )
    return PartialSums(*found)


def matmul_partial_sums(
    a: Any,
    b: Any,
    *,
    a_zero_point: int = 0,
    b_zero_point: int = 0,
    mult_shift: int = 0,
    accumulator_sizes: Sequence[int] = (),
    known_extremes: Any | None = None,
    name: str | None = None,
) -> PartialSums:
    """Find what the sums of a product of stored matrices need on their way.

    As `partial_sums` does, for the sums of `matmul` on the numbers less their zero points: of each
    element the products from the first column of `a` on. A column of the product is a channel.

    There is no gradient: results are integers.

    Args:
        a: int8 or int16 [..., rows, inner].
        b: int8 or int16 [..., inner, cols], with the same leading dimensions.
        a_zero_point: the stored integer of `a` that stands for 0.
        b_zero_point: the stored integer of `b` that stands for 0.
        mult_shift: every product is divided by 2^mult_shift, halves to even, before it is added. At
            most 30.
        accumulator_sizes: the widths that sums are compared with, from 1 to 32 bits.
        known_extremes: int64 [4, cols], extremes that were found before, or None: those of the
            result are of all together.
        name: the node's name.

    Returns:
        The extremes, the counts of each width, and the first addends that left it.

    Raises:
        TypeError: for tensors of other types.
        ValueError, tf.errors.InvalidArgumentError: for shapes, widths and zero points that do not
            fit.

    Example:
        >>> import bitfold, numpy as np
        >>> a, b = np.int8([[100, -100], [1, 2]]), np.int8([[3, 0], [3, 1]])
        >>> found = bitfold.ops.matmul_partial_sums(a, b, accumulator_sizes=[9])
        >>> found.extremes.numpy()
        array([[   0, -100],
               [   9,    2],
               [   0, -100],
               [ 300,    2]])
        >>> found.counts.numpy()
        array([[[0, 1, 1],
                [0, 0, 0]]])
    """
    a, b = _stored(a, "a"), _stored(b, "b")
    needs = Needs()
    rank = a.shape.rank
    if rank is None or rank < 2 or b.shape.rank != rank:
        raise ValueError(f"a and b must have one rank of at least 2, got {a.shape} and {b.shape}")
    for axis in range(rank - 2):
        size = needs.dimension(a, axis)
        needs.size(needs.dimension(b, axis), size, "b to have the leading dimensions of a", b)
    leading = math.prod(needs.dimension(a, axis) for axis in range(rank - 2))
    with needs.met():
        image = tf.reshape(a, [leading, needs.dimension(a, -2), 1, needs.dimension(a, -1)])
        filter = tf.reshape(b, [leading, 1, 1, needs.dimension(b, -2), needs.dimension(b, -1)])
    return partial_sums(
        image,
        filter,
        input_zero_point=a_zero_point,
        filter_zero_point=b_zero_point,
        mult_shift=mult_shift,
        accumulator_sizes=accumulator_sizes,
        known_extremes=known_extremes,
        name=name,
    )


def _stored(x: Any, name: str) -> tf.Tensor:
    """Return a tensor of stored integers."""
    x = as_tensor(x)
    if x.dtype not in _STORED:
        raise TypeError(f"{name} must be int8 or int16, got {x.dtype.name}")
    return x
