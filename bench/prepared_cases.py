# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Prepared layers, from stored integers to stored integers.

Those of bytes stand beside the stock ops of floats, those of sums of 64 bits beside the ops that
they are one after the other, those that are watched beside the same layers that are not.
"""

from __future__ import annotations

import functools
from dataclasses import dataclass

import tensorflow as tf

import bitfold
from bitfold.network.operators._accumulator import exact_groups
from timing import Case, in_graph, integers, vector_target


@dataclass(frozen=True)
class Layer:
    """The shape of a convolution of one image whose outputs lie as its pixels do."""

    name: str
    side: int
    channels: int
    outputs: int
    taps: int


LAYERS = (
    Layer("56x56x64 to 64, 3x3", 56, 64, 64, 3),
    Layer("28x28x32 to 192, 1x1", 28, 32, 192, 1),
    Layer("14x14x576, 3x3", 14, 576, 0, 3),
)
ARITHMETICS = {
    "proven": {},
    "shift 4": {"accumulator_size": 24, "mult_shift": 4},
    "half precision": {"use_fp16_acc": True},
}


# Sums that 32 bits hold, and sums that they may not.
WIDE_LAYERS = (
    *LAYERS,
    Layer("7x7x512 to 512, 3x3", 7, 512, 512, 3),
    Layer("1x1x4096 to 1000, 1x1", 1, 4096, 1000, 1),
)


@dataclass(frozen=True)
class Product:
    """The shapes of products of matrices."""

    name: str
    pairs: int
    rows: int
    inner: int
    columns: int
    transposed: bool


PRODUCTS = (
    Product("12x197x64 by 12x197x64 transposed", 12, 197, 64, 197, transposed=True),
    Product("12x197x197 by 12x197x64", 12, 197, 197, 64, transposed=False),
)
ZERO_POINTS = (-3, 7)


def cases() -> list[Case]:
    """Return each layer in each arithmetic."""
    layers = [
        *(_case(layer, name, options) for layer in LAYERS for name, options in ARITHMETICS.items()),
        *map(_wide_case, WIDE_LAYERS),
        *map(_watched_case, LAYERS),
    ]
    return layers + [case for product in PRODUCTS for case in _products(product)]


def _case(layer: Layer, name: str, options: dict[str, int | bool]) -> Case:
    channels = layer.channels if layer.outputs else 1
    outputs = layer.outputs or layer.channels
    x = integers((1, layer.side, layer.side, layer.channels), -128, 127, tf.int8)
    w = integers((layer.taps, layer.taps, channels, outputs), -127, 127, tf.int8)
    bias = integers((outputs,), -1000, 1000, tf.int32)
    multipliers = tf.fill([outputs], tf.constant(1e-3, tf.float64))
    ours = functools.partial(
        bitfold.ops.prepared_conv2d,
        padding="SAME",
        depthwise=not layer.outputs,
        input_zero_point=-1,
        constant_weights=True,
        **options,
    )

    def stock(x, w):
        if layer.outputs:
            return tf.nn.conv2d(x, w, 1, "SAME")
        return tf.nn.depthwise_conv2d(x, tf.transpose(w, [0, 1, 3, 2]), [1] * 4, "SAME")

    floats = (tf.cast(x, tf.float32), tf.cast(w, tf.float32))
    return Case(
        f"HPreparedConvolution/{layer.name}, {name}",
        layer.name,
        layer.side**2 * layer.taps**2 * layer.channels * (layer.outputs or 1),
        in_graph(ours, x, w, bias, multipliers),
        in_graph(stock, *floats),
        vector_target(),
    )


def _watched_case(layer: Layer) -> Case:
    """Return a layer whose final sums are looked at beside the same layer."""
    channels, outputs = (layer.channels if layer.outputs else 1), layer.outputs or layer.channels
    x = integers((1, layer.side, layer.side, layer.channels), -128, 127, tf.int8)
    w = integers((layer.taps, layer.taps, channels, outputs), -127, 127, tf.int8)
    bias = integers((outputs,), -1000, 1000, tf.int32)
    multipliers = tf.fill([outputs], tf.constant(1e-3, tf.float64))
    keywords = dict(
        padding="SAME",
        depthwise=not layer.outputs,
        input_zero_point=-1,
        accumulator_size=18,
        constant_weights=True,
    )
    watched = functools.partial(bitfold.ops.watched_conv2d, accumulator_sizes=[18], **keywords)
    prepared = functools.partial(bitfold.ops.prepared_conv2d, **keywords)
    return Case(
        f"HWatchedConvolution/{layer.name}",
        layer.name,
        layer.side**2 * layer.taps**2 * layer.channels * (layer.outputs or 1),
        in_graph(watched, x, w, bias, multipliers),
        in_graph(prepared, x, w, bias, multipliers),
        vector_target(),
    )


def _wide_case(layer: Layer) -> Case:
    channels = layer.channels if layer.outputs else 1
    outputs = layer.outputs or layer.channels
    x = integers((1, layer.side, layer.side, layer.channels), -(2**15), 2**15 - 1, tf.int16)
    w = integers((layer.taps, layer.taps, channels, outputs), -127, 127, tf.int8)
    bias = integers((outputs,), -1000, 1000, tf.int64)
    multipliers = tf.fill([outputs], tf.constant(1e-3, tf.float64))
    rounded = dict(rounding="short_multiplier", dtype=tf.int16)
    ours = functools.partial(
        bitfold.ops.prepared_conv2d,
        padding="SAME",
        depthwise=not layer.outputs,
        accumulator_size=64,
        constant_weights=True,
        **rounded,
    )
    groups = exact_groups(w.numpy(), 2**15, 0) if layer.outputs else [slice(None)]

    def one_after_the_other(x, w, bias, multipliers):
        data, weights = tf.cast(x, tf.int32), tf.cast(w, tf.int32)
        convolve = bitfold.ops.conv2d if layer.outputs else bitfold.ops.depthwise_conv2d
        sums = [convolve(data[..., g], weights[:, :, g], padding="SAME") for g in groups]
        total = tf.add_n([tf.cast(part, tf.int64) for part in sums]) + bias
        return bitfold.ops.requantise(total, multipliers, **rounded)

    return Case(
        f"HPreparedConvolution/{layer.name}, 64 bits",
        layer.name,
        layer.side**2 * layer.taps**2 * layer.channels * (layer.outputs or 1),
        in_graph(ours, x, w, bias, multipliers),
        in_graph(one_after_the_other, x, w, bias, multipliers),
        vector_target(),
    )


def _products(product: Product) -> list[Case]:
    """Return the cases of a product: beside the stock op, and beside the ops that define it."""
    shape = (product.inner, product.columns)
    a = integers((product.pairs, product.rows, product.inner), -128, 127, tf.int8)
    b = integers(
        (product.pairs, *(shape[::-1] if product.transposed else shape)), -128, 127, tf.int8
    )
    floats = (tf.cast(a, tf.float32), tf.cast(b, tf.float32))
    first, second = ZERO_POINTS

    def ours(a, b, **options):
        return bitfold.ops.prepared_matmul(
            a,
            b,
            [1e-3],
            transpose_second=product.transposed,
            first_zero_point=first,
            second_zero_point=second,
            **options,
        )

    def op_by_op(a, b):
        a, b = tf.cast(a, tf.int32) - first, tf.cast(b, tf.int32) - second
        b = tf.linalg.matrix_transpose(b) if product.transposed else b
        sums = bitfold.ops.matmul(a, b, accumulator_size=32)
        return bitfold.ops.requantise(sums, [1e-3], dtype=tf.int8)

    def stock(a, b):
        return tf.matmul(a, b, transpose_b=product.transposed)

    def case(name, call, other):
        return Case(
            f"HPreparedMatmul/{product.name}, {name}",
            product.name,
            product.pairs * product.rows * product.inner * product.columns,
            call,
            other,
            vector_target(),
        )

    half = functools.partial(ours, use_fp16_acc=True)
    return [
        case("proven", in_graph(ours, a, b), in_graph(stock, *floats)),
        case("proven, to op by op", in_graph(ours, a, b), in_graph(op_by_op, a, b)),
        case("half precision", in_graph(half, a, b), in_graph(stock, *floats)),
    ]
