# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The additions."""

from __future__ import annotations

import tensorflow as tf

import bitfold
from timing import Case, in_graph, integers, vector_target


def cases() -> list[Case]:
    """Return the additions on 1 x 112 x 112 x 64."""
    shape = (1, 112, 112, 64)
    ops, target = bitfold.ops, vector_target()
    found = []
    for dtype, type_name in ((tf.int32, "int32"), (tf.float32, "float")):
        value = integers(shape, -1000, 1000, dtype)
        operand = integers(shape, -128, 127, dtype)
        bias = integers(shape[-1:], -128, 127, dtype)
        weights = integers((2, shape[-1]), -8, 7, dtype)
        variants = [("plain", {}), ("shift 2", {"mult_shift": 2})]
        if dtype == tf.float32:
            variants.append(("half precision", {"use_fp16_acc": True}))
        for suffix, options in variants:
            k = dict(accumulator_size=24, **options)
            pairs = {
                "HAdd": (
                    in_graph(lambda v, o, k=k: ops.add(v, o, factor=3, **k), value, operand),
                    in_graph(tf.add, value, operand),
                ),
                "HBiasAdd": (
                    in_graph(lambda v, b, k=k: ops.bias_add(v, b, factor=3, **k), value, bias),
                    in_graph(tf.nn.bias_add, value, bias),
                ),
                "HDecomposedBiasAdd": (
                    in_graph(
                        lambda v, b, k=k: ops.decomposed_bias_add(
                            v, b, b, factor_a=3, factor_b=5, **k
                        ),
                        value,
                        bias,
                    ),
                    in_graph(tf.nn.bias_add, value, bias),
                ),
                "HStandaloneElementwiseAdd": (
                    in_graph(
                        lambda v, o, w, k=k: ops.weighted_add(v, o, w, **k),
                        value,
                        operand,
                        weights,
                    ),
                    in_graph(tf.add, value, operand),
                ),
            }
            found += [
                Case(
                    f"{op}/{type_name}/{suffix}",
                    "1x112x112x64",
                    value.shape.num_elements(),
                    ours,
                    stock,
                    target,
                )
                for op, (ours, stock) in pairs.items()
            ]
    return found
