# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The resampler."""

from __future__ import annotations

import tensorflow as tf

import bitfold
from timing import Case, in_graph, integers, vector_target


def cases() -> list[Case]:
    """Return the resampler on 1 x 112 x 112 x 64, beside the same sum of stock products."""
    shape = (1, 112, 112, 64)
    found = []
    for dtype, name, options in (
        (tf.int32, "int32/plain", {}),
        (tf.int32, "int32/shift 7", {"mult_shift": 7}),
        (tf.float32, "float/plain", {}),
        (tf.float32, "float/shift 7", {"mult_shift": 7}),
        (tf.float32, "float/float mode", {"float_accumulator": True}),
    ):
        inputs = [integers(shape, -128 if i < 4 else 0, 127, dtype) for i in range(8)]
        k = dict(accumulator_size=24, **options)
        found.append(
            Case(
                f"HBilinear/{name}",
                "1x112x112x64",
                inputs[0].shape.num_elements(),
                in_graph(lambda *x, k=k: bitfold.ops.bilinear(*x, **k), *inputs),
                in_graph(lambda *x: tf.add_n([x[i] * x[i + 4] for i in range(4)]), *inputs),
                vector_target(),
            )
        )
    return found
