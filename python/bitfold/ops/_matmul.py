# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The matrix product."""

from __future__ import annotations

from typing import Any

import tensorflow as tf

from bitfold._frame.arguments import element_tensor, integer, scalar_operand
from bitfold._frame.layers import accepts_symbolic
from bitfold._frame.loaded import raw_ops
from bitfold._frame.operands import Needs
from bitfold._frame.shapes import product_shape, unrelated, without_static_shape
from bitfold._frame.tensors import is_tensor


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

    The gradient, by `a` and `b`, is that of ``a @ b / mult_shift`` in real numbers, with the
    weights that the unit reads.

    Args:
        a: the data, float32 or int32, [rows, inner] or [batch, rows, inner].
        b: the weights, of the type of `a`: [inner, cols], for a batch [batch, inner, cols]; no
            broadcasting.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift of each product, or the number by whose reciprocal it is multiplied,
            -128 to 127.
        use_fp16_acc: accumulate in half precision; needs float32 data.
        name: the node's name.

    Returns:
        A tensor [rows, cols] or [batch, rows, cols] of the type of `a`.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold; ranks other than 2 and 3, or that
            differ; inner dimensions or batches that differ; `use_fp16_acc` with int32 data.
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data.

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
    a, b = _of_one_rank(a, b)
    needs = Needs()
    needs.half_precision_float(use_fp16_acc, a.dtype)
    _require_matrices(needs, a, b)
    with needs.met():
        product = raw_ops.h_matmul(
            a=without_static_shape(unrelated(a)),
            b=without_static_shape(unrelated(b)),
            mult_shift=scalar_operand(mult_shift, "mult_shift", tf.int8),
            accumulator_size=integer(accumulator_size, "accumulator_size"),
            use_fp16_acc=use_fp16_acc,
            name=name,
        )
    if not tf.executing_eagerly():
        # With unknown ranks the runtime infers a matrix, whatever will come, and would hold a
        # gradient of the product against that.
        product = unrelated(without_static_shape(product))
        product.set_shape(product_shape(a.shape, b.shape))
    return product


def _of_one_rank(a: tf.Tensor, b: tf.Tensor) -> tuple[tf.Tensor, tf.Tensor]:
    """Give the operand of unknown rank the other's, which it is refused for when it has not."""
    if a.shape.rank is None and b.shape.rank is not None:
        return tf.ensure_shape(a, [None] * b.shape.rank), b
    if b.shape.rank is None and a.shape.rank is not None:
        return a, tf.ensure_shape(b, [None] * a.shape.rank)
    return a, b


def _require_matrices(needs: Needs, a: tf.Tensor, b: tf.Tensor) -> None:
    """Require two matrices, or two batches of as many, whose inner dimensions agree."""
    needs.rank(a, "a", 2, 3)
    needs.rank(b, "b", 2, 3)
    rank = a.shape.rank
    if rank is None:  # and of b likewise
        needs.holds(tf.equal(tf.rank(a), tf.rank(b)), "a and b of one rank", tf.rank(b))
        # Of the leading dimensions, which are one or none, the products.
        batches = [tf.reduce_prod(tf.shape(x, tf.int64)[:-2]) for x in (a, b)]
    else:
        needs.holds(rank == b.shape.rank, f"a and b of one rank, a's being {rank}", b.shape.rank)
        batches = [needs.dimension(x, 0) for x in (a, b)] if rank == 3 else [1, 1]
    inner = needs.dimension(a, -1)
    needs.size(needs.dimension(b, -2), inner, f"b to have {_known(inner)}rows, the columns of a", b)
    needs.size(batches[1], batches[0], f"b to have {_known(batches[0])}matrices, the batch of a", b)


def _known(size: Any) -> str:
    return "as many " if is_tensor(size) else f"{size} "
