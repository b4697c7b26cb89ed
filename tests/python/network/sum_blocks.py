# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Blocks of random networks: sums of products.

A block takes a `Build` and a tensor of images [batch, rows, columns, channels] and returns such a
tensor, or None where the images are too small for it.
"""

from __future__ import annotations

import keras
import tensorflow as tf
from building import MOST_CHANNELS, call
from keras import layers


def convolution(build, x):
    """A convolution."""
    return build.activation(layers.Conv2D(build.channels(), **build.window(x))(x))


def pointwise(build, x):
    """A convolution of single pixels."""
    return build.activation(layers.Conv2D(build.channels(), 1, use_bias=build.number(0, 1))(x))


def depthwise(build, x):
    """A filter for each channel."""
    return build.activation(layers.DepthwiseConv2D(**build.window(x))(x))


def depthwise_multiplied(build, x):
    """Several filters for each channel."""
    most = MOST_CHANNELS // x.shape[-1]
    if most < 2:
        return None
    multiplier = build.number(2, min(4, most))
    return build.activation(
        layers.DepthwiseConv2D(depth_multiplier=multiplier, **build.window(x))(x)
    )


def separable(build, x):
    """A depthwise convolution and a pointwise one."""
    return build.activation(layers.SeparableConv2D(build.channels(), **build.window(x))(x))


def dilated(build, x):
    """Taps apart from one another."""
    rate = build.number(2, 3)
    kernel = [min(3, 1 + (n - 1) // rate) for n in x.shape[1:3]]
    convolve = build.choose([layers.Conv2D, layers.DepthwiseConv2D])
    arguments = {"filters": build.channels()} if convolve is layers.Conv2D else {}
    padding = build.choose(["same", "valid"])
    x = convolve(kernel_size=kernel, dilation_rate=rate, padding=padding, **arguments)(x)
    return build.activation(x)


def transposed(build, x):
    """A transposed convolution."""
    strides = build.choose([1, 2, 3])
    x = build.small(x, strides)
    kernel, padding = build.kernel(x, 4), build.choose(["same", "valid"])
    x = layers.Conv2DTranspose(build.channels(), kernel, strides=strides, padding=padding)(x)
    return build.activation(x)


def dense(build, x):
    """A dense layer on every pixel."""
    activation = build.choose([None, "relu", "relu6"])
    return layers.Dense(build.channels(), activation=activation)(x)


def flat_dense(build, x):
    """Dense layers on the whole image."""
    channels = build.channels()
    y = layers.Flatten()(x)
    y = layers.Dense(channels, activation=build.choose([None, "relu", "sigmoid"]))(y)
    y = layers.Dense(x.shape[1] * x.shape[2] * 2)(y)
    return layers.Reshape((x.shape[1], x.shape[2], 2))(y)


def attention(build, x):
    """Attention between pixels."""
    rows, columns, channels = x.shape[1:]
    y = layers.Reshape((rows * columns, channels))(x)
    y = layers.MultiHeadAttention(build.number(1, 3), build.number(1, 8))(y, y)
    return layers.Reshape((rows, columns, channels))(y)


def products(build, x):
    """Products of two tensors."""
    other = build.like(x)
    y = layers.Permute((1, 3, 2))(x)
    if build.rng.random() < 0.5:
        return call(lambda a, b: tf.matmul(a, b, transpose_b=True), x, other)
    return keras.ops.matmul(y, other)


def squeeze_excite(build, x):
    """Channels weighted by what their means say."""
    y = layers.GlobalAveragePooling2D(keepdims=build.rng.random() < 0.7)(x)
    y = layers.Dense(build.number(1, 6), activation="relu")(y)
    y = layers.Dense(x.shape[-1], activation=build.choose(["sigmoid", "hard_sigmoid"]))(y)
    if len(y.shape) == 2:
        y = layers.Reshape((1, 1, x.shape[-1]))(y)
    return layers.Multiply()([x, y])
