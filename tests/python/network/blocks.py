# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The blocks that random networks are made of.

Each takes a `Build` and a tensor of images [batch, rows, columns, channels] and returns such a
tensor, or None where the images are too small or the form has no such operator.
"""

from __future__ import annotations

from collections.abc import Callable, Sequence

import keras
import numpy as np
import tensorflow as tf
from keras import layers

MOST_CHANNELS = 24
MOST_ROWS = 24


class Build:
    """A network while it is made.

    Attributes:
        rng: what every choice comes from.
        activation_bits: 8 or 16; some operators exist for 8 only.
        inputs: its inputs so far.
        seen: the tensors of images so far, for branches to come back to.
    """

    def __init__(self, rng: np.random.Generator, activation_bits: int) -> None:
        self.rng = rng
        self.activation_bits = activation_bits
        self.inputs: list[keras.KerasTensor] = []
        self.seen: list[keras.KerasTensor] = []

    def input(self, shape: Sequence[int]) -> keras.KerasTensor:
        """Return a new input of images."""
        # Names in another order than the inputs: a converter may sort them.
        x = keras.Input(
            tuple(int(n) for n in shape),
            name="images" if not self.inputs else "cab"[len(self.inputs)],
        )
        self.inputs.append(x)
        self.seen.append(x)
        return x

    def number(self, low: int, high: int) -> int:
        """Return an integer of low to high, both included; the low one is as likely as any."""
        return int(self.rng.integers(low, high, endpoint=True))

    def choose(self, values: Sequence):
        """Return one of the values."""
        return values[self.number(0, len(values) - 1)]

    def kernel(self, x: keras.KerasTensor, most: int = 5) -> tuple[int, int]:
        """Return a window that lies in the image, often not square."""
        rows, columns = x.shape[1:3]
        a, b = self.number(1, min(most, rows)), self.number(1, min(most, columns))
        return (a, min(a, columns)) if self.rng.random() < 0.5 else (a, b)

    def window(self, x: keras.KerasTensor) -> dict:
        """Return kernel, strides, padding and dilation of a convolution."""
        kernel = self.kernel(x)
        padding = self.choose(["same", "valid"])
        strides, dilation = self.choose([1, 1, 2, 3, 4]), (1, 1)
        reach = min((n - 1) // max(1, k - 1) for n, k in zip(x.shape[1:3], kernel, strict=True))
        if strides == 1 and reach > 1 and self.rng.random() < 0.4:
            dilation = (self.number(1, min(3, reach)), self.number(1, min(3, reach)))
        return {
            "kernel_size": kernel,
            "strides": strides,
            "padding": padding,
            "dilation_rate": dilation,
            "use_bias": self.rng.random() < 0.8,
        }

    def activation(self, x: keras.KerasTensor) -> keras.KerasTensor:
        """Return x, often behind an activation that converters fuse."""
        choice = self.number(0, 5)
        if choice == 0:
            return layers.ReLU()(x)
        if choice == 1:
            return layers.ReLU(max_value=6)(x)
        if choice == 2:
            x = layers.BatchNormalization()(x)
            return layers.ReLU(max_value=self.choose([None, 6.0, 1.0]))(x)
        if choice == 3 and self.activation_bits == 8:
            return _call(lambda y: tf.clip_by_value(y, -1.0, 1.0), x)
        return x

    def channels(self) -> int:
        """Return a number of channels."""
        return self.choose([1, 2, 3, 4, 5, 8, 12, 16, 17, MOST_CHANNELS])

    def like(self, x: keras.KerasTensor) -> keras.KerasTensor:
        """Return another tensor of x's shape: an earlier one, a new input, or made from x."""
        same = [y for y in self.seen if y.shape == x.shape and y is not x]
        if same and self.rng.random() < 0.6:
            return self.choose(same)
        if len(self.inputs) < 3 and self.rng.random() < 0.3:
            return self.input(x.shape[1:])
        return layers.Conv2D(x.shape[-1], self.choose([1, 3]), padding="same")(x)


class _Call(layers.Layer):
    """A layer that calls a function of the runtime."""

    def __init__(self, function: Callable, **arguments) -> None:
        super().__init__(**arguments)
        self._function = function

    def call(self, *inputs):
        return self._function(*inputs)


