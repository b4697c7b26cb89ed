# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The activation unit."""

from __future__ import annotations

from typing import Any

import numpy as np
import tensorflow as tf

from bitfold._frame.arguments import fixed_tensor, integer
from bitfold._frame.layers import accepts_symbolic
from bitfold._frame.loaded import raw_ops
from bitfold._frame.operands import Needs
from bitfold._frame.tensors import as_tensor, is_tensor
from bitfold.gradients.activation import ActivationPieces, activated, whole


@accepts_symbolic
def activation(
    value: Any,
    x_points: Any,
    offsets: Any,
    slopes_m: Any,
    slopes_e: Any,
    size_splits: Any = None,
    *,
    ebias: int = 0,
    clip_bits: int = 127,
    is_8bit_to_16bit_mode: bool = False,
    is_16bit_precision_mode: bool = False,
    is_velquin: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Apply a piecewise-linear function to groups of channels.

    Each element is multiplied by the slope of its piece, shifted right by the slope's exponent
    plus `ebias` with halves to even, clipped and offset. ``bitfold.tables.activation`` fits the
    tables to a function.

    The gradient, by a `value` of floats, is the slope of the element's piece, 0 where the result is
    clipped.

    Args:
        value: whole numbers [N, H, W, C] of any integer type up to int64; their low 32 bits count.
            Or a float32 tensor of whole numbers, for training: fractions are cut off, and what no
            int32 holds counts as -2^31.
        x_points: [G, P], each group's breakpoints, ascending; a value equal to one belongs to the
            piece after it.
        offsets: [G, at least P + 1], each piece's offset.
        slopes_m: [G, at least P + 1], each piece's slope.
        slopes_e: [G, at least P + 1], each piece's exponent.
        size_splits: [G], how many channels each group has, from channel 0 on, C together; by
            default one group of all channels.
        ebias: added to every exponent.
        clip_bits: the largest result before the offset: results lie in
            [-clip_bits - 1, clip_bits] there. A limit in spite of its name, no number of bits:
            127 for signed 8-bit results.
        is_8bit_to_16bit_mode: multiply the product by 256 before the shift.
        is_16bit_precision_mode: shift the signed product instead of its magnitude.
        is_velquin: likewise, the behaviour of one variant of the unit.
        name: the node's name.

    Returns:
        An int32 tensor of the shape of `value`; float32 where `value` is a float32 tensor.

    Raises:
        TypeError: for a `value` of other types; for tables that are not whole numbers.
        ValueError: for a `value`, tables or `size_splits` of another rank; tables with more or
            fewer rows than groups, or too short for their pieces; groups that have more or fewer
            channels together than `value`.

    Example:
        >>> import bitfold, numpy as np
        >>> from bitfold import tables
        >>> x = np.array([-64, -1, 0, 64]).reshape(1, 1, 1, 4)
        >>> # Below 0 a slope of 0, from 0 on a slope of 32 / 2^6.
        >>> bitfold.ops.activation(x, [[0]], [[0, 0]], [[0, 32]], [[6, 6]]).numpy().ravel()
        array([ 0,  0,  0, 32], dtype=int32)
        >>> table = tables.activation(
        ...     "gelu", input_scale=1 / 16, output_scale=1 / 16, output_zero_point=0
        ... )
        >>> bitfold.ops.activation(x, **table.keywords).numpy().ravel()
        array([ 0,  0,  0, 64], dtype=int32)
    """
    floats = as_tensor(value) if is_tensor(value) and value.dtype == tf.float32 else None
    value = fixed_tensor(value if floats is None else whole(floats), "value", tf.int64)
    tables = {
        "x_points": fixed_tensor(x_points, "x_points", tf.int64),
        "offsets": fixed_tensor(offsets, "offsets", tf.int64),
        "slopes_m": fixed_tensor(slopes_m, "slopes_m", tf.int64),
        "slopes_e": fixed_tensor(slopes_e, "slopes_e", tf.int64),
    }
    needs = Needs()
    needs.rank(value, "value", 4)
    if size_splits is None:
        groups, size_splits = 1, _all_channels(value)
    else:
        size_splits = fixed_tensor(size_splits, "size_splits", tf.int64)
        _require_splits(needs, size_splits, needs.dimension(value, -1))
        groups = needs.dimension(size_splits, 0)
    _require_tables(needs, tables, groups)
    with needs.met():
        result = raw_ops.h_activation(
            inp=value,
            **tables,
            size_splits=size_splits,
            is_8bit_to_16bit_mode=is_8bit_to_16bit_mode,
            is_velquin=is_velquin,
            ebias=integer(ebias, "ebias"),
            clip_bits=integer(clip_bits, "clip_bits"),
            beta=0,
            is_16bit_precision_mode=is_16bit_precision_mode,
            is_signed_output=True,
            name=name,
        )
    if floats is None:
        return result
    pieces = ActivationPieces(
        tables["x_points"], tables["slopes_m"], tables["slopes_e"], size_splits,
        ebias, clip_bits, is_8bit_to_16bit_mode,
    )  # fmt: skip
    return activated(floats, result, pieces)


def _all_channels(value: tf.Tensor) -> np.ndarray | tf.Tensor:
    """Return the sizes of one group of all channels."""
    if value.shape.rank is None or value.shape[-1] is None:
        return tf.shape(value, tf.int64)[-1:]
    return np.array([value.shape[-1]], np.int64)


def _require_splits(needs: Needs, size_splits: tf.Tensor, channels: Any) -> None:
    """Require groups that take every channel."""
    needs.rank(size_splits, "size_splits", 1)
    sizes = tf.get_static_value(size_splits)
    what = "size_splits to sum to the channels of value"
    if sizes is None or is_tensor(channels):
        needs.holds(tf.equal(tf.reduce_sum(size_splits), channels), what, size_splits)
        return
    sizes = sizes.tolist()
    needs.holds(min(sizes, default=0) >= 0, "size_splits not to be negative", sizes)
    needs.holds(sum(sizes) == channels, f"{what}, {channels}", sizes)


def _require_tables(needs: Needs, tables: dict[str, tf.Tensor], groups: Any) -> None:
    """Require a row of each table for each group, with an entry for each piece."""
    for key, table in tables.items():
        needs.rank(table, key, 2)
    pieces = needs.dimension(tables["x_points"], 1) + 1
    for key, table in tables.items():
        count = "" if is_tensor(groups) else f"{groups} "
        what = f"{key} to have {count}rows, one for each group of size_splits"
        needs.size(needs.dimension(table, 0), groups, what, table)
        if key != "x_points":
            columns = needs.dimension(table, 1)
            what = f"{key} to have a column for each piece, one more than x_points"
            needs.holds(columns >= pieces, what, columns)
