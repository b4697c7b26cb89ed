# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The long chains of bench/run.py: convolutions and matrix products.

A layer is timed as models run it: among others in one graph, so that the call of the graph, a
quarter of a millisecond, is shared. The stock op takes floats; beside a convolution of bytes stands
the mobile runtime's in 8-bit integers, where the installed TensorFlow still has it. It is given its
data and its weights in 8 bits, packed beforehand, which no op that takes tensors is.

    .venv/bin/python bench/chain_cases.py

prints the times of the stock layers alone, as JSON: run.py asks for them in a process of its own,
limited to AVX2.
"""

from __future__ import annotations

import json
import warnings
from collections.abc import Callable
from dataclasses import dataclass

import numpy as np
import tensorflow as tf

import bitfold
from timing import LAYERS, Case, in_graph, integers, layers_in_graph, seconds, use_one_thread

BUDGET = 0.3


@dataclass(frozen=True)
class Numbers:
    """A kind of numbers, as in bench/chain_bench.h."""

    name: str
    limits: tuple[int, int]  # of the inputs
    weight_limits: tuple[int, int]
    options: dict[str, int | bool]
    unit: float = 1  # what floats are multiplied by

    def input(self, shape: tuple[int, ...], dtype: tf.DType) -> tf.Tensor:
        """Return inputs."""
        return self._scaled(integers(shape, *self.limits, dtype))

    def weights(self, shape: tuple[int, ...], dtype: tf.DType) -> tf.Tensor:
        """Return weights."""
        return self._scaled(integers(shape, *self.weight_limits, dtype))

    def _scaled(self, values: tf.Tensor) -> tf.Tensor:
        return values if self.unit == 1 else values * self.unit


BYTES = Numbers("bytes", (0, 255), (-128, 127), {"accumulator_size": 24})
FLOAT_BYTES = Numbers("bytes", (0, 255), (-128, 127), {"accumulator_size": 22})
_SHORT = (-32768, 32767)
_WORD = (-(2**31) + 1, 2**31 - 1)
INT32_NUMBERS = (
    BYTES,
    Numbers("shorts", _SHORT, _SHORT, {"accumulator_size": 32}),
    Numbers("words", _WORD, _WORD, {"accumulator_size": 32}),
    Numbers("bytes, 12 bits", (0, 255), (-128, 127), {"accumulator_size": 12}),
    Numbers("bytes, shift 4", (0, 255), (-128, 127), {"accumulator_size": 24, "mult_shift": 4}),
    Numbers("shorts, shift 4", _SHORT, _SHORT, {"accumulator_size": 32, "mult_shift": 4}),
)
FLOAT_NUMBERS = (
    FLOAT_BYTES,
    Numbers("fractions, 12 bits", (-128, 127), (-128, 127), {"accumulator_size": 12}, 0.15625),
    Numbers("bytes, shift 4", (0, 255), (-128, 127), {"accumulator_size": 22, "mult_shift": 4}),
    Numbers(
        "half precision",
        (-128, 127),
        (-128, 127),
        {"accumulator_size": 22, "use_fp16_acc": True},
        0.015625,
    ),
)


@dataclass(frozen=True)
class Layer:
    """The shape of a convolution of one image, SAME; no outputs: depthwise."""

    name: str
    side: int
    channels: int
    outputs: int
    taps: int

    @property
    def op(self) -> str:
        """The op's name."""
        return "HConv2d" if self.outputs else "HDepthWise"

    @property
    def products(self) -> int:
        """How many multiply-adds it has."""
        return self.side**2 * self.taps**2 * self.channels * (self.outputs or 1)

    @property
    def input_shape(self) -> tuple[int, ...]:
        """The image's."""
        return (1, self.side, self.side, self.channels)

    @property
    def filter_shape(self) -> tuple[int, ...]:
        """The filter's."""
        return (self.taps, self.taps, self.channels, self.outputs or 1)

    def ours(self, numbers: Numbers) -> Callable[[tf.Tensor, tf.Tensor], tf.Tensor]:
        """Return our convolution."""
        op = bitfold.ops.conv2d if self.outputs else bitfold.ops.depthwise_conv2d
        return lambda x, w: op(x, w, **numbers.options)

    def stock(self, x: tf.Tensor, w: tf.Tensor) -> tf.Tensor:
        """Convolve floats by the stock op."""
        if self.outputs:
            return tf.nn.conv2d(x, w, 1, "SAME")
        return tf.nn.depthwise_conv2d(x, w, [1] * 4, "SAME")

    def floats(self) -> tuple[tf.Tensor, tf.Tensor]:
        """Return an image and a filter of bytes for the stock op."""
        image = BYTES.input(self.input_shape, tf.float32)
        return image, BYTES.weights(self.filter_shape, tf.float32)