def _call(function: Callable, *inputs: keras.KerasTensor):
    return _Call(function)(*inputs)


def randomise(layer: layers.Layer, rng: np.random.Generator) -> None:
    """Give a layer weights as training may leave them, and such as it rarely does."""
    for weight in layer.weights:
        shape = tuple(weight.shape)
        if weight.name in ("moving_variance", "gamma"):
            value = rng.uniform(0.2, 2, shape)
        elif len(shape) < 2 or weight.name == "alpha":
            value = rng.normal(0, rng.choice([0.01, 0.3, 20], p=[0.4, 0.5, 0.1]), shape)
        else:
            # Channels of a hundred times the size of others, and dead ones.
            size = rng.choice([0, 0.02, 1, 1, 1, 2], shape[-1])
            value = rng.normal(0, 1 / np.sqrt(np.prod(shape[:-1])), shape) * size
        weight.assign(value.astype(np.float32))


def _only_int8(block: Callable) -> Callable:
    """Mark a block whose operators have no form of 16 bits in the converter or the runtime."""
    block.is_only_int8 = True
    return block


# ---- Sums ----------------------------------------------------------------------------------------


def convolution(build, x):
    return build.activation(layers.Conv2D(build.channels(), **build.window(x))(x))


def pointwise(build, x):
    return build.activation(layers.Conv2D(build.channels(), 1, use_bias=build.number(0, 1))(x))


def depthwise(build, x):
    return build.activation(layers.DepthwiseConv2D(**build.window(x))(x))


def depthwise_multiplied(build, x):
    most = MOST_CHANNELS // x.shape[-1]
    if most < 2:
        return None
    multiplier = build.number(2, min(4, most))
    return build.activation(
        layers.DepthwiseConv2D(depth_multiplier=multiplier, **build.window(x))(x)
    )


def separable(build, x):
    return build.activation(layers.SeparableConv2D(build.channels(), **build.window(x))(x))


