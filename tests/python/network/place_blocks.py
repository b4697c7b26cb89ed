# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Blocks of random networks: where elements go.

A block takes a `Build` and a tensor of images [batch, rows, columns, channels] and returns such a
tensor, or None where the images are too small for it.
"""

from __future__ import annotations

import keras
import tensorflow as tf
from building import MOST_ROWS, call, only_int8
from keras import layers


def _paddings(build, x, most: int):
    return (
        [[0, 0]] + [[build.number(0, most), build.number(0, most)] for _ in x.shape[1:3]] + [[0, 0]]
    )


def zero_padding(build, x):
    """A border of zeros."""
    return layers.ZeroPadding2D(tuple(map(tuple, _paddings(build, x, 3)[1:3])))(x)


@only_int8
def constant_padding(build, x):
    """A border of another number."""
    paddings, value = _paddings(build, x, 2), float(build.rng.normal())
    return call(lambda y: tf.pad(y, paddings, constant_values=value), x)


def mirror_padding(build, x):
    """A border that mirrors the image."""
    mode = build.choose(["reflect", "symmetric"])
    return keras.ops.pad(x, _paddings(build, x, min(3, *(n - 1 for n in x.shape[1:3]))), mode=mode)


def cropping(build, x):
    """The image without its border."""
    if min(x.shape[1:3]) < 5:
        return None
    return layers.Cropping2D(tuple(map(tuple, _paddings(build, x, 2)[1:3])))(x)


def strided_slice(build, x):
    """Every second or third row, or rows backwards."""
    if min(x.shape[1:3]) < 6:
        return None
    start, step = build.number(0, 2), build.number(1, 3)
    y = x[:, start::step, :-1] if build.rng.random() < 0.6 else call(lambda y: y[:, ::-1, 1:, :], x)
    return y


def slicing(build, x):
    """A part of the image."""
    begin = [build.number(0, n - 1) for n in x.shape[1:]]
    size = [build.number(1, n - b) for n, b in zip(x.shape[1:], begin, strict=True)]
    return call(lambda y: tf.slice(y, [0, *begin], [-1, *size]), x)


def split(build, x):
    """Two halves, added."""
    axis = build.choose([a for a in (1, 2, 3) if x.shape[a] % 2 == 0] or [0])
    if axis == 0:
        return None
    first, second = keras.ops.split(x, 2, axis=axis)
    return layers.Add()([build.activation(first), second])


def stacking(build, x):
    """Slices, stacked in another order."""
    axis = build.choose([1, 2, 3])
    parts = keras.ops.unstack(x, axis=axis) if x.shape[axis] <= 8 else [x[:, 0], x[:, -1], x[:, 2]]
    return keras.ops.stack(parts[::-1], axis=axis)


def reshaping(build, x):
    """Dimensions exchanged, elements laid out anew."""
    rows, columns, channels = x.shape[1:]
    x = layers.Permute(build.choose([(2, 1, 3), (3, 1, 2), (1, 3, 2), (3, 2, 1)]))(x)
    if build.rng.random() < 0.5:
        return x
    return layers.Reshape((columns, rows, channels))(x)


def squeezing(build, x):
    """A dimension put in and taken out."""
    y = keras.ops.expand_dims(layers.GlobalAveragePooling2D(keepdims=True)(x), 1)
    return layers.Add()([x, call(lambda z: tf.squeeze(z, [1]), y)])


@only_int8
def tiling(build, x):
    """The image twice, one above the other."""
    return call(lambda y: tf.tile(y, [1, 2, 1, 1]), build.small(x, 2))


def gathering(build, x):
    """Channels chosen by a list."""
    indices = build.rng.integers(0, x.shape[3], build.number(1, 8)).tolist()
    return call(lambda y: tf.gather(y, indices, axis=3), x)


@only_int8
def space_to_depth(build, x):
    """Blocks of pixels laid into channels."""
    rows, columns = (n // 2 * 2 for n in x.shape[1:3])
    if min(rows, columns) < 2:
        return None
    return call(lambda y: tf.nn.space_to_depth(y, 2), x[:, :rows, :columns, :6])


@only_int8
def depth_to_space(build, x):
    """Channels laid out as blocks of pixels."""
    x = layers.Conv2D(4 * build.number(1, 4), 1)(build.small(x, 2))
    return call(lambda y: tf.nn.depth_to_space(y, 2), x)


@only_int8
def upsampling_nearest(build, x):
    """Every pixel several times."""
    factor = (build.number(1, 3), build.number(1, 3))
    return layers.UpSampling2D(factor, interpolation="nearest")(build.small(x, 3))


def upsampling_bilinear(build, x):
    """More pixels, between their neighbours."""
    factor = build.number(2, 3)
    return layers.UpSampling2D(factor, interpolation="bilinear")(build.small(x, 3))


def resize_bilinear(build, x):
    """Another size, between neighbours, by every way to lay the grid."""
    grid = _grid(build)
    return call(lambda y: tf.raw_ops.ResizeBilinear(images=y, **grid), x)


def resize_nearest(build, x):
    """Another size, of the nearest pixels."""
    grid = _grid(build)
    return call(lambda y: tf.raw_ops.ResizeNearestNeighbor(images=y, **grid), x)


def _grid(build) -> dict:
    flags = build.choose([{}, {"align_corners": True}, {"half_pixel_centers": True}])
    return {"size": [build.number(1, MOST_ROWS) for _ in range(2)], **flags}
