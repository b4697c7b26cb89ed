# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Boxes and scores as ``non_max_suppression`` takes them, and what it gives back."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np

from bitfold._frame.checks import require


@dataclass(frozen=True, eq=False)
class Detections:
    """The boxes of one image and class, best first.

    Attributes:
        boxes: float32 [count, 4], y_min, x_min, y_max, x_max.
        scores: float32 [count].
    """

    boxes: np.ndarray
    scores: np.ndarray


def pack_boxes(boxes: Any, scores: Any, *, scale: float = 1.0) -> np.ndarray:
    """Lay boxes and scores out as ``bitfold.ops.non_max_suppression`` takes them.

    The op wants the records of one class after those of another, and counts pixels inclusively: a
    box is y_max - y_min + 1 pixels high. Its areas are whole numbers of squared units, so the
    boxes must be in pixels and not in shares of the image. Decoded boxes [N, H, W, 4 * A] become
    boxes by ``reshape(N, -1, 4)``.

    Args:
        boxes: [B, n, 4], of all classes, or [B, n, K, 4], of each class; y_min, x_min, y_max,
            x_max.
        scores: [B, n, K], with K the number of classes.
        scale: pixels per step of `boxes`, a decoder's `output_scale`.

    Returns:
        A float32 array [B, K * n, 5, 1]. The op needs ``classes=K``. Corners that float32 does not
        hold are rounded: steps beyond 2^24.

    Raises:
        ValueError: for other shapes.

    Example:
        >>> import numpy as np
        >>> from bitfold import detection
        >>> detection.pack_boxes([[[16, 16, 48, 64]]], [[[0.75, 0.25]]], scale=1 / 16)[0, :, :, 0]
        array([[1.  , 1.  , 3.  , 4.  , 0.75],
               [1.  , 1.  , 3.  , 4.  , 0.25]], dtype=float32)
    """
    boxes, scores = np.asarray(boxes), np.asarray(scores, np.float32)
    if boxes.ndim == 3:
        boxes = boxes[:, :, np.newaxis]
    require(scores.ndim == 3, "scores must be [B, n, K]; add the missing dimension", scores.shape)
    batch, count, classes = scores.shape
    require(
        boxes.shape in ((batch, count, 1, 4), (batch, count, classes, 4)),
        f"boxes must be [{batch}, {count}, 4] or [{batch}, {count}, {classes}, 4] beside scores of "
        "that size",
        boxes.shape,
    )
    rows = np.empty([batch, classes, count, 5], np.float32)
    rows[..., :4] = (np.float64(scale) * boxes).transpose(0, 2, 1, 3)
    rows[..., 4] = scores.transpose(0, 2, 1)
    return rows.reshape(batch, classes * count, 5, 1)


def unpack_frames(frames: Any) -> list[list[Detections]]:
    """Drop the padding from the result of ``bitfold.ops.non_max_suppression``.

    Rows of five zeros go: the padding, and the row that the op puts first where the best box had a
    maximum below its minimum. (A box of one pixel in the corner with a score of 0 goes with them.)

    Args:
        frames: [B, K, rows, 5].

    Returns:
        For each image of the batch a list with the `Detections` of each class.

    Raises:
        ValueError: for another shape.

    Example:
        >>> import numpy as np
        >>> from bitfold import detection
        >>> frames = np.float32([1, 1, 3, 4, 0.75, 0, 0, 0, 0, 0]).reshape(1, 1, 2, 5)
        >>> detection.unpack_frames(frames)[0][0].scores
        array([0.75], dtype=float32)
    """
    frames = np.asarray(frames, np.float32)
    require(
        frames.ndim == 4 and frames.shape[3] == 5, "frames must be [B, K, rows, 5]", frames.shape
    )
    return [[_detections(rows[rows.any(axis=1)]) for rows in image] for image in frames]


def _detections(rows: np.ndarray) -> Detections:
    return Detections(rows[:, :4], rows[:, 4])
