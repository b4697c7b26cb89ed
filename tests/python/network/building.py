# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A random network while it is made: choices, inputs, windows, weights."""

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
        """Begin with nothing."""
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
            return call(lambda y: tf.clip_by_value(y, -1.0, 1.0), x)
        return x

    def channels(self) -> int:
        """Return a number of channels."""
        return self.choose([1, 2, 3, 4, 5, 8, 12, 16, 17, MOST_CHANNELS])

    def small(self, x: keras.KerasTensor, factor: int) -> keras.KerasTensor:
        """Return the part of x that, so many times as large, is not too large."""
        most = MOST_ROWS // factor
        return x if max(x.shape[1:3]) <= most else x[:, :most, :most]

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


def call(function: Callable, *inputs: keras.KerasTensor):
    """Return what a function of the runtime makes of tensors."""
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


def only_int8(block: Callable) -> Callable:
    """Mark a block whose operators have no form of 16 bits in the converter or the runtime."""
    block.is_only_int8 = True
    return block
