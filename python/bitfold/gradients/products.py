# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Gradients of the matrix product and of the resampler.

    HMatmul    a @ b / s, b as the unit reads it
    HBilinear  bias + the sum of the four neighbour * weight / s; without s where the accumulator
               is a float one

s is the shift's value, 1 where that is 0. A weight that the unit reads with another sign counts as
what it reads, where the data's gradient meets it; its own gradient passes through the correction.
"""

from __future__ import annotations

from typing import Any

import tensorflow as tf

from bitfold.gradients.operands import corrected, divided, of_first, require, unhidden, wants


@tf.RegisterGradient("HMatmul")
def _matmul(op: Any, gradient: tf.Tensor) -> list[tf.Tensor | None]:
    a, b, mult_shift = (unhidden(operand) for operand in op.inputs)
    ranks = a.shape.rank, b.shape.rank
    require(ranks[0] in (None, 2, 3), op, "matrices or a batch of them", a.shape)
    require(None in ranks or ranks[0] == ranks[1], op, "operands of one rank", ranks)
    gradient = divided(gradient, mult_shift)
    results = [None, None, None]
    if wants(op, 0):
        weights = corrected(b, op.get_attr("accumulator_size"))
        results[0] = tf.linalg.matmul(gradient, weights, transpose_b=True)
    if wants(op, 1):
        results[1] = tf.linalg.matmul(a, gradient, transpose_a=True)
    return results


@tf.RegisterGradient("HBilinear")
def _bilinear(op: Any, gradient: tf.Tensor) -> list[tf.Tensor | None]:
    *tensors, mult_shift, bias = op.inputs
    neighbours, weights = tensors[:4], tensors[4:]
    item = tf.stack([tf.shape(gradient)[0], tf.size(weights[0])])
    unscaled = tf.reshape(gradient, item)
    scaled = unscaled if op.get_attr("float_accumulator") else divided(unscaled, mult_shift)
    results = [None] * 10
    for index, (neighbour, weight) in enumerate(zip(neighbours, weights, strict=True)):
        if wants(op, index):
            product = scaled * tf.reshape(weight, [-1])
            results[index] = tf.reshape(product, tf.shape(neighbour))
        if wants(op, index + 4):
            product = scaled * tf.reshape(neighbour, item)
            results[index + 4] = tf.reshape(tf.reduce_sum(product, 0), tf.shape(weight))
    if wants(op, 9):
        results[9] = of_first(tf.reduce_sum(gradient), bias)
    return results
