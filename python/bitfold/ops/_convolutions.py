# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The three convolutions."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold._frame.arguments import (
    element_tensor,
    integer,
    padding_name,
    scalar_operand,
    spatial_values,
)
from bitfold._frame.layers import accepts_symbolic
from bitfold._frame.loaded import raw_ops
from bitfold._frame.operands import Needs, elements
from bitfold._frame.shapes import convolution_shape, without_static_shape
from bitfold._frame.tensors import is_tensor


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

    The gradient, by `input`, `filters` and `elementwise`, is that of a convolution of real numbers
    with the same windows, divided by ``mult_shift``.

    Args:
        input: images, float32 or int32, [N, H, W, C].
        filters: [height, width, C, outputs], of the type of `input`; a dimension of 1 may stand
            before these.
        strides: one number, [height, width] or [1, height, width, 1]; not 0.
        padding: "SAME" or "VALID". Where SAME pads by an even total and the window is odd, the
            first window is centred on the first pixel, also at strides where ``tf.nn.conv2d``
            places it further in (9 pixels, a window of 5, a stride of 3).
        dilations: the distance of the filter's taps, in the same forms as `strides`.
        elementwise: None, or a tensor of the type of `input` and as many elements as the result,
            added unscaled after the centre row of the filter.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift or divisor of each product, -128 to 127.
        use_fp16_acc: accumulate in half precision; needs float32 data.
        name: the node's name.

    Returns:
        A tensor [N, out_height, out_width, outputs] of the type of `input`.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for malformed strides, dilations, padding or numbers; ranks other than 4, or
            several filters; a filter with more or fewer input channels than the images; an
            `elementwise` of another number of elements than the result, or with a filter that has
            no centre row, its height being even and its dilation above 1; `use_fp16_acc` with
            int32 data.
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data;
            strides of 0; an output that would have a negative size.

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
    return _convolve_ordinary(
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

    The gradient is that of `conv2d`.

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
        use_fp16_acc: accumulate in half precision; needs float32 data.
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
    return _convolve_ordinary(
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

    The gradient, by `input`, `filter` and `elementwise`, is that of a convolution of real numbers
    with the same windows, divided by ``mult_shift``, with the weights that the unit reads.

    Args:
        input: images, float32 or int32, [N, H, W, C].
        filter: one filter per channel, [height, width, C, 1] as in ``tf.nn`` or
            [height, width, 1, C] as the accelerator stores it, of the type of `input`; with a
            leading dimension of at least N, one such filter per image. A filter may have fewer
            than C channels: the result has as many.
        strides: one number, [height, width] or [1, height, width, 1]; not 0.
        padding: "SAME" or "VALID", as for `conv2d`.
        dilations: the distance of the filter's taps, in the same forms as `strides`.
        elementwise: as for `conv2d`.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift or divisor of each product, -128 to 127.
        use_fp16_acc: accumulate in half precision; needs float32 data.
        name: the node's name.

    Returns:
        A tensor [N, out_height, out_width, C] of the type of `input`.

    Raises:
        TypeError: as for `conv2d`.
        ValueError: as for `conv2d`, and for a filter with both channel dimensions above 1: there
            is no channel multiplier; for a filter of more channels than the images or of fewer
            images than the batch.
        tf.errors.InvalidArgumentError: as for `conv2d`.

    Example:
        >>> import bitfold, numpy as np
        >>> image = np.arange(1, 3, dtype=np.int32).reshape(1, 1, 1, 2)
        >>> weights = np.array([10, -20], np.int32).reshape(1, 1, 2, 1)
        >>> bitfold.ops.depthwise_conv2d(image, weights).numpy().ravel()
        array([ 10, -40], dtype=int32)
    """
    input = element_tensor(input, "input")
    filter = _one_input_channel(element_tensor(filter, "filter", input.dtype))
    needs = Needs()
    needs.rank(input, "input", 4)
    needs.rank(filter, "filter", 4, 5)
    _require_depthwise_channels(needs, input, filter)
    return _convolve(
        raw_ops.h_depth_wise, input, filter, strides, padding, dilations, elementwise,
        accumulator_size, mult_shift, use_fp16_acc, name, needs,
    )  # fmt: skip


def _require_depthwise_channels(needs: Needs, input: tf.Tensor, filter: tf.Tensor) -> None:
    """Require channels and images for what the kernel will read of them."""
    pairs = [("channels", needs.dimension(filter, -1), needs.dimension(input, -1), "at most")]
    if filter.shape.rank == 5:
        pairs.append(("images", needs.dimension(filter, 0), needs.dimension(input, 0), "at least"))
    for what, got, wanted, side in pairs:
        if is_tensor(got) or is_tensor(wanted):
            continue  # the kernel refuses, which reads nothing beyond
        fits = got <= wanted if side == "at most" else got >= wanted
        needs.holds(fits, f"filter to have {side} the {wanted} {what} of input", f"{got} in shape "
                    f"[{','.join(map(str, filter.shape))}]")  # fmt: skip


def _one_input_channel(filter: tf.Tensor) -> tf.Tensor:
    """Return [..., C, 1] as [..., 1, C], the same memory; [..., 1, C] as it is."""
    static = filter.shape
    forms = "filter must be [height, width, C, 1] or [height, width, 1, C], got shape"
    sizes = static.as_list() if static.rank is not None else [None, None]
    last = sizes[-2:]
    if static.rank is not None and (static.rank < 4 or last[0] == 1):
        return filter  # of fewer dimensions the kernel refuses it
    if None not in last and min(last) > 1:
        raise ValueError(f"{forms} {static}: there is no channel multiplier")
    if None not in sizes:
        merged = np.array([*sizes[:-2], 1, last[0] * last[1]], np.int32)
        return tf.raw_ops.Reshape(tensor=filter, shape=merged)
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
        result.set_shape([*sizes[:-2], 1, count])
    return result


def _convolve_ordinary(raw_op, input, filters, *arguments) -> tf.Tensor:
    """Call one of the two convolutions whose filters span all channels."""
    input = element_tensor(input, "input")
    filters = element_tensor(filters, "filters", input.dtype)
    needs = Needs()
    needs.rank(input, "input", 4)
    needs.rank(filters, "filters", 4, 5)
    channels = needs.dimension(input, -1)
    count = "" if is_tensor(channels) else f"{channels} "
    needs.size(
        needs.dimension(filters, -2),
        channels,
        f"filters to have the {count}channels of input",
        filters,
    )
    if filters.shape.rank != 4:
        known = filters.shape.rank is not None
        held = needs.dimension(filters, 0) if known else tf.reduce_prod(tf.shape(filters)[:-4])
        needs.size(held, 1, "filters of rank 5 to hold 1 filter", filters)
    return _convolve(raw_op, input, filters, *arguments, needs)


def _convolve(
    raw_op, input, filters, strides, padding, dilations, elementwise, accumulator_size,
    mult_shift, use_fp16_acc, name, needs,
) -> tf.Tensor:  # fmt: skip
    """Call one of the three convolution ops, with the result's true static shape in a graph."""
    strides = spatial_values(strides, "strides")
    dilations = spatial_values(dilations, "dilations")
    padding = padding_name(padding)
    needs.half_precision_float(use_fp16_acc, input.dtype)
    is_eager = tf.executing_eagerly()
    if elementwise is not None or not is_eager:
        shape = convolution_shape(input.shape, filters.shape, strides, dilations, padding)
    if elementwise is None:
        addend = _NO_ADDEND[input.dtype]
    else:
        addend = element_tensor(elementwise, "elementwise", input.dtype)
        _require_centre(needs, filters, dilations[1])
        if shape.num_elements() is not None:
            needs.elements(addend, "elementwise", shape.num_elements(), _AS_RESULT)
    with needs.met():
        output = raw_op(
            input=without_static_shape(input),
            filter=without_static_shape(filters),
            elementwise=addend,
            mult_shift=scalar_operand(mult_shift, "mult_shift", tf.int8),
            strides=strides,
            dilations=dilations,
            padding=padding,
            accumulator_size=integer(accumulator_size, "accumulator_size"),
            use_fp16_acc=use_fp16_acc,
            name=name,
        )
    if is_eager:
        return output
    output.set_shape(shape)
    if elementwise is not None and shape.num_elements() is None:
        known = Needs()
        known.elements(addend, "elementwise", elements(output), _AS_RESULT)
        output = known.after(output)
    return output


_AS_RESULT = "as many as the result"
# Arrays, of which the op makes tensors where it runs: a tensor belongs to one device and context.
_NO_ADDEND = {dtype: np.zeros([0], dtype.as_numpy_dtype) for dtype in (tf.float32, tf.int32)}


def _require_centre(needs: Needs, filters: tf.Tensor, dilation: int) -> None:
    """Require a row of the filter at its centre, after which the elementwise operand is added."""
    height = needs.dimension(filters, -4)
    if dilation > 1:
        needs.holds(
            height % 2 == 1 if not is_tensor(height) else tf.equal(height % 2, 1),
            "a filter of odd height for elementwise with a dilation above 1",
            height,
        )