def dilated(build, x):
    rate = build.number(2, 3)
    kernel = [min(3, 1 + (n - 1) // rate) for n in x.shape[1:3]]
    convolve = build.choose([layers.Conv2D, layers.DepthwiseConv2D])
    arguments = {"filters": build.channels()} if convolve is layers.Conv2D else {}
    padding = build.choose(["same", "valid"])
    x = convolve(kernel_size=kernel, dilation_rate=rate, padding=padding, **arguments)(x)
    return build.activation(x)


def transposed(build, x):
    strides = build.choose([1, 2, 3])
    if max(x.shape[1:3]) * strides > MOST_ROWS:
        return None
    kernel, padding = build.kernel(x, 4), build.choose(["same", "valid"])
    x = layers.Conv2DTranspose(build.channels(), kernel, strides=strides, padding=padding)(x)
    return build.activation(x)


def dense(build, x):
    activation = build.choose([None, "relu", "relu6"])
    return layers.Dense(build.channels(), activation=activation)(x)


def flat_dense(build, x):
    channels = build.channels()
    y = layers.Flatten()(x)
    y = layers.Dense(channels, activation=build.choose([None, "relu", "sigmoid"]))(y)
    y = layers.Dense(x.shape[1] * x.shape[2] * 2)(y)
    return layers.Reshape((x.shape[1], x.shape[2], 2))(y)


def attention(build, x):
    rows, columns, channels = x.shape[1:]
    y = layers.Reshape((rows * columns, channels))(x)
    y = layers.MultiHeadAttention(build.number(1, 3), build.number(1, 8))(y, y)
    return layers.Reshape((rows, columns, channels))(y)


def products(build, x):
    other = build.like(x)
    y = layers.Permute((1, 3, 2))(x)
    if build.rng.random() < 0.5:
        return _call(lambda a, b: tf.matmul(a, b, transpose_b=True), x, other)
    return keras.ops.matmul(y, other)


def squeeze_excite(build, x):
    y = layers.GlobalAveragePooling2D(keepdims=build.rng.random() < 0.7)(x)
    y = layers.Dense(build.number(1, 6), activation="relu")(y)
    y = layers.Dense(x.shape[-1], activation=build.choose(["sigmoid", "hard_sigmoid"]))(y)
    if len(y.shape) == 2:
        y = layers.Reshape((1, 1, x.shape[-1]))(y)
    return layers.Multiply()([x, y])


# ---- Two tensors ---------------------------------------------------------------------------------


def addition(build, x):
    return build.activation(layers.Add()([x, build.like(x)]))


def subtraction(build, x):
    return build.activation(layers.Subtract()([build.like(x), x]))


def multiplication(build, x):
    return build.activation(layers.Multiply()([x, build.like(x)]))


def maximum(build, x):
    return layers.Maximum()([x, build.like(x)])


def minimum(build, x):
    return layers.Minimum()([x, build.like(x)])


def average(build, x):
    return layers.Average()([x, build.like(x), build.like(x)])


@_only_int8
def squared_difference(build, x):
    return _call(tf.math.squared_difference, x, build.like(x))


def with_constants(build, x):
    shape = build.choose([(1,), x.shape[-1:], (x.shape[2], 1), (x.shape[1], 1, x.shape[-1])])
    value = build.rng.normal(0, 1, shape).astype(np.float32)
    operation = build.choose([tf.add, tf.subtract, tf.multiply, tf.maximum, tf.minimum])
    swap = build.rng.random() < 0.5
    return _call(lambda a: operation(value, a) if swap else operation(a, value), x)


def concatenation(build, x):
    axis = build.choose([1, 2, 3, -1])
    other = build.activation(build.like(x))
    if x.shape[axis] > (MOST_CHANNELS if axis in (3, -1) else MOST_ROWS) // 2:
        return None
    return layers.Concatenate(axis=axis)([x, other])


# ---- Pools and reductions ------------------------------------------------------------------------


def _pool(build, x, pool):
    size, padding = build.kernel(x), build.choose(["same", "valid"])
    return pool(size, strides=build.choose([None, 1, 2, 3]), padding=padding)(x)


def average_pool(build, x):
    return build.activation(_pool(build, x, layers.AveragePooling2D))


def max_pool(build, x):
    return build.activation(_pool(build, x, layers.MaxPooling2D))


def mean(build, x):
    axes = build.choose([(1, 2), (3,), (1,), (2,), (1, 2, 3), (2, 3)])
    return layers.Subtract()([x, keras.ops.mean(x, axes, keepdims=True)])


def total(build, x):
    axes = build.choose([(1, 2), (3,), (1,), (2, 3)])
    return layers.Multiply()([x, keras.ops.sum(x, axes, keepdims=True)])


# ---- Where elements go ---------------------------------------------------------------------------


def _paddings(build, x, most: int):
    return (
        [[0, 0]] + [[build.number(0, most), build.number(0, most)] for _ in x.shape[1:3]] + [[0, 0]]
    )


def zero_padding(build, x):
    return layers.ZeroPadding2D(tuple(map(tuple, _paddings(build, x, 3)[1:3])))(x)


@_only_int8
def constant_padding(build, x):
    paddings, value = _paddings(build, x, 2), float(build.rng.normal())
    return _call(lambda y: tf.pad(y, paddings, constant_values=value), x)


def mirror_padding(build, x):
    mode = build.choose(["reflect", "symmetric"])
    return keras.ops.pad(x, _paddings(build, x, min(3, *(n - 1 for n in x.shape[1:3]))), mode=mode)


def cropping(build, x):
    if min(x.shape[1:3]) < 5:
        return None
    return layers.Cropping2D(tuple(map(tuple, _paddings(build, x, 2)[1:3])))(x)


def strided_slice(build, x):
    if min(x.shape[1:3]) < 6:
        return None
    start, step = build.number(0, 2), build.number(1, 3)
    y = (
        x[:, start::step, :-1]
        if build.rng.random() < 0.6
        else _call(lambda y: y[:, ::-1, 1:, :], x)
    )
    return y


def slicing(build, x):
    begin = [build.number(0, n - 1) for n in x.shape[1:]]
    size = [build.number(1, n - b) for n, b in zip(x.shape[1:], begin, strict=True)]
    return _call(lambda y: tf.slice(y, [0, *begin], [-1, *size]), x)


def split(build, x):
    axis = build.choose([a for a in (1, 2, 3) if x.shape[a] % 2 == 0] or [0])
    if axis == 0:
        return None
    first, second = keras.ops.split(x, 2, axis=axis)
    return layers.Add()([build.activation(first), second])


def stacking(build, x):
    axis = build.choose([1, 2, 3])
    parts = keras.ops.unstack(x, axis=axis) if x.shape[axis] <= 8 else [x[:, 0], x[:, -1], x[:, 2]]
    return keras.ops.stack(parts[::-1], axis=axis)


def reshaping(build, x):
    rows, columns, channels = x.shape[1:]
    x = layers.Permute(build.choose([(2, 1, 3), (3, 1, 2), (1, 3, 2), (3, 2, 1)]))(x)
    if build.rng.random() < 0.5:
        return x
    return layers.Reshape((columns, rows, channels))(x)


def squeezing(build, x):
    y = keras.ops.expand_dims(layers.GlobalAveragePooling2D(keepdims=True)(x), 1)
    return layers.Add()([x, _call(lambda z: tf.squeeze(z, [1]), y)])


@_only_int8
def tiling(build, x):
    if max(x.shape[1:3]) > MOST_ROWS // 2:
        return None
    return _call(lambda y: tf.tile(y, [1, 2, 1, 1]), x)


def gathering(build, x):
    indices = build.rng.integers(0, x.shape[3], build.number(1, 8)).tolist()
    return _call(lambda y: tf.gather(y, indices, axis=3), x)


@_only_int8
def space_to_depth(build, x):
    rows, columns = (n // 2 * 2 for n in x.shape[1:3])
    if min(rows, columns) < 2:
        return None
    return _call(lambda y: tf.nn.space_to_depth(y, 2), x[:, :rows, :columns, :6])


@_only_int8
def depth_to_space(build, x):
    if max(x.shape[1:3]) > MOST_ROWS // 2:
        return None
    return _call(lambda y: tf.nn.depth_to_space(y, 2), layers.Conv2D(4 * build.number(1, 4), 1)(x))


@_only_int8
def upsampling_nearest(build, x):
    factor = (build.number(1, 3), build.number(1, 3))
    if max(x.shape[1:3]) * 3 > MOST_ROWS:
        return None
    return layers.UpSampling2D(factor, interpolation="nearest")(x)


def upsampling_bilinear(build, x):
    if max(x.shape[1:3]) * 3 > MOST_ROWS:
        return None
    return layers.UpSampling2D(build.number(2, 3), interpolation="bilinear")(x)


def resize(build, x):
    size = [build.number(1, MOST_ROWS) for _ in range(2)]
    method = build.choose(["resize_bilinear", "resize_nearest_neighbor"])
    flags = build.choose([{}, {"align_corners": True}, {"half_pixel_centers": True}])
    return _call(
        lambda y: getattr(tf.compat.v1.raw_ops, _RESIZE[method])(images=y, size=size, **flags), x
    )


_RESIZE = {"resize_bilinear": "ResizeBilinear", "resize_nearest_neighbor": "ResizeNearestNeighbor"}


# ---- Functions of one value ----------------------------------------------------------------------


def leaky_relu(build, x):
    return layers.LeakyReLU(build.choose([0.01, 0.3, 1.5]))(x)


@_only_int8
def prelu(build, x):
    return layers.PReLU(shared_axes=build.choose([[1, 2], None]))(x)


def sigmoid(build, x):
    return layers.Activation("sigmoid")(x)


def tanh(build, x):
    return layers.Activation("tanh")(x)


@_only_int8
def hard_swish(build, x):
    return layers.Activation("hard_silu")(x)


def silu(build, x):
    return layers.Activation("silu")(x)


def gelu(build, x):
    return keras.ops.gelu(x, approximate=build.rng.random() < 0.5)


def relu(build, x):
    return layers.ReLU()(build.like(x))


def relu6(build, x):
    return layers.ReLU(max_value=6)(max_pool(build, x))


@_only_int8
def negation(build, x):
    return keras.ops.negative(x)


def softmax(build, x):
    return layers.Softmax(axis=build.choose([-1, -1, 2]))(x)


def batch_normalisation(build, x):
    return layers.BatchNormalization()(x)


@_only_int8
def layer_normalisation(build, x):
    return layers.LayerNormalization(axis=build.choose([-1, -1, (2, 3)]), epsilon=1e-3)(x)
