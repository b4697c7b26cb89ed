# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Times layers as public ops called eagerly, on int32 bytes, against the stock float ops.

The layers are those of the networks, each shape once, and some by name: where an accelerator's op
is asked for much in little time.
"""

from __future__ import annotations

import math
from collections.abc import Callable, Mapping
from dataclasses import dataclass

import numpy as np
import tensorflow as tf

import bitfold
import network_models
from timing import integers, interleaved

FULL = {"accumulator_size": 24}
SHIFTED = {"accumulator_size": 24, "mult_shift": 4}
TURNS = 5


@dataclass(frozen=True)
class Shape:
    """A layer: its op, the shapes of data and weights, the stride; padding is SAME."""

    op: str
    data: tuple[int, ...]
    weights: tuple[int, ...]
    stride: int = 1

    @property
    def text(self) -> str:
        """What tables call it."""
        if self.op == "matmul":
            return f"{_by(self.data)} by {_by(self.weights)}"
        count, *image = self.data
        height, width, _, outputs = self.weights
        batch = f"{count} x " if count > 1 else ""
        kind = "depthwise" if self.op == "depthwise_conv2d" else f"to {outputs}"
        stride = f", stride {self.stride}" if self.stride > 1 else ""
        return f"{batch}{_by(image)} {kind}, {height}x{width}{stride}"

    @property
    def multiply_adds(self) -> int:
        """How many products it adds up."""
        if self.op == "matmul":
            return self.data[0] * math.prod(self.weights)
        count, height, width, _ = self.data
        return (
            count * -(-height // self.stride) * -(-width // self.stride) * math.prod(self.weights)
        )

    def ours(self, options: Mapping[str, int]) -> Callable[[tf.Tensor, tf.Tensor], tf.Tensor]:
        """Return our op."""
        op = getattr(bitfold.ops, self.op)
        strides = {} if self.op == "matmul" else {"strides": self.stride}
        return lambda x, w: op(x, w, **strides, **options)

    def stock(self, x: tf.Tensor, w: tf.Tensor) -> tf.Tensor:
        """Compute by the stock op."""
        if self.op == "matmul":
            return tf.matmul(x, w)
        if self.op == "depthwise_conv2d":
            return tf.nn.depthwise_conv2d(x, w, [1, self.stride, self.stride, 1], "SAME")
        return tf.nn.conv2d(x, w, self.stride, "SAME")


def _by(shape: tuple[int, ...] | list[int]) -> str:
    return "x".join(map(str, shape))


CONVOLUTION = Shape("conv2d", (1, 56, 56, 64), (3, 3, 64, 64))
NAMED: tuple[tuple[Shape, Mapping[str, int]], ...] = (
    (Shape("conv2d", (64, 8, 8, 16), (3, 3, 16, 16)), FULL),
    (Shape("depthwise_conv2d", (256, 14, 14, 96), (3, 3, 96, 1)), FULL),
    (Shape("conv2d", (1000, 1, 1, 64), (1, 1, 64, 64)), FULL),
    (CONVOLUTION, FULL),
    (Shape("conv2d", (1, 28, 28, 128), (3, 3, 128, 128)), FULL),
    (Shape("matmul", (128, 768), (768, 768)), FULL),
    (CONVOLUTION, SHIFTED),
)


@dataclass(frozen=True)
class LayerTimes:
    """A layer's seconds a call; `count` is how often its network has it."""

    name: str
    network: str
    count: int
    multiply_adds: int
    ours_seconds: float
    stock_seconds: float

    @property
    def ratio(self) -> float:
        """How many times as fast as the stock op."""
        return self.stock_seconds / self.ours_seconds

    @property
    def rates(self) -> tuple[float, float]:
        """Multiply-adds a second, ours and the stock op's."""
        return self.multiply_adds / self.ours_seconds, self.multiply_adds / self.stock_seconds


def measure_layers(network: str, budget: float) -> list[LayerTimes]:
    """Time every convolution and dense layer of a network, with its own weights."""
    shapes: dict[Shape, list[np.ndarray]] = {}
    for layer in network_models.network(network).layers:
        if layer.has_accumulator:
            shape, weights = _of_layer(layer)
            shapes.setdefault(shape, []).append(weights)
    return [
        _measure(shape, FULL, weights[0], budget, network, len(weights))
        for shape, weights in shapes.items()
    ]


def measure_named(budget: float) -> list[LayerTimes]:
    """Time the layers by name, with random weights."""
    return [
        _measure(shape, options, integers(shape.weights, -128, 127, tf.int32).numpy(), budget)
        for shape, options in NAMED
    ]


def name_of(shape: Shape, options: Mapping[str, int]) -> str:
    """Return what a layer is called."""
    shift = options.get("mult_shift", 0)
    return shape.text + (f", shift {shift}" if shift else "")


def _of_layer(layer: bitfold.network.Layer) -> tuple[Shape, np.ndarray]:
    """Return a layer of a network as a public op takes it."""
    if layer.operator == "FULLY_CONNECTED":
        weights = layer.filter.T
        return Shape("matmul", (1, len(weights)), weights.shape), weights
    data = layer.input_shapes[0]
    is_depthwise = layer.operator == "DEPTHWISE_CONV_2D"
    weights = layer.filter.transpose((1, 2, 3, 0))
    stride = -(-data[1] // layer.output_shapes[0][1])
    return Shape(
        "depthwise_conv2d" if is_depthwise else "conv2d", data, weights.shape, stride
    ), weights


def _measure(
    shape: Shape,
    options: Mapping[str, int],
    weights: np.ndarray,
    budget: float,
    network: str = "",
    count: int = 1,
) -> LayerTimes:
    """Time a layer beside the stock op, in turns."""
    x = integers(shape.data, 0, 255, tf.int32)
    w = tf.constant(weights.astype(np.int32))
    floats = (tf.cast(x, tf.float32), tf.cast(w, tf.float32))
    ours = shape.ours(options)
    times = interleaved(
        {"ours": lambda: ours(x, w), "stock": lambda: shape.stock(*floats)}, budget, TURNS
    )
    return LayerTimes(
        name_of(shape, options),
        network,
        count,
        shape.multiply_adds,
        times["ours"],
        times["stock"],
    )
