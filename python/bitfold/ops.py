# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The emulated operations, named as in ``tf`` and ``tf.nn``: data first, then keywords.

What holds for all of them:

Element types. int32 carries integer-quantised data; float32 carries the same integers in floats,
or anything else. Narrower types widen. Results have the type of the first operand.

The accumulator. ``accumulator_size`` bits, w for short, hold [-2^(w-1), 2^(w-1) - 1]; a sum that
leaves the range is wrapped once by 2^w. int32 data needs 0 <= w <= 32. With ``use_fp16_acc`` float
data is accumulated in half precision instead; integer additions only quantise the initial value.

The shift. ``mult_shift`` scales every product before it is added: int32 products are shifted right
by it, halves to even; float products are divided by the value itself (by 4, not by 2^4), then
rounded, halves to even. 0 leaves products alone.

Printed lines. A float sum outside [-8388607, 8388607) prints
``@@@ WARNING: acc <sum> is out of bounds <-8388607,8388607>`` to C's standard output, each time an
op runs. Inside ``tf.function`` the runtime's graph optimiser may run an op once where it was called
twice with the same inputs, or once for all where they are constants; call eagerly to count lines.

Tables. ``layer_norm``, ``softmax`` and ``activation`` have fixed types and take the tables that
``bitfold.tables`` makes.

Layout. Tensors are NHWC. Gradients are undefined. No XLA: leave ``jit_compile`` off.

