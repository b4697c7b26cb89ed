# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The ops on stored tensors, beside what the stock ops make of as many floats."""

from __future__ import annotations

import functools

import numpy as np
import tensorflow as tf

import bitfold
from timing import Case, in_graph, integers, vector_target

SHAPE = (1, 112, 112, 64)
COUNT = int(np.prod(SHAPE))
WINDOW = {"window": 3, "strides": 2, "padding": "SAME"}
SCALES = {"first_scale": 0.05, "second_scale": 0.04, "output_scale": 0.07}


def cases() -> list[Case]:
    """Return each op for bytes and for shorts."""
    floats = integers(SHAPE, -1000, 1000, tf.float32)
    found = []
    for stored in (tf.int8, tf.int16):
        data = integers(SHAPE, -128, 127, stored)
        found += _elementwise(data, floats)
        found += _pools(data, floats)
        found.append(_lookup(data))
        quantise = functools.partial(bitfold.ops.stored_quantise, output_scale=7.3, dtype=stored)
        found.append(
            _case(
                f"HStoredQuantise/float/to {stored.name}",
                in_graph(quantise, floats),
                in_graph(tf.round, floats),
            )
        )
    return found


def _elementwise(data: tf.Tensor, floats: tf.Tensor) -> list[Case]:
    stocks = {"add": tf.add, "multiply": tf.multiply}
    return [
        _case(
            f"HStoredElementwise/{data.dtype.name}/{operation}",
            in_graph(
                functools.partial(bitfold.ops.stored_elementwise, operation=operation, **SCALES),
                data,
                tf.identity(data),
            ),
            in_graph(stock, floats, floats + 1),
        )
        for operation, stock in stocks.items()
    ]


def _pools(data: tf.Tensor, floats: tf.Tensor) -> list[Case]:
    images = tf.reshape(data, [1, -1, SHAPE[-1]])
    mean = functools.partial(bitfold.ops.stored_mean, data_scale=0.05, output_scale=0.04)
    name = data.dtype.name
    found = [
        _case(
            f"HStoredMean/{name}/of an image",
            in_graph(mean, images),
            in_graph(functools.partial(tf.reduce_mean, axis=[1, 2]), floats),
        )
    ]
    for pooling, stock in (("max", tf.nn.max_pool2d), ("average", tf.nn.avg_pool2d)):
        found.append(
            _case(
                f"HStoredPool/{name}/{pooling} 3x3",
                in_graph(
                    functools.partial(bitfold.ops.stored_pool, pooling=pooling, **WINDOW), data
                ),
                in_graph(functools.partial(stock, ksize=3, strides=2, padding="SAME"), floats),
                9 * COUNT // 4,
            )
        )
    return found


def _lookup(data: tf.Tensor) -> Case:
    entries = 2 ** (8 * data.dtype.size)
    table = integers((entries,), -128, 127, data.dtype)
    places = integers(SHAPE, 0, 255, tf.int32)
    return _case(
        f"HStoredLookup/{data.dtype.name}/table",
        in_graph(bitfold.ops.stored_lookup, data, table),
        in_graph(tf.gather, table, places),
    )


def _case(name: str, ours, stock, operations: int = COUNT) -> Case:
    return Case(name, "x".join(map(str, SHAPE)), operations, ours, stock, vector_target())
