# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The box decoders."""

from __future__ import annotations

import tensorflow as tf

import bitfold
from timing import Case, in_graph, integers, vector_target


def stock_decoder(centers, sizes, y, x, heights, widths):
    """Decode boxes with the stock ops: centre plus and minus half a size."""
    shape = tf.shape(centers)
    anchors = shape[-1] // 2
    pairs = tf.concat([shape[:3], [anchors, 2]], 0)
    scale = tf.stack([heights, widths], -1)
    at = tf.reshape(centers, pairs) * scale
    half = tf.reshape(sizes, pairs) * scale
    grid = tf.stack(
        [
            tf.broadcast_to(tf.reshape(y, [-1, 1, anchors, 2])[..., 0], pairs[1:4]),
            tf.broadcast_to(tf.reshape(x, [1, -1, anchors, 2])[..., 0], pairs[1:4]),
        ],
        -1,
    )
    return tf.reshape(tf.concat([grid + at - half, grid + at + half], -1), [1, 64, 64, -1])


def cases() -> list[Case]:
    """Return the box decoders on 64 x 64 positions of 9 anchors."""
    found = []
    for dtype, name, options in (
        (tf.int32, "int32/plain", {}),
        (tf.int32, "int32/shift 6", {"mult_shift": 6}),
        (tf.float32, "float/plain", {}),
        (tf.float32, "float/shift 6", {"mult_shift": 6}),
        (tf.float32, "float/half precision", {"mult_shift": 6, "use_fp16_acc": True}),
    ):
        centers, sizes = (integers((1, 64, 64, 18), low, 127, dtype) for low in (-128, 0))
        grid = integers((64, 18), 0, 511, dtype)
        anchors = [integers((9,), -128, 127, dtype) for _ in range(6)]
        k = dict(accumulator_size=24, **options)
        detections = (centers, sizes, grid, grid)
        stock = in_graph(stock_decoder, *detections, anchors[0], anchors[3])
        for op, function, count in (
            ("HBboxDecoder", bitfold.ops.decode_boxes, 6),
            ("HSingleWeightPerProposalBboxDecoder", bitfold.ops.decode_boxes_single_weight, 4),
        ):
            ours = in_graph(lambda *x, f=function, k=k: f(*x, **k), *detections, *anchors[:count])
            found.append(
                Case(
                    f"{op}/{name}",
                    "1x64x64x(2x9)",
                    2 * centers.shape.num_elements(),
                    ours,
                    stock,
                    vector_target(),
                )
            )
    return found
