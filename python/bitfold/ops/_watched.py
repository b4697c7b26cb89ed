# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Layers of a quantised network in one op each that say what their sums are at full width."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any, NamedTuple

import tensorflow as tf

from bitfold._frame.arguments import integer
from bitfold._frame.loaded import raw_ops
from bitfold.ops._prepared import layer


class WatchedConvolution(NamedTuple):
    """A layer's output, and what its final sums reach at full width, of each channel together.

    Attributes:
        output: [N, H', W', C], as `prepared_conv2d` gives it.
        extremes: int64 [2, C], the least and the greatest sum. Of no images int64's greatest and
            least number: what other data are combined with by minimum and maximum.
        outside: int64 [widths, C], how many sums are outside of each width. Other data add to them.
    """

    output: tf.Tensor
    extremes: tf.Tensor
    outside: tf.Tensor


def watched_conv2d(
    input: Any,
    filter: Any,
    bias: Any | None,
    multipliers: Any,
    *,
    accumulator_sizes: Sequence[int] = (),
    **keywords: Any,
) -> WatchedConvolution:
    """Compute a layer of a quantised network, and find what its final sums reach.

    The output and the printed lines are those of `prepared_conv2d`. Beside them stands what
    `partial_sums` finds of the final sums, whatever accumulator the layer has: as whole numbers
    that never wrap, of the weights as they are stored, with the same shift. Where the accumulator
    adds up exactly but for the bits that it drops at the end this costs a few percent, else as much
    as the layer at full width.

    There is no gradient: results are integers.

    Args:
        input: as `prepared_conv2d` takes it.
        filter: the same.
        bias: the same; of int64 of at most 2^62 in magnitude.
        multipliers: the same.
        accumulator_sizes: the widths that final sums are compared with, from 1 to 32 bits.
        **keywords: all that `prepared_conv2d` takes; a `mult_shift` of at most 30, and `zeros` with
            which an image has fewer than 2^29 elements.

    Returns:
        The output, the extremes of final sums, and how many are outside of each width.

    Raises:
        TypeError: for tensors of other types, and other keywords.
        ValueError, tf.errors.InvalidArgumentError: for shapes, sizes and multipliers that do not
            fit.

    Example:
        >>> import bitfold, numpy as np
        >>> data = np.int8([[100, 100], [100, -90]]).reshape(1, 2, 1, 2)
        >>> found = bitfold.ops.watched_conv2d(
        ...     data, np.ones([1, 1, 2, 1], np.int8), None, [1.0],
        ...     accumulator_size=8, accumulator_sizes=[8, 9])
        >>> found.output.numpy().ravel(), found.extremes.numpy().ravel()
        (array([-56,  10], dtype=int8), array([ 10, 200]))
        >>> found.outside.numpy().ravel()
        array([1, 0])
    """
    found = layer(
        raw_ops.h_watched_convolution,
        (input, filter, bias, multipliers),
        accumulator_sizes=[integer(value, "accumulator_sizes") for value in accumulator_sizes],
        **keywords,
    )
    return WatchedConvolution(*found)


class CheckedConvolution(NamedTuple):
    """A layer's output, and how many of its sums are wrong.

    Attributes:
        output: [N, H', W', C], as `prepared_conv2d` gives it.
        wrong: int64, how many sums differ from those of full width. Other data add to it.
    """

    output: tf.Tensor
    wrong: tf.Tensor


def checked_conv2d(
    input: Any, filter: Any, bias: Any | None, multipliers: Any, **keywords: Any
) -> CheckedConvolution:
    """Compute a layer of a quantised network, and count the sums that are wrong.

    The output and the printed lines are those of `prepared_conv2d`. Beside them stands how many
    sums, with their bias and before they are requantised, differ from what `partial_sums` sees at
    their ends: whole numbers that never wrap, of the weights as they are stored, with the same
    shift. Where the accumulator adds up exactly but for the bits that it drops at the end, and 32
    bits hold all sums, this costs a few percent; else each sum is formed by the definition, which
    takes many times as long. In sums of 64 bits nothing is wrong.

    There is no gradient: results are integers.

    Args:
        input: as `prepared_conv2d` takes it.
        filter: the same.
        bias: the same; of int64 of at most 2^62 in magnitude.
        multipliers: the same.
        **keywords: all that `prepared_conv2d` takes; a `mult_shift` of at most 30, and `zeros` with
            which an image has fewer than 2^29 elements.

    Returns:
        The output, and the number of wrong sums.

    Raises:
        TypeError: for tensors of other types, and other keywords.
        ValueError, tf.errors.InvalidArgumentError: for shapes, sizes and multipliers that do not
            fit.

    Example:
        >>> import bitfold, numpy as np
        >>> data = np.int8([[100, 100], [100, -90]]).reshape(1, 2, 1, 2)
        >>> found = bitfold.ops.checked_conv2d(
        ...     data, np.ones([1, 1, 2, 1], np.int8), None, [1.0], accumulator_size=8)
        >>> found.output.numpy().ravel(), int(found.wrong)
        (array([-56,  10], dtype=int8), 1)
    """
    operands = (input, filter, bias, multipliers)
    return CheckedConvolution(*layer(raw_ops.h_checked_convolution, operands, **keywords))
