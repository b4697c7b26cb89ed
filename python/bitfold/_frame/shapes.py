# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Shapes that a graph knows before anything runs, where the runtime's own inference is wrong.

The rules are the kernels': every result's shape is computed there, in C++, from
``bitfold/geometry.h`` and by the matrix product's op. A graph asks for shapes before a kernel
exists, and the runtime's answer for the stock ops differs from what the kernels allocate, so this
module states the rules a second time, for shapes with unknown dimensions, and nothing else in
Python does. Eager results have the kernel's shape; tests/python/test_shapes.py compares both.
"""

from __future__ import annotations

import tensorflow as tf


def without_static_shape(tensor: tf.Tensor) -> tf.Tensor:
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


def unrelated(tensor: tf.Tensor) -> tf.Tensor:
    """Return a tensor of unknown rank so that what is inferred of it stays there.

    The runtime's optimiser takes what a rule infers of an op's input for a fact about all that the
    input is made of, and the matrix product's rule infers a matrix of any unknown rank.
    """
    if tensor.shape.rank is not None:
        return tensor
    return tf.reshape(tensor, tf.shape(tensor))


def product_shape(a: tf.TensorShape, b: tf.TensorShape) -> tf.TensorShape:
    """Return the shape that the matrix product's kernel will allocate, as far as it is known.

    Args:
        a: the shape of two matrices or of two batches of them.
        b: of one rank with `a`.
    """
    rank = b.rank if a.rank is None else a.rank
    if rank is None:
        return tf.TensorShape(None)
    data, weights = ([None] * rank if x.rank is None else list(x) for x in (a, b))
    return tf.TensorShape([*data[:-1], weights[-1]])


def convolution_shape(
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
        output_size(size, window, strides[axis], dilations[axis], padding)
        for axis, size, window in ((1, height, rows), (2, width, columns))
    ]
    return tf.TensorShape([batch, *sizes, outputs])


def output_size(
    size: int | None, window: int | None, stride: int, dilation: int, padding: str
) -> int | None:
    """Return the number of outputs along one axis; None where unknown or refused by the kernel."""
    if size is None or (padding == "VALID" and window is None) or stride == 0:
        return None
    span = size - 1 if padding == "SAME" else size - ((window - 1) * dilation + 1)
    quotient = abs(span) // abs(stride)  # truncates toward zero, as the kernels divide
    outputs = (quotient if (span < 0) == (stride < 0) else -quotient) + 1
    return outputs if outputs >= 0 else None
