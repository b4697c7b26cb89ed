# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The numeric units."""

from __future__ import annotations

import numpy as np
import tensorflow as tf

import bitfold
from timing import Case, in_graph, integers, vector_target


def cases() -> list[Case]:
    """Return the numeric units, against the stock ops on float data of the same shape."""
    target = vector_target()
    k = np.arange(256, dtype=np.uint32)
    rows = np.stack([60000 // (k + 1), (255 - k) | k << 8], 1)
    table = tf.constant(rows.astype(np.uint32))
    distances = integers((128, 256), -255, 0, tf.float32)

    lut = np.zeros(256, np.float32)
    lut[64:] = 65535 - 128 * np.arange(192)
    scalars = dict(
        exponent_sub_value=14, sum_of_x_mult=170, sum_of_x_mult_n_shift=17, x_squared_mult=768,
        mul_act_man=91, mul_act_exp=4, mul_act_bias=131072,
    )  # fmt: skip
    scalars = {name: tf.constant(value, tf.uint32) for name, value in scalars.items()}
    vectors = integers((1, 1, 196, 768), -128, 127, tf.float32)
    lut_tensor = tf.constant(lut)
    stock_norm = tf.keras.layers.LayerNormalization()
    stock_norm.build(vectors.shape)

    inp = integers((1, 56, 56, 64), -2000, 2000, tf.int64)
    pieces = [
        tf.constant(row[np.newaxis], tf.int64)
        for row in (500 * (np.arange(7) - 3), np.full(8, 3), np.arange(-32, 32, 8), np.full(8, 10))
    ]
    by_channel = [tf.tile(row, [64, 1]) for row in pieces]
    data = tf.cast(inp, tf.float32) / 250
    return [
        Case(
            "HSoftmax/float/128x256",
            "128x256",
            128 * 256,
            in_graph(lambda x: bitfold.ops.softmax(x, table, is_velquin=True), distances),
            in_graph(tf.nn.softmax, distances),
            target,
        ),
        Case(
            "HLayernorm/float/196x768",
            "1x1x196x768",
            196 * 768,
            in_graph(lambda x: bitfold.ops.layer_norm(x, lut_tensor, **scalars), vectors),
            in_graph(lambda x: stock_norm(x, training=False), vectors),
            target,
        ),
        Case(
            "HActivation/int64/56x56x64, 7 breakpoints",
            "1x56x56x64",
            56 * 56 * 64,
            in_graph(lambda x: bitfold.ops.activation(x, *pieces), inp),
            in_graph(tf.keras.activations.gelu, data),
            target,
        ),
        Case(
            "HActivation/int64/56x56x64, a group a channel",
            "1x56x56x64",
            56 * 56 * 64,
            in_graph(lambda x: bitfold.ops.activation(x, *by_channel, np.ones(64, np.int64)), inp),
            in_graph(tf.keras.activations.gelu, data),
            target,
        ),
    ]
