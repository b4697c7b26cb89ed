# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Non-maximum suppression."""

from __future__ import annotations

import numpy as np
import tensorflow as tf

import bitfold
from timing import Case, vector_target


def cases() -> list[Case]:
    """Return non-maximum suppression of 2,000 boxes of one class, 200 of which may stay."""
    unit = np.random.default_rng(2026).random((2000, 5), np.float32)
    minima = 900 * unit[:, :2]
    boxes = np.concatenate([minima, minima + 100 * unit[:, 2:4], unit[:, 4:]], 1)
    value = tf.constant(boxes[np.newaxis, :, :, np.newaxis])
    threshold = tf.constant([0.1])
    corners, scores = tf.constant(boxes[:, :4]), tf.constant(boxes[:, 4])
    return [
        Case(
            "HNMS/float/2000 boxes",
            "1x2000x5x1",
            2000,
            lambda: bitfold.ops.non_max_suppression(
                value, threshold, iou_threshold=0.5, max_output_size=200
            ),
            lambda: tf.image.non_max_suppression(corners, scores, 200, 0.5, 0.1),
            vector_target(),
        )
    ]
