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
rounded, halves to even. 0 leaves products alone. ``matmul``, ``bilinear`` and the box decoders
multiply float products by the float32 reciprocal of the value instead, which can differ from the
quotient in the last bit.

Printed lines. A float sum outside [-8388607, 8388607) prints
``@@@ WARNING: acc <sum> is out of bounds <-8388607,8388607>`` to C's standard output, each time an
op runs. Inside ``tf.function`` the runtime's graph optimiser may run an op once where it was called
twice with the same inputs, or once for all where they are constants; call eagerly to count lines.

Tables. ``layer_norm``, ``softmax`` and ``activation`` have fixed types and take the tables that
``bitfold.tables`` makes. ``bitfold.resize`` makes the inputs of ``bilinear``, ``bitfold.detection``
those of the box decoders and of ``non_max_suppression``.

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
    float_attribute,
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
    "bilinear",
    "conv2d",
    "decode_boxes",
    "decode_boxes_single_weight",
    "decomposed_bias_add",
    "depthwise_conv2d",
    "dilated_conv2d",
    "layer_norm",
    "matmul",
    "non_max_suppression",
    "softmax",
    "weighted_add",
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
def decomposed_bias_add(
    value: Any,
    bias_a: Any,
    bias_b: Any,
    *,
    accumulator_size: int = 32,
    factor_a: Any = 1,
    factor_b: Any = 1,
    feed_repeat: Any = 1.0,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Add a bias per channel that comes in two parts into a tensor of accumulator values.

    Each element becomes ``value`` with ``bias_a[channel] * factor_a`` and then
    ``bias_b[channel] * factor_b``, both scaled by ``mult_shift``, added ceil(``feed_repeat``)
    times, wrapping after each addition.

    Args:
        value: the accumulators, float32 or int32, [N, H, W, C] or [N, C]. For other ranks an error
            is logged and the result is 0.
        bias_a: the first part, one value per channel, [C], of the type of `value`.
        bias_b: the second part, likewise.
        accumulator_size: the accumulator's width in bits, at least 0.
        factor_a: the multiplier of `bias_a`, a number of `value`'s type.
        factor_b: the multiplier of `bias_b`, likewise.
        feed_repeat: how many times both parts are added; 0 and below add nothing.
        mult_shift: the shift or divisor of both products, -128 to 127.
        use_fp16_acc: accumulate in half precision.
        name: the node's name.

    Returns:
        A tensor of the shape and type of `value`.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold; in a graph also for a `bias_a` whose
            shape is not [C].
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data;
            fewer than C biases; a feed repeat that is NaN or above 2^31.

    Example:
        >>> import bitfold
        >>> # 100 + 50 wraps to -106, and -106 - 50 wraps back to 100.
        >>> bitfold.ops.decomposed_bias_add(
        ...     [[100, 100]], [50, 50], [-50, -10], accumulator_size=8
        ... ).numpy()
        array([[ 100, -116]], dtype=int32)
        >>> # A bias of 1000 from two parts of 8 bits: 3 * 256 + 232.
        >>> bitfold.ops.decomposed_bias_add([[0]], [3], [232], factor_a=256).numpy()
        array([[1000]], dtype=int32)
    """
    value = element_tensor(value, "value")
    return raw_ops.h_decomposed_bias_add(
        value=value,
        bias_a=element_tensor(bias_a, "bias_a", value.dtype),
        bias_b=element_tensor(bias_b, "bias_b", value.dtype),
        bias_a_factor=scalar_tensor(factor_a, "factor_a", value.dtype),
        bias_b_factor=scalar_tensor(factor_b, "factor_b", value.dtype),
        bias_feed_repeat=scalar_tensor(feed_repeat, "feed_repeat", tf.float32),
        mult_shift=scalar_tensor(mult_shift, "mult_shift", tf.int8),
        accumulator_size=integer(accumulator_size, "accumulator_size"),
        use_fp16_acc=use_fp16_acc,
        name=name,
    )


@accepts_symbolic
def weighted_add(
    value: Any,
    elementwise: Any,
    weights: Any,
    *,
    accumulator_size: int = 32,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Add two tensors, each multiplied by a weight per channel.

    Each element is ``weights[0, channel] * value + weights[1, channel] * elementwise``, each
    product scaled by ``mult_shift``, in one addition that wraps once.

    Args:
        value: the first operand, float32 or int32, [N, H, W, C] or [N, C]. Of other ranks only the
            first d0 * d1 elements are computed, with d1 channels, and the rest is 0.
        elementwise: the second operand, of the type and as many elements as `value`.
        weights: [2, C] or 2 * C elements, of the type of `value`: the weights of `value`, then
            those of `elementwise`.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift or divisor of both products, -128 to 127.
        use_fp16_acc: round the second product and the sum to half precision (float32 data only).
        name: the node's name.

    Returns:
        A tensor of the shape and type of `value`.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold.
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data;
            a rank below 2; an `elementwise` or `weights` that is too small.

    Example:
        >>> import bitfold
        >>> bitfold.ops.weighted_add([[1, 2]], [[3, 4]], [[10, 10], [1, -1]]).numpy()
        array([[13, 16]], dtype=int32)
        >>> # One wrap only: 400 - 256 is still outside 8 bits.
        >>> bitfold.ops.weighted_add([[300]], [[100]], [[1], [1]], accumulator_size=8).numpy()
        array([[144]], dtype=int32)
    """
    value = element_tensor(value, "value")
    return raw_ops.h_standalone_elementwise_add(
        value=value,
        elementwise=element_tensor(elementwise, "elementwise", value.dtype),
        weights=element_tensor(weights, "weights", value.dtype),
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


@accepts_symbolic
def matmul(
    a: Any,
    b: Any,
    *,
    accumulator_size: int = 32,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Multiply matrices through a limited accumulator.

    Each element starts at 0 and adds its products one by one, each scaled by ``mult_shift``.

    The unit takes signed weights in w/2 bits, w = ``accumulator_size``: an element of `b` above
    2^(w/2 - 1) - 1 is reduced by 2^(w/2), and a red line on C's standard output says so once per
    matrix.

    Args:
        a: the data, float32 or int32, [rows, inner] or [batch, rows, inner]. Of further leading
            dimensions only the first `batch` matrices are computed and the rest is 0.
        b: the weights, of the type of `a`: [inner, cols], for a batch [batch, inner, cols]; no
            broadcasting.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift of each product, or the number by whose reciprocal it is multiplied,
            -128 to 127.
        use_fp16_acc: accumulate in half precision (float32 data only).
        name: the node's name.

    Returns:
        A tensor of the shape and type of `a`, with `b`'s last dimension in the place that it has
        in `b`: the last place where both have one rank. Where the inner dimensions differ, an
        error is logged and the result is 0.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold.
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data;
            ranks below 2, or a rank of `b` above that of `a`; a `b` with fewer matrices than the
            batch; ranks that differ where the result's shape does not hold the product.

    Example:
        >>> import bitfold
        >>> bitfold.ops.matmul([[1, 2], [3, 4]], [[10, 20], [30, 40]]).numpy()
        array([[ 70, 100],
               [150, 220]], dtype=int32)
        >>> # 7 * 30 = 210 wraps at 8 bits; -7 is a weight that 4 bits hold.
        >>> bitfold.ops.matmul([[30]], [[7, -7]], accumulator_size=8).numpy()
        array([[-46,  46]], dtype=int32)
    """
    a = element_tensor(a, "a")
    b = element_tensor(b, "b", a.dtype)
    product = raw_ops.h_matmul(
        a=_without_static_shape(a),
        b=_without_static_shape(b),
        mult_shift=scalar_tensor(mult_shift, "mult_shift", tf.int8),
        accumulator_size=integer(accumulator_size, "accumulator_size"),
        use_fp16_acc=use_fp16_acc,
        name=name,
    )
    if not tf.executing_eagerly():
        # With unknown ranks the runtime infers a matrix, whatever will come.
        product = _without_static_shape(product)
        product.set_shape(_product_shape(a.shape, b.shape))
    return product


@accepts_symbolic
def bilinear(
    upper_left: Any,
    upper_right: Any,
    bottom_left: Any,
    bottom_right: Any,
    weight_upper_left: Any,
    weight_upper_right: Any,
    weight_bottom_left: Any,
    weight_bottom_right: Any,
    *,
    bias: Any = 0.0,
    accumulator_size: int = 32,
    mult_shift: Any = 0,
    float_accumulator: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Weigh the four neighbours of each output of a bilinear resize and add them to a bias.

    Each element starts at ``bias`` and adds its four products in the order of the arguments, each
    scaled by ``mult_shift``, wrapping after each addition. ``bitfold.resize`` gathers neighbours
    and weights from images.

    Args:
        upper_left: the neighbours, float32 or int32, [N, ...], N at least 1.
        upper_right: of the type and as many elements as `upper_left`, like the next two.
        bottom_left: the next row.
        bottom_right: the next row and column.
        weight_upper_left: the weights, of the type of `upper_left`, one for each element of an
            item of the batch, shared by all items.
        weight_upper_right: likewise, as the next two.
        weight_bottom_left: of the next row.
        weight_bottom_right: of the next row and column.
        bias: a float number; for int32 data truncated.
        accumulator_size: the accumulator's width in bits; negative ones are defined, if of no use.
        mult_shift: the shift of each product, or the number by whose reciprocal it is multiplied,
            -128 to 127.
        float_accumulator: only add, in float32 or in int32 that wraps at 32 bits: no shift, no
            width, no printed line.
        name: the node's name.

    Returns:
        A tensor of the shape and type of `upper_left`.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold.
        tf.errors.InvalidArgumentError: for a batch of 0; neighbours or weights that are too few;
            a width above 32 with int32 data, unless `float_accumulator`.

    Example:
        >>> import bitfold
        >>> # Half way between 10 and 21, in weights of 1/16: (8 * 10 + 8 * 21) / 16, each rounded.
        >>> bitfold.ops.bilinear([10], [21], [0], [0], [8], [8], [0], [0], mult_shift=4).numpy()
        array([15], dtype=int32)
        >>> bitfold.ops.bilinear(
        ...     [10.0], [21.0], [0.0], [0.0], [0.5], [0.5], [0.0], [0.0], float_accumulator=True
        ... ).numpy()
        array([15.5], dtype=float32)
    """
    upper_left = element_tensor(upper_left, "upper_left")
    dtype = upper_left.dtype
    return raw_ops.h_bilinear(
        im_out_upper_left=upper_left,
        im_out_upper_right=element_tensor(upper_right, "upper_right", dtype),
        im_out_bottom_left=element_tensor(bottom_left, "bottom_left", dtype),
        im_out_bottom_right=element_tensor(bottom_right, "bottom_right", dtype),
        one_m_rx_one_m_ry=element_tensor(weight_upper_left, "weight_upper_left", dtype),
        rx_one_m_ry=element_tensor(weight_upper_right, "weight_upper_right", dtype),
        ry_one_m_rx=element_tensor(weight_bottom_left, "weight_bottom_left", dtype),
        rx_ry=element_tensor(weight_bottom_right, "weight_bottom_right", dtype),
        mult_shift=scalar_tensor(mult_shift, "mult_shift", tf.int8),
        bias=scalar_tensor(bias, "bias", tf.float32),
        accumulator_size=integer(accumulator_size, "accumulator_size"),
        float_accumulator=float_accumulator,
        name=name,
    )


@accepts_symbolic
def decode_boxes(
    detection_centers: Any,
    detection_sizes: Any,
    y_centers: Any,
    x_centers: Any,
    anchors_heights: Any,
    anchors_heights_div_2: Any,
    anchors_heights_minus_div_2: Any,
    anchors_widths: Any,
    anchors_widths_div_2: Any,
    anchors_widths_minus_div_2: Any,
    *,
    accumulator_size: int = 32,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Decode the corners of boxes from a centre, a size and six constants per anchor.

    For an anchor with the pairs (cy, cx) and (sy, sx), y_min is ``anchors_heights * cy`` plus
    ``anchors_heights_minus_div_2 * sy`` plus the row's centre, y_max the same with
    ``anchors_heights_div_2``, and x likewise with the widths: each product scaled by
    ``mult_shift``, wrapping after each of the two additions. ``bitfold.detection.box_decoder``
    makes the inputs.

    Args:
        detection_centers: float32 or int32 [N, H, W, 2 * A], a (cy, cx) pair for each of A
            anchors. An odd last dimension loses its last element.
        detection_sizes: as many (sy, sx) pairs, of the same type, like all that follow.
        y_centers: [H, 2 * A], for each anchor of each row the centre for y_min and for y_max.
        x_centers: [W, 2 * A], for each anchor of each column the centre for x_min and for x_max.
        anchors_heights: [A], the multiplier of cy.
        anchors_heights_div_2: [A], that of sy for y_max.
        anchors_heights_minus_div_2: [A], that of sy for y_min.
        anchors_widths: [A], the multiplier of cx.
        anchors_widths_div_2: [A], that of sx for x_max.
        anchors_widths_minus_div_2: [A], that of sx for x_min.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift of each product, or the number by whose reciprocal it is multiplied,
            -128 to 127.
        use_fp16_acc: accumulate in half precision (float32 data only).
        name: the node's name.

    Returns:
        A tensor [N, H, W, twice the last dimension] of the same type: y_min, x_min, y_max, x_max
        for each anchor. For ranks above 4 an error is logged and the result is 0.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold; in a graph also for other ranks.
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data;
            a rank below 4; inputs that are too small.

    Example:
        >>> import bitfold, numpy as np
        >>> pair = lambda *numbers: np.int32(numbers).reshape(1, 1, 1, 2)
        >>> # Centred 2 below and 3 left of (50, 60), 20 high and 8 wide.
        >>> bitfold.ops.decode_boxes(
        ...     pair(2, -3), pair(20, 8), [[50, 50]], [[60, 60]], [2], [1], [-1], [2], [1], [-1],
        ...     mult_shift=1,
        ... ).numpy()
        array([[[[42, 53, 62, 61]]]], dtype=int32)
    """
    return _decode(
        raw_ops.h_bbox_decoder, detection_centers, detection_sizes, y_centers, x_centers,
        {
            "anchors_heights": anchors_heights,
            "anchors_heights_div_2": anchors_heights_div_2,
            "anchors_heights_minus_div_2": anchors_heights_minus_div_2,
            "anchors_widths": anchors_widths,
            "anchors_widths_div_2": anchors_widths_div_2,
            "anchors_widths_minus_div_2": anchors_widths_minus_div_2,
        },
        accumulator_size, mult_shift, use_fp16_acc, name,
    )  # fmt: skip


@accepts_symbolic
def decode_boxes_single_weight(
    detection_centers: Any,
    detection_sizes: Any,
    y_centers: Any,
    x_centers: Any,
    heights_scale: Any,
    heights_scale_minus: Any,
    widths_scale: Any,
    widths_scale_minus: Any,
    *,
    accumulator_size: int = 32,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Decode the corners of boxes with one product and one addition each.

    The pairing is crosswise. For an anchor with the pairs (c0, c1) and (s0, s1):

        y_min = heights_scale_minus * c1 + centre    y_max = heights_scale * s1 + centre
        x_min = widths_scale_minus * c0 + centre     x_max = widths_scale * s0 + centre

    Each product is scaled by ``mult_shift``, each sum wraps once.
    ``bitfold.detection.single_weight_box_decoder`` makes the inputs.

    Args:
        detection_centers: float32 or int32 [N, H, W, 2 * A], what gives the minimum corners, a
            pair for each of A anchors. An odd last dimension loses its last element.
        detection_sizes: as many pairs, what gives the maximum corners, of the same type, like all
            that follow.
        y_centers: [H, 2 * A], for each anchor of each row the centre for y_min and for y_max.
        x_centers: [W, 2 * A], for each anchor of each column the centre for x_min and for x_max.
        heights_scale: [A], the multiplier for y_max.
        heights_scale_minus: [A], that for y_min.
        widths_scale: [A], that for x_max.
        widths_scale_minus: [A], that for x_min.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift of each product, or the number by whose reciprocal it is multiplied,
            -128 to 127.
        use_fp16_acc: accumulate in half precision (float32 data only).
        name: the node's name.

    Returns:
        As `decode_boxes`.

    Raises:
        TypeError: as for `decode_boxes`.
        ValueError: as for `decode_boxes`.
        tf.errors.InvalidArgumentError: as for `decode_boxes`.

    Example:
        >>> import bitfold, numpy as np
        >>> pair = lambda *numbers: np.int32(numbers).reshape(1, 1, 1, 2)
        >>> # From (50, 60) up 8 and left 5, down 12 and right 7.
        >>> bitfold.ops.decode_boxes_single_weight(
        ...     pair(5, 8), pair(7, 12), [[50, 50]], [[60, 60]], [1], [-1], [1], [-1]
        ... ).numpy()
        array([[[[42, 55, 62, 67]]]], dtype=int32)
    """
    return _decode(
        raw_ops.h_single_weight_per_proposal_bbox_decoder, detection_centers, detection_sizes,
        y_centers, x_centers,
        {
            "heights_scale": heights_scale,
            "heights_scale_minus": heights_scale_minus,
            "widths_scale": widths_scale,
            "widths_scale_minus": widths_scale_minus,
        },
        accumulator_size, mult_shift, use_fp16_acc, name,
    )  # fmt: skip


@accepts_symbolic
def non_max_suppression(
    value: Any,
    scores_threshold: Any,
    *,
    iou_threshold: float,
    max_output_size: int,
    classes: int = 1,
    debug_precise_numeric: bool = False,
    is_velquin: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Keep the best boxes of each class and suppress those that overlap them.

    Class by class, the box of the greatest score is taken and every box that overlaps it by more
    than ``iou_threshold`` of their union dropped, until no box is left. The comparison is one of
    whole numbers: the threshold in steps of 1/65536, its product with the union and the overlap
    truncated. Boxes with the same corners are always suppressed. Every step is logged at
    information level, which costs time unless TF_CPP_MIN_LOG_LEVEL filters it.
    ``bitfold.detection`` packs boxes and unpacks the result.

    Args:
        value: float32 [B, classes * n, 5, 1], the n boxes of each class: y_min, x_min, y_max,
            x_max, score. The corners are inclusive pixels: a box is y_max - y_min + 1 high.
        scores_threshold: boxes of at most this score, or with `is_velquin` below it, are dropped.
        iou_threshold: the share of the union that boxes may overlap.
        max_output_size: the number of rows of each result, at least 1.
        classes: the number of classes, at least 1.
        debug_precise_numeric: shrink the second box by a pixel where the overlap is measured.
        is_velquin: the behaviour of one variant of the unit: of equal scores the last wins instead
            of the first, a negative score never does, and a best box with a maximum below its
            minimum leaves no row of zeros.
        name: the node's name.

    Returns:
        A float32 tensor [B, classes, max_output_size, 5], the boxes taken in that order, then rows
        of zeros. The first row is of zeros as well where the best box of all had a maximum below
        its minimum.

    Raises:
        TypeError: for a `value` that is not float32; numbers that are no integers.
        ValueError: for numbers that float32 does not hold.
        tf.errors.InvalidArgumentError: for a `value` of rank 4 but another shape, or an empty
            batch; `classes` or `max_output_size` below 1.
        tf.errors.ResourceExhaustedError: where the rows need more memory than there is.

    The process ends with an assertion where the classes do not divide the boxes, and where a class
    has none unless `is_velquin`. For a `value` of another rank an error is logged and there is no
    result: an empty tensor, and in a graph a tf.errors.InternalError.

    Example:
        >>> import bitfold, numpy as np
        >>> boxes = np.float32([[0, 0, 9, 9, 0.9], [0, 0, 9, 8, 0.8], [0, 0, 9, 4, 0.7]])
        >>> # The second overlaps the first by 90 of 100 pixels, the third by 50.
        >>> bitfold.ops.non_max_suppression(
        ...     boxes.reshape(1, 3, 5, 1), 0.5, iou_threshold=0.5, max_output_size=3
        ... ).numpy()[0, 0]
        array([[0. , 0. , 9. , 9. , 0.9],
               [0. , 0. , 9. , 4. , 0.7],
               [0. , 0. , 0. , 0. , 0. ]], dtype=float32)
    """
    value = element_tensor(value, "value", tf.float32)
    classes = integer(classes, "classes")
    max_output_size = integer(max_output_size, "max_output_size")
    output = raw_ops.hnms(
        value=_without_static_shape(value),
        scores_threshold=scalar_tensor(scores_threshold, "scores_threshold", tf.float32),
        iou_threshold=float_attribute(iou_threshold, "iou_threshold"),
        max_output_size=float_attribute(max_output_size, "max_output_size"),
        classes=float_attribute(classes, "classes"),
        debug_precise_numeric=debug_precise_numeric,
        is_velquin=is_velquin,
        name=name,
    )
    if not tf.executing_eagerly():
        batch = value.shape[0] if value.shape.rank == 4 else None
        sizes = [size if size > 0 else None for size in (classes, max_output_size)]
        output.set_shape([batch, *sizes, 5])
    return output


def _decode(
    raw_op, detection_centers, detection_sizes, y_centers, x_centers, anchors, accumulator_size,
    mult_shift, use_fp16_acc, name,
) -> tf.Tensor:  # fmt: skip
    """Call one of the two box decoders; `anchors` are its inputs for each anchor, in order."""
    detection_centers = element_tensor(detection_centers, "detection_centers")
    others = {
        "detection_sizes": detection_sizes,
        "y_centers": y_centers,
        "x_centers": x_centers,
        **anchors,
    }
    return raw_op(
        detection_centers,
        *(element_tensor(x, key, detection_centers.dtype) for key, x in others.items()),
        scalar_tensor(mult_shift, "mult_shift", tf.int8),
        accumulator_size=integer(accumulator_size, "accumulator_size"),
        use_fp16_acc=use_fp16_acc,
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

    The matrix product's rules refuse inner dimensions or batches that differ and take a tensor of
    unknown rank for a matrix; the suppression's says that boxes come out as they went in.

    The depthwise rule multiplies the filter's two channel dimensions and wants the first to be the
    input's, so it refuses [height, width, 1, C]; the ordinary one refuses a fifth dimension; both
    infer 0 outputs for images without pixels and for windows larger than the image, where the
    kernels' truncating division can give 1.
    """
    if tf.executing_eagerly():
        return tensor
    return tf.raw_ops.PlaceholderWithDefault(input=tensor, shape=tf.TensorShape(None))


def _product_shape(a: tf.TensorShape, b: tf.TensorShape) -> tf.TensorShape:
    """Return the shape that the matrix product's kernel will allocate, as far as it is known."""
    if a.rank is None or a.rank < 2:
        return tf.TensorShape(None)
    if b.rank is None:  # b has no more dimensions than a, but which of a's it replaces is open
        return tf.TensorShape([a[0], *[None] * (a.rank - 1)])
    if not 2 <= b.rank <= a.rank:
        return tf.TensorShape(None)  # the kernel refuses
    sizes = list(a)
    sizes[b.rank - 1] = b[-1]
    return tf.TensorShape(sizes)


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