Arguments may be numpy arrays, lists, tensors, variables or Keras' symbolic tensors; inside
``tf.function`` their shapes may be partly unknown, and strides and dilations must be positive (the
runtime's rule). Errors found in the data raise
``tf.errors.InvalidArgumentError``, which says what is needed and what came.
"""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

import tensorflow as tf

from bitfold import raw_ops
from bitfold._arguments import (
    element_tensor,
    fixed_tensor,
    integer,
    padding_name,
    scalar_tensor,
    spatial_values,
)
from bitfold._keras import accepts_symbolic

__all__ = [
    "activation",
    "add",
    "bias_add",
    "conv2d",
    "depthwise_conv2d",
    "dilated_conv2d",
    "layer_norm",
    "softmax",
]


@accepts_symbolic
def add(
    value: Any,
    elementwise: Any,
    *,
    accumulator_size: int = 32,
    factor: Any = 1,
    feed_repeat: Any = 1.0,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Add a scaled tensor into a tensor of accumulator values.

    Each element becomes ``value`` with ``factor * elementwise``, scaled by ``mult_shift``, added
    ceil(``feed_repeat``) times, wrapping after each addition.

    Args:
        value: the accumulators, float32 or int32, of rank 4 or 2. Of other ranks only the first
            d0 * d1 elements are computed and the rest is 0.
        elementwise: the operand, of the type and as many elements as `value`.
        accumulator_size: the accumulator's width in bits, at least 0.
        factor: the multiplier of `elementwise`, a number of `value`'s type.
        feed_repeat: how many times the operand is added; 0 and below add nothing.
        mult_shift: the shift or divisor of the product, -128 to 127.
        use_fp16_acc: accumulate in half precision.
        name: the node's name.

    Returns:
        A tensor of the shape and type of `value`.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold.
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data;
            a rank below 2; an `elementwise` that is too small; a feed repeat that is NaN or above
            2^31.

    Example:
        >>> import bitfold
        >>> # 150 does not fit 8 bits and wraps to 150 - 256.
        >>> bitfold.ops.add([[100, 1]], [[50, 2]], accumulator_size=8).numpy()
        array([[-106,    3]], dtype=int32)
        >>> # 5 / 2 and 7 / 2 round half to even; the operand is added three times.
        >>> bitfold.ops.add([[0, 0]], [[5, 7]], mult_shift=1, feed_repeat=2.5).numpy()
        array([[ 6, 12]], dtype=int32)
    """
    value = element_tensor(value, "value")
    return raw_ops.h_add(
        value=value,
        elementwise=element_tensor(elementwise, "elementwise", value.dtype),
        elementwise_factor=scalar_tensor(factor, "factor", value.dtype),
        elementwise_feed_repeat=scalar_tensor(feed_repeat, "feed_repeat", tf.float32),
        mult_shift=scalar_tensor(mult_shift, "mult_shift", tf.int8),
        accumulator_size=integer(accumulator_size, "accumulator_size"),
        use_fp16_acc=use_fp16_acc,
        name=name,
    )


@accepts_symbolic
def bias_add(
    value: Any,
    bias: Any,
    *,
    accumulator_size: int = 32,
    factor: Any = 1,
    feed_repeat: Any = 1.0,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Add a scaled bias per channel into a tensor of accumulator values.

    Each element becomes ``value`` with ``bias[channel] * factor``, scaled by ``mult_shift``, added
    ceil(``feed_repeat``) times, wrapping after each addition.

    Args:
        value: the accumulators, float32 or int32, [N, H, W, C] or [N, C]. For other ranks an error
            is logged and the result is 0.
        bias: one value per channel, [C], of the type of `value`.
        accumulator_size: the accumulator's width in bits, at least 0.
        factor: the multiplier of `bias`, a number of `value`'s type.
        feed_repeat: how many times the bias is added; 0 and below add nothing.
        mult_shift: the shift or divisor of the product, -128 to 127.
        use_fp16_acc: accumulate in half precision.
        name: the node's name.

    Returns:
        A tensor of the shape and type of `value`.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold; in a graph also for a `bias` whose
            shape is not [C].
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data;
            fewer than C biases; a feed repeat that is NaN or above 2^31.

    Example:
        >>> import bitfold
        >>> bitfold.ops.bias_add([[32767, 0]], [1, 2], accumulator_size=16).numpy()
        array([[-32768,      2]], dtype=int32)
        >>> # The float datapath divides by the shift's value: 3 / 2 = 1.5, to even 2.
        >>> bitfold.ops.bias_add([[0.0]], [3.0], mult_shift=2).numpy()
        array([[2.]], dtype=float32)
    """
    value = element_tensor(value, "value")
    return raw_ops.h_bias_add(
        value=value,
        bias=element_tensor(bias, "bias", value.dtype),
        bias_factor=scalar_tensor(factor, "factor", value.dtype),
        bias_feed_repeat=scalar_tensor(feed_repeat, "feed_repeat", tf.float32),
        mult_shift=scalar_tensor(mult_shift, "mult_shift", tf.int8),
        accumulator_size=integer(accumulator_size, "accumulator_size"),
        use_fp16_acc=use_fp16_acc,
        name=name,
    )


@accepts_symbolic
def conv2d(
    input: Any,
    filters: Any,
    *,
    strides: int | Sequence[int] = 1,
    padding: str = "SAME",
    dilations: int | Sequence[int] = 1,
    elementwise: Any = None,
    accumulator_size: int = 32,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Convolve images with filters through a limited accumulator.

    Each output starts at 0 and adds its products one by one, each scaled by ``mult_shift``, filter
    row by filter row, in each row input channel by input channel, in each channel column by
    column; taps outside the image are skipped.

    Args:
        input: images, float32 or int32, [N, H, W, C].
        filters: [height, width, C, outputs], of the type of `input`. Of a filter with a leading
            dimension before these the first is used.
        strides: one number, [height, width] or [1, height, width, 1]; not 0.
        padding: "SAME" or "VALID". Where SAME pads by an even total and the window is odd, the
            first window is centred on the first pixel, also at strides where ``tf.nn.conv2d``
            places it further in (9 pixels, a window of 5, a stride of 3).
        dilations: the distance of the filter's taps, in the same forms as `strides`.
        elementwise: None, or a tensor of the type of `input` and as many elements as the result,
            added unscaled after the centre row of the filter. With another count it is ignored;
            so it is when an even filter height meets a dilation above 1.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift or divisor of each product, -128 to 127.
        use_fp16_acc: accumulate in half precision (float32 data only).
        name: the node's name.

    Returns:
        A tensor [N, out_height, out_width, outputs] of the type of `input`.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for malformed strides, dilations, padding or numbers.
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data;
            strides of 0; ranks other than 4; a filter with fewer input channels than the images;
            an output that would have a negative size.

    Example:
        >>> import bitfold, numpy as np
        >>> image = np.full([1, 3, 3, 1], 10, np.int32)
        >>> ones = np.ones([3, 3, 1, 1], np.int32)
        >>> bitfold.ops.conv2d(image, ones, padding="VALID").numpy().item()
        90
        >>> # 10 x 9 wraps at 7 bits: 90 - 128.
        >>> bitfold.ops.conv2d(image, ones, padding="VALID", accumulator_size=7).numpy().item()
        -38
    """
    return _convolve(
        raw_ops.h_conv2d, input, filters, strides, padding, dilations, elementwise,
        accumulator_size, mult_shift, use_fp16_acc, name,
    )  # fmt: skip


@accepts_symbolic
def dilated_conv2d(
    input: Any,
    filters: Any,
    *,
    dilations: int | Sequence[int],
    strides: int | Sequence[int] = 1,
    padding: str = "SAME",
    elementwise: Any = None,
    accumulator_size: int = 32,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Convolve as `conv2d` does, under the accelerator's own name for dilated convolution.

    Args:
        input: images, float32 or int32, [N, H, W, C].
        filters: [height, width, C, outputs], of the type of `input`.
        dilations: the distance of the filter's taps: one number, [height, width] or
            [1, height, width, 1].
        strides: in the same forms; not 0.
        padding: "SAME" or "VALID", as for `conv2d`.
        elementwise: as for `conv2d`.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift or divisor of each product, -128 to 127.
        use_fp16_acc: accumulate in half precision (float32 data only).
        name: the node's name.

    Returns:
        A tensor [N, out_height, out_width, outputs] of the type of `input`.

    Raises:
        TypeError: as for `conv2d`.
        ValueError: as for `conv2d`.
        tf.errors.InvalidArgumentError: as for `conv2d`.

    Example:
        >>> import bitfold, numpy as np
        >>> image = np.arange(25, dtype=np.int32).reshape(1, 5, 5, 1)
        >>> ones = np.ones([3, 3, 1, 1], np.int32)
        >>> bitfold.ops.dilated_conv2d(image, ones, dilations=2, padding="VALID").numpy().item()
        108
    """
    return _convolve(
        raw_ops.h_conv2d_dilation, input, filters, strides, padding, dilations, elementwise,
        accumulator_size, mult_shift, use_fp16_acc, name,
    )  # fmt: skip


@accepts_symbolic
def depthwise_conv2d(
    input: Any,
    filter: Any,
    *,
    strides: int | Sequence[int] = 1,
    padding: str = "SAME",
    dilations: int | Sequence[int] = 1,
    elementwise: Any = None,
    accumulator_size: int = 32,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Convolve each channel with its own filter through a limited accumulator.

    The unit takes signed weights in w/2 bits, w = ``accumulator_size``: a weight above
    2^(w/2 - 1) - 1 is reduced by 2^(w/2), and a red line says so once per image.

    Args:
        input: images, float32 or int32, [N, H, W, C].
        filter: one filter per channel, [height, width, C, 1] as in ``tf.nn`` or
            [height, width, 1, C] as the accelerator stores it, of the type of `input`; with a
            leading dimension of at least N, one such filter per image. The second form may have
            fewer than C channels: the result has as many.
        strides: one number, [height, width] or [1, height, width, 1]; not 0.
        padding: "SAME" or "VALID", as for `conv2d`.
        dilations: the distance of the filter's taps, in the same forms as `strides`.
        elementwise: as for `conv2d`.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift or divisor of each product, -128 to 127.
        use_fp16_acc: accumulate in half precision (float32 data only).
        name: the node's name.

    Returns:
        A tensor [N, out_height, out_width, C] of the type of `input`.

    Raises:
        TypeError: as for `conv2d`.
        ValueError: as for `conv2d`, and for a filter with both channel dimensions above 1: there
            is no channel multiplier.
        tf.errors.InvalidArgumentError: as for `conv2d`, and for a filter of more channels than
            the images or of fewer images than the batch.

    Example:
        >>> import bitfold, numpy as np
        >>> image = np.arange(1, 3, dtype=np.int32).reshape(1, 1, 1, 2)
        >>> weights = np.array([10, -20], np.int32).reshape(1, 1, 2, 1)
        >>> bitfold.ops.depthwise_conv2d(image, weights).numpy().ravel()
        array([ 10, -40], dtype=int32)
    """
    input = element_tensor(input, "input")
    filter = element_tensor(filter, "filter", input.dtype)
    return _convolve(
        raw_ops.h_depth_wise, input, _one_input_channel(filter), strides, padding, dilations,
        elementwise, accumulator_size, mult_shift, use_fp16_acc, name,
    )  # fmt: skip


@accepts_symbolic
def layer_norm(
    value: Any,
    lut: Any,
    *,
    exponent_sub_value: Any,
    sum_of_x_mult: Any,
    sum_of_x_mult_n_shift: Any,
    x_squared_mult: Any,
    mul_act_man: Any,
    mul_act_exp: Any,
    zero_point: Any = 0,
    sum_of_x_shift: Any = 0,
    sum_of_x_squares_shift: Any = 0,
    epsilon: Any = 1,
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
        exponent_sub_value: base of the normalising shift.
        sum_of_x_mult: multiplier of the rounded sum that gives the mean.
        sum_of_x_mult_n_shift: shift of the mean.
        x_squared_mult: factor of the sum of squares, as a rule C.
        mul_act_man: multiplier of the output stage.
        mul_act_exp: shift of the output stage.
        zero_point: subtracted from every element.
        sum_of_x_shift: shift of the sum.
        sum_of_x_squares_shift: shift of the sum of squares.
        epsilon: added to the variance.
        mul_act_bias: bias of the output stage.
        rms_mode_enable: 1 takes the mean as 0.
        activation_ebias_mode: 1 shifts the output by 5 bits more.
        activation_output_mode: 1 gives results of 0 to 32767 instead of 0 to 255.
        name: the node's name.

    Returns:
        A float32 tensor of the shape of `value`, whole numbers.

    Raises:
        TypeError: for a `value` or `lut` that is not float32.
        tf.errors.InvalidArgumentError: for a `value` of another rank, or an empty scalar.

    A table of another size, sizes above the limits, shifts above 64 and a variance of zero end the
    process with an assertion.

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
    return raw_ops.h_layernorm(
        value=element_tensor(value, "value", tf.float32),
        **{key: scalar_tensor(number, key, tf.uint32) for key, number in scalars.items()},
        lut=element_tensor(lut, "lut", tf.float32),
        name=name,
    )


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
        tf.errors.InvalidArgumentError: for more than 2^31 - 1 elements.

    A table of another size ends the process with an assertion.

    Example:
        >>> import bitfold, numpy as np
        >>> from bitfold import tables
        >>> table = tables.softmax(1 / 16)
        >>> bitfold.ops.softmax(np.float32([[32, 16, 0]]), **table.keywords).numpy()
        array([[170.,  63.,  23.]], dtype=float32)
        >>> # These are steps of 1/255; the softmax of 2, 1, 0 is 0.665, 0.245, 0.090.
    """
    return raw_ops.h_softmax(
        value=element_tensor(value, "value", tf.float32),
        lut_table=fixed_tensor(lut_table, "lut_table", tf.uint32),
        is_velquin=is_velquin,
        name=name,
    )


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
        size_splits: [G], how many channels each group has, from channel 0 on; by default one
            group of all channels. Channels beyond their sum give 0.
        ebias: added to every exponent.
        clip_bits: results lie in [-clip_bits - 1, clip_bits] before the offset.
        is_8bit_to_16bit_mode: multiply the product by 256 before the shift.
        is_16bit_precision_mode: shift the signed product instead of its magnitude.
        is_velquin: likewise, the behaviour of one variant of the unit.
        name: the node's name.

    Returns:
        An int32 tensor of the shape of `value`.

    Raises:
        TypeError: for tables that are not whole numbers.
        tf.errors.InvalidArgumentError: for tables too short for their groups and pieces, or
            groups with more channels than `value`.

    A tensor of another rank ends the process through the runtime's own check.

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
    if size_splits is None:
        size_splits = tf.shape(value, tf.int64)[-1:]
    return raw_ops.h_activation(
        inp=value,
        x_points=fixed_tensor(x_points, "x_points", tf.int64),
        offsets=fixed_tensor(offsets, "offsets", tf.int64),
        slopes_m=fixed_tensor(slopes_m, "slopes_m", tf.int64),
        slopes_e=fixed_tensor(slopes_e, "slopes_e", tf.int64),
        size_splits=fixed_tensor(size_splits, "size_splits", tf.int64),
        is_8bit_to_16bit_mode=is_8bit_to_16bit_mode,
        is_velquin=is_velquin,
        ebias=integer(ebias, "ebias"),
        clip_bits=integer(clip_bits, "clip_bits"),
        beta=0,
        is_16bit_precision_mode=is_16bit_precision_mode,
        is_signed_output=True,
        name=name,
    )


def _one_input_channel(filter: tf.Tensor) -> tf.Tensor:
    """Return [..., C, 1] as [..., 1, C], the same memory; [..., 1, C] as it is."""
    static = filter.shape
    forms = "filter must be [height, width, C, 1] or [height, width, 1, C], got shape"
    last = static[-2:] if static.rank is not None else [None, None]
    if static.rank is not None and static.rank < 4:
        return filter  # the kernel refuses
    if None not in last and min(last) > 1:
        raise ValueError(f"{forms} {static}: there is no channel multiplier")
    shape = tf.shape(filter)
    checks = []
    if None in last and 1 not in last:
        one = tf.reduce_min(shape[-2:]) <= 1
        checks = [
            tf.debugging.Assert(one, [f"{forms} ", shape, ": there is no channel multiplier"])
        ]
    with tf.control_dependencies(checks):
        merged = tf.concat([shape[:-2], [1], [tf.reduce_prod(shape[-2:])]], 0)
    result = tf.reshape(filter, merged)
    if static.rank is not None:
        count = None if None in last else last[0] * last[1]
        result.set_shape([*static[:-2], 1, count])
    return result


def _convolve(
    raw_op, input, filters, strides, padding, dilations, elementwise, accumulator_size,
    mult_shift, use_fp16_acc, name,
) -> tf.Tensor:  # fmt: skip
    """Call one of the three convolution ops, with the result's true static shape in a graph."""
    input = element_tensor(input, "input")
    filters = element_tensor(filters, "filters", input.dtype)
    strides = spatial_values(strides, "strides")
    dilations = spatial_values(dilations, "dilations")
    padding = padding_name(padding)
    if elementwise is None:
        elementwise = tf.zeros([0], input.dtype)
    output = raw_op(
        input=_without_static_shape(input),
        filter=_without_static_shape(filters),
        elementwise=element_tensor(elementwise, "elementwise", input.dtype),
        mult_shift=scalar_tensor(mult_shift, "mult_shift", tf.int8),
        strides=strides,
        dilations=dilations,
        padding=padding,
        accumulator_size=integer(accumulator_size, "accumulator_size"),
        use_fp16_acc=use_fp16_acc,
        name=name,
    )
    if not tf.executing_eagerly():
        output.set_shape(_static_shape(input.shape, filters.shape, strides, dilations, padding))
    return output


def _without_static_shape(tensor: tf.Tensor) -> tf.Tensor:
    """Hide a shape from the runtime's shape inference, which has rules that the kernels have not.

    The depthwise rule multiplies the filter's two channel dimensions and wants the first to be the
    input's, so it refuses [height, width, 1, C]; the ordinary one refuses a fifth dimension; both
    infer 0 outputs for images without pixels and for windows larger than the image, where the
    kernels' truncating division can give 1.
    """
    if tf.executing_eagerly():
        return tensor
    return tf.raw_ops.PlaceholderWithDefault(input=tensor, shape=tf.TensorShape(None))


def _static_shape(
    input: tf.TensorShape,
    filters: tf.TensorShape,
    strides: list[int],
    dilations: list[int],
    padding: str,
) -> tf.TensorShape:
    """Return the shape that the kernel will allocate, as far as it is known."""
    if input.rank not in (None, 4):
        return tf.TensorShape(None)  # the kernel refuses
    if filters.rank is None or filters.rank < 4:
        return tf.TensorShape([input[0] if input.rank else None, None, None, None])
    batch, height, width, _ = input if input.rank else [None] * 4
    leading = 1 if filters.rank > 4 else 0
    rows, columns, outputs = filters[leading], filters[leading + 1], filters[leading + 3]
    sizes = [
        _output_size(size, window, strides[axis], dilations[axis], padding)
        for axis, size, window in ((1, height, rows), (2, width, columns))
    ]
    return tf.TensorShape([batch, *sizes, outputs])


def _output_size(
    size: int | None, window: int | None, stride: int, dilation: int, padding: str
) -> int | None:
    """Return the number of outputs along one axis; None where unknown or refused by the kernel."""
    if size is None or (padding == "VALID" and window is None) or stride == 0:
        return None
    span = size - 1 if padding == "SAME" else size - ((window - 1) * dilation + 1)
    quotient = abs(span) // abs(stride)  # truncates toward zero, as the kernels divide
    outputs = (quotient if (span < 0) == (stride < 0) else -quotient) + 1
    return outputs if outputs >= 0 else None
