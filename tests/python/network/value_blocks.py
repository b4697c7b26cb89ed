# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Blocks of random networks: two tensors, pools, reductions, functions of one value.

A block takes a `Build` and a tensor of images [batch, rows, columns, channels] and returns such a
tensor, or None where the images are too small for it.
"""

from __future__ import annotations

import keras
import numpy as np
import tensorflow as tf
from building import MOST_CHANNELS, MOST_ROWS, call, only_int8
from keras import layers


def addition(build, x):
    """A sum of two tensors."""
    return build.activation(layers.Add()([x, build.like(x)]))


def subtraction(build, x):
    """A difference."""
    return build.activation(layers.Subtract()([build.like(x), x]))


def multiplication(build, x):
    """A product, element by element."""
    return build.activation(layers.Multiply()([x, build.like(x)]))


def maximum(build, x):
    """The larger of two."""
    return layers.Maximum()([x, build.like(x)])


def minimum(build, x):
    """The smaller of two."""
    return layers.Minimum()([x, build.like(x)])


def average(build, x):
    """The mean of three tensors."""
    return layers.Average()([x, build.like(x), build.like(x)])


@only_int8
def squared_difference(build, x):
    """A difference, squared."""
    return call(tf.math.squared_difference, x, build.like(x))


def with_constants(build, x):
    """A constant added, subtracted, multiplied or compared."""
    shape = build.choose([(1,), x.shape[-1:], (x.shape[2], 1), (x.shape[1], 1, x.shape[-1])])
    value = build.rng.normal(0, 1, shape).astype(np.float32)
    operation = build.choose([tf.add, tf.subtract, tf.multiply, tf.maximum, tf.minimum])
    swap = build.rng.random() < 0.5
    return call(lambda a: operation(value, a) if swap else operation(a, value), x)


def concatenation(build, x):
    """Two tensors side by side."""
    axis = build.choose([1, 2, 3, -1])
    if x.shape[axis] > (MOST_CHANNELS if axis in (3, -1) else MOST_ROWS) // 2:
        return None
    return layers.Concatenate(axis=axis)([x, build.activation(build.like(x))])


def _pool(build, x, pool):
    size, padding = build.kernel(x), build.choose(["same", "valid"])
    return pool(size, strides=build.choose([None, 1, 2, 3]), padding=padding)(x)


def average_pool(build, x):
    """Means of windows."""
    return build.activation(_pool(build, x, layers.AveragePooling2D))


def max_pool(build, x):
    """Maxima of windows."""
    return build.activation(_pool(build, x, layers.MaxPooling2D))


def mean(build, x):
    """What differs from the mean over some dimensions."""
    axes = build.choose([(1, 2), (3,), (1,), (2,), (1, 2, 3), (2, 3)])
    return layers.Subtract()([x, keras.ops.mean(x, axes, keepdims=True)])


def total(build, x):
    """Elements times a sum over some dimensions."""
    axes = build.choose([(1, 2), (3,), (1,), (2, 3)])
    return layers.Multiply()([x, keras.ops.sum(x, axes, keepdims=True)])


def leaky_relu(build, x):
    """A slope below zero."""
    return layers.LeakyReLU(build.choose([0.01, 0.3, 1.5]))(x)


@only_int8
def prelu(build, x):
    """A slope for each channel or element."""
    return layers.PReLU(shared_axes=build.choose([[1, 2], None]))(x)


def sigmoid(build, x):
    """The logistic function."""
    return layers.Activation("sigmoid")(x)


def tanh(build, x):
    """The hyperbolic tangent."""
    return layers.Activation("tanh")(x)


@only_int8
def hard_swish(build, x):
    """The product of x and a clipped line."""
    return layers.Activation("hard_silu")(x)


def silu(build, x):
    """The product of x and its logistic function."""
    return layers.Activation("silu")(x)


def gelu(build, x):
    """The product of x and the normal distribution below it."""
    return keras.ops.gelu(x, approximate=build.rng.random() < 0.5)


def relu(build, x):
    """Nothing below zero."""
    return layers.ReLU()(x)


def relu6(build, x):
    """Nothing below zero and above six."""
    return layers.ReLU(max_value=6)(max_pool(build, x))


@only_int8
def negation(build, x):
    """The negative."""
    return keras.ops.negative(x)


def softmax(build, x):
    """Shares of channels or of columns."""
    return layers.Softmax(axis=build.choose([-1, -1, 2]))(x)


def batch_normalisation(build, x):
    """A factor and an offset for each channel."""
    return layers.BatchNormalization()(x)


@only_int8
def layer_normalisation(build, x):
    """Elements by their mean and variance."""
    return layers.LayerNormalization(axis=build.choose([-1, -1, (2, 3)]), epsilon=1e-3)(x)
