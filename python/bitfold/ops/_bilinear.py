# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The resampler."""

from __future__ import annotations

from typing import Any

import tensorflow as tf

from bitfold._frame.arguments import element_tensor, integer, scalar_operand
from bitfold._frame.layers import accepts_symbolic
from bitfold._frame.loaded import raw_ops
from bitfold._frame.operands import Needs, elements


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

    The gradient, by neighbours, weights and `bias`, is that of the same sum in real numbers,
    products divided by ``mult_shift`` unless `float_accumulator`.

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
        ValueError: for numbers that their type does not hold; neighbours or weights of another
            number of elements.
        tf.errors.InvalidArgumentError: for a batch of 0, or no batch; a width above 32 with int32
            data, unless `float_accumulator`.

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
    others = {
        "upper_right": upper_right,
        "bottom_left": bottom_left,
        "bottom_right": bottom_right,
        "weight_upper_left": weight_upper_left,
        "weight_upper_right": weight_upper_right,
        "weight_bottom_left": weight_bottom_left,
        "weight_bottom_right": weight_bottom_right,
    }
    tensors = {key: element_tensor(x, key, dtype) for key, x in others.items()}
    with _sizes_needed(upper_left, tensors).met():
        return raw_ops.h_bilinear(
            upper_left,
            *tensors.values(),
            mult_shift=scalar_operand(mult_shift, "mult_shift", tf.int8),
            bias=scalar_operand(bias, "bias", tf.float32),
            accumulator_size=integer(accumulator_size, "accumulator_size"),
            float_accumulator=float_accumulator,
            name=name,
        )


def _sizes_needed(upper_left: tf.Tensor, others: dict[str, tf.Tensor]) -> Needs:
    """Return what the resampler needs of its other neighbours and of its weights."""
    needs = Needs()
    count = elements(upper_left)
    rank = upper_left.shape.rank
    if rank == 0 or (rank is not None and upper_left.shape[0] == 0):
        return needs  # the kernel refuses
    item = count // needs.dimension(upper_left, 0)
    for key, tensor in others.items():
        if key.startswith("weight"):
            needs.elements(tensor, key, item, "one for each element of a batch item")
        else:
            needs.elements(tensor, key, count, "as many as upper_left")
    return needs
