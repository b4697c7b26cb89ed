# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The units that follow tables of a function of a vector: layer normalisation, softmax."""

from __future__ import annotations

from typing import Any

import numpy as np
import tensorflow as tf

from bitfold._frame.arguments import element_tensor, fixed_tensor, scalar_operand
from bitfold._frame.layers import accepts_symbolic
from bitfold._frame.loaded import raw_ops
from bitfold._frame.operands import Needs


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

    The gradient, by `value`, is that of the same steps in real numbers with an exact inverse square
    root, 0 where the result is at the end of its range.

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

    The gradient, by `value`, is that of the softmax of real numbers, with the scales of input and
    result that the table tells.

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
