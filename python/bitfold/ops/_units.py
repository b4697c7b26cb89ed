# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The units that follow tables: layer normalisation, softmax, activation."""

from __future__ import annotations

from typing import Any

import numpy as np
import tensorflow as tf

from bitfold._frame.arguments import element_tensor, fixed_tensor, integer, scalar_operand
from bitfold._frame.layers import accepts_symbolic
from bitfold._frame.loaded import raw_ops
from bitfold._frame.operands import Needs
from bitfold._frame.tensors import is_tensor


@accepts_symbolic
def layer_norm(
    value: Any,
    lut: Any,
    *,
    zero_point: Any = 0,
    exponent_sub_value: Any,
    sum_of_x_mult: Any,
    sum_of_x_shift: Any = 0,
    sum_of_x_mult_n_shift: Any,
    x_squared_mult: Any,
    sum_of_x_squares_shift: Any = 0,
    epsilon: Any = 1,
    mul_act_man: Any,
    mul_act_exp: Any,
    mul_act_bias: Any = 0,
    rms_mode_enable: Any = 0,
    activation_ebias_mode: Any = 0,
    activation_output_mode: Any = 0,
    name: str | None = None,
) -> tf.Tensor:
    """Normalise each vector along the channels in fixed point.

    The unit sums the elements minus the zero point and their squares, takes the inverse square
    root of the variance term from a table, scales each element minus the mean by it and passes it
    through a multiply, shift and bias stage. ``bitfold.tables.layer_norm`` makes a table and the
    scalars that fit together.

    Args:
        value: float32 [N, H, W, C] holding whole numbers, C at most 4096, H * W at most 2^20.
        lut: float32 with 256 elements: bits 0 to 15 the inverse square root at the start of an
            interval, bits 16 to 23 its fall per step within it.
        zero_point: subtracted from every element.
        exponent_sub_value: base of the normalising shift.
        sum_of_x_mult: multiplier of the rounded sum that gives the mean.
        sum_of_x_shift: shift of the sum.
        sum_of_x_mult_n_shift: shift of the mean.
        x_squared_mult: factor of the sum of squares, as a rule C.
        sum_of_x_squares_shift: shift of the sum of squares.
        epsilon: added to the variance.
        mul_act_man: multiplier of the output stage.
        mul_act_exp: shift of the output stage.
        mul_act_bias: bias of the output stage.
        rms_mode_enable: 1 takes the mean as 0.
        activation_ebias_mode: 1 shifts the output by 5 bits more.
        activation_output_mode: 1 gives results of 0 to 32767 instead of 0 to 255.
        name: the node's name.

    Returns:
        A float32 tensor of the shape of `value`, whole numbers.

    Raises:
        TypeError: for a `value` or `lut` that is not float32.
        ValueError: for a `value` of another rank or above the limits, a `lut` of another size,
            numbers beyond 32 bits, and shifts above 64 (`mul_act_exp`: above 58, or 53 with
            `activation_ebias_mode`).
        tf.errors.InvalidArgumentError: for an empty scalar.

    What depends on the data of a vector ends the process with an assertion: a variance term of 0,
    which an `epsilon` of at least 1 excludes where the rounding of the sums does not outweigh it,
    and a sum of squares of 2^56 and more.

    Example:
        >>> import bitfold, numpy as np
        >>> from bitfold import tables
        >>> table = tables.layer_norm(4, output_scale=1 / 64)
        >>> x = np.float32([10, 20, 30, 40]).reshape(1, 1, 1, 4)
        >>> result = bitfold.ops.layer_norm(x, **table.keywords).numpy().ravel()
        >>> result
        array([ 42.,  99., 157., 214.], dtype=float32)
        >>> table.dequantise(result).round(2)  # mean 25, deviation 11.2
        array([-1.34, -0.45,  0.45,  1.34])
    """
    scalars = dict(
        zero_point=zero_point,
        exponent_sub_value=exponent_sub_value,
        sum_of_x_mult=sum_of_x_mult,
        sum_of_x_shift=sum_of_x_shift,
        sum_of_x_mult_n_shift=sum_of_x_mult_n_shift,
        x_squared_mult=x_squared_mult,
        sum_of_x_squares_shift=sum_of_x_squares_shift,
        epsilon=epsilon,
        mul_act_man=mul_act_man,
        mul_act_exp=mul_act_exp,
        mul_act_bias=mul_act_bias,
        rms_mode_enable=rms_mode_enable,
        activation_ebias_mode=activation_ebias_mode,
        activation_output_mode=activation_output_mode,
    )
    value = element_tensor(value, "value", tf.float32)
    lut = element_tensor(lut, "lut", tf.float32)
    tensors = {key: scalar_operand(number, key, tf.uint32) for key, number in scalars.items()}
    needs = Needs()
    _require_vectors(needs, value)
    _require_shifts(needs, tensors)
    needs.elements(lut, "lut", 256, "the unit's table")
    with needs.met():
        return raw_ops.h_layernorm(value=value, **tensors, lut=lut, name=name)