LAYER = Layer("56x56x64 to 64, 3x3", 56, 64, 64, 3)
OTHERS = (
    Layer("28x28x128 to 128, 3x3", 28, 128, 128, 3),
    Layer("14x14x256 to 256, 3x3", 14, 256, 256, 3),
    Layer("7x7x512 to 512, 3x3", 7, 512, 512, 3),
    Layer("56x56x64 to 256, 1x1", 56, 64, 256, 1),
    Layer("56x56x128, 3x3", 56, 128, 0, 3),
)


@dataclass(kw_only=True)
class Chain(Case):
    """A case whose calls in a graph of several are timed, too."""

    our_layers: Callable[[], tf.Tensor]
    stock_layers: Callable[[], tf.Tensor]
    layer: Layer | None = None  # of bytes: what the mobile runtime computes


def cases() -> list[Chain]:
    """Return all of them."""
    return [*convolutions(), *matrix_products()]


def convolutions() -> list[Chain]:
    """Return the convolutions."""
    kinds = [(LAYER, tf.int32, numbers) for numbers in INT32_NUMBERS]
    kinds += [(LAYER, tf.float32, numbers) for numbers in FLOAT_NUMBERS]
    for layer in OTHERS:
        kinds += [(layer, tf.int32, BYTES), (layer, tf.float32, FLOAT_BYTES)]
    return [_convolution(*kind) for kind in kinds]


def _convolution(layer: Layer, dtype: tf.DType, numbers: Numbers) -> Chain:
    x = numbers.input(layer.input_shape, dtype)
    w = numbers.weights(layer.filter_shape, dtype)
    floats = (tf.cast(x, tf.float32), tf.cast(w, tf.float32))
    ours = layer.ours(numbers)
    return Chain(
        name=f"{layer.op}/{_type_name(dtype)}/{layer.name}, {numbers.name}",
        shape=layer.name,
        operations=layer.products,
        ours=in_graph(ours, x, w),
        stock=in_graph(layer.stock, *floats),
        our_layers=layers_in_graph(ours, x, w),
        stock_layers=layers_in_graph(layer.stock, *floats),
        layer=layer if numbers in (BYTES, FLOAT_BYTES) else None,
    )


def matrix_products() -> list[Chain]:
    """Return the matrix products."""
    kinds = []
    for shape in ((128, 768, 768), (1, 1024, 1000)):
        kinds += [(shape, tf.int32, BYTES), (shape, tf.float32, FLOAT_BYTES)]
    kinds += [((128, 768, 768), tf.float32, FLOAT_NUMBERS[i]) for i in (1, 3)]
    return [_matrix_product(*kind) for kind in kinds]


def _matrix_product(shape: tuple[int, int, int], dtype: tf.DType, numbers: Numbers) -> Chain:
    rows, inner, columns = shape
    a = numbers.input((rows, inner), dtype)
    b = numbers.weights((inner, columns), dtype)
    floats = (tf.cast(a, tf.float32), tf.cast(b, tf.float32))
    text = f"{rows}x{inner} by {inner}x{columns}"

    def ours(a, b):
        return bitfold.ops.matmul(a, b, **numbers.options)

    return Chain(
        name=f"HMatmul/{_type_name(dtype)}/{text}, {numbers.name}",
        shape=text,
        operations=rows * inner * columns,
        ours=in_graph(ours, a, b),
        stock=in_graph(tf.matmul, *floats),
        path="chain engine",
        our_layers=layers_in_graph(ours, a, b),
        stock_layers=layers_in_graph(tf.matmul, *floats),
    )


def _type_name(dtype: tf.DType) -> str:
    return "float" if dtype == tf.float32 else "int32"


def mobile_seconds(layer: Layer, budget: float) -> float | None:
    """Return the time of the mobile runtime's 8-bit convolution; None where it is gone."""
    if not hasattr(tf, "lite"):
        return None
    _, weights = layer.floats()
    convolve = tf.function(
        lambda x: layer.stock(x, weights),
        input_signature=[tf.TensorSpec(layer.input_shape, tf.float32)],
    )
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # says that it will go
        converter = tf.lite.TFLiteConverter.from_concrete_functions(
            [convolve.get_concrete_function()], convolve
        )
        converter.optimizations = [tf.lite.Optimize.DEFAULT]
        converter.representative_dataset = lambda: [[layer.floats()[0]]]
        converter.target_spec.supported_ops = [tf.lite.OpsSet.TFLITE_BUILTINS_INT8]
        converter.inference_input_type = converter.inference_output_type = tf.int8
        interpreter = tf.lite.Interpreter(model_content=converter.convert(), num_threads=1)
    interpreter.allocate_tensors()
    image = integers(layer.input_shape, -128, 127, tf.int32).numpy().astype(np.int8)
    interpreter.set_tensor(interpreter.get_input_details()[0]["index"], image)
    return seconds(interpreter.invoke, budget)


def main() -> None:
    """Print the stock layers' times in seconds, by the layers' names."""
    use_one_thread()
    times = {}
    for layer in (LAYER, *OTHERS):
        call = layers_in_graph(layer.stock, *layer.floats())
        times[layer.name] = seconds(call, BUDGET) / LAYERS
    print(json.dumps(times))


if __name__ == "__main__":
    main()