def _require_vectors(needs: Needs, value: tf.Tensor) -> None:
    """Require images whose vectors the normalisation unit holds."""
    needs.rank(value, "value", 4)
    channels = needs.dimension(value, 3)
    positions = needs.dimension(value, 1) * needs.dimension(value, 2)
    needs.holds(channels <= 4096, "value of at most 4096 channels", channels)
    needs.holds(positions <= 2**20, "value of a height x width of at most 2^20", positions)


def _require_shifts(needs: Needs, scalars: dict[str, tf.Tensor | int]) -> None:
    """Require shifts that the normalisation unit makes."""
    by_ebias = _number(scalars["activation_ebias_mode"])
    limits = {
        "sum_of_x_shift": 64,
        "sum_of_x_mult_n_shift": 64,
        "sum_of_x_squares_shift": 64,
        "mul_act_exp": 53 if by_ebias else 58,
    }
    for key, most in limits.items():
        shift = _number(scalars[key])
        needs.holds(shift is None or shift <= most, f"{key} of at most {most}", shift)


def _number(scalar: tf.Tensor | int) -> int | None:
    """Return the number that the unit will read of a scalar, None where it is not known."""
    if isinstance(scalar, int):
        return scalar
    value = tf.get_static_value(scalar)
    return None if value is None or value.size == 0 else int(np.ravel(value)[0])


@accepts_symbolic
def softmax(
    value: Any, lut_table: Any, *, is_velquin: bool = False, name: str | None = None
) -> tf.Tensor:
    """Compute the softmax unit's result for each vector.

    The unit looks up an exponential for each element's distance below the vector's maximum, sums
    them in 24 bits, finds the sum's reciprocal in a second table, and multiplies. Distances of 256
    and more count as an exponential of 0. ``bitfold.tables.softmax`` makes the table.

    Args:
        value: float32 holding whole numbers; dimension 0 counts the vectors, the rest is one
            vector. Rank 1 is a single vector.
        lut_table: uint32 with 512 elements, 256 rows of two words: bits 0 to 15 the exponential,
            16 to 39 the sum, 40 to 47 its reciprocal; sums fall.
        is_velquin: the sum saturates; otherwise it wraps at 24 bits and prints "Warning, the
            softmax sum has overflowed." to C's standard output.
        name: the node's name.

    Returns:
        A float32 tensor of the shape of `value`, whole numbers.

    Raises:
        TypeError: for a `value` that is not float32 or a table that is not uint32.
        ValueError: for a table of another size, or entries beyond 32 bits.
        tf.errors.InvalidArgumentError: for more than 2^31 - 1 elements.

    Example:
        >>> import bitfold, numpy as np
        >>> from bitfold import tables
        >>> table = tables.softmax(1 / 16)
        >>> bitfold.ops.softmax(np.float32([[32, 16, 0]]), **table.keywords).numpy()
        array([[170.,  63.,  23.]], dtype=float32)
        >>> # These are steps of 1/255; the softmax of 2, 1, 0 is 0.665, 0.245, 0.090.
    """
    value = element_tensor(value, "value", tf.float32)
    lut_table = fixed_tensor(lut_table, "lut_table", tf.uint32)
    needs = Needs()
    needs.elements(lut_table, "lut_table", 512, "256 rows of two words")
    with needs.met():
        return raw_ops.h_softmax(value=value, lut_table=lut_table, is_velquin=is_velquin, name=name)


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

    Args:
        value: whole numbers [N, H, W, C] of any integer type up to int64; their low 32 bits count.
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
        An int32 tensor of the shape of `value`.

    Raises:
        TypeError: for tables that are not whole numbers.
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
    value = fixed_tensor(value, "value", tf.int64)
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
        return raw_ops.h_activation(
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
