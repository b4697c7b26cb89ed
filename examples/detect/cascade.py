# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The detector's course, whatever arithmetic it runs in.

The proposal network runs over a pyramid of pictures, so that its small windows meet faces of every
size. What it finds is cut out, scaled to 24x24 pixels and judged again by the refinement network.
Each stage ends in non-maximum suppression. Boxes are (y_min, x_min, y_max, x_max) in pixels of the
photograph, the maxima exclusive.
"""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from typing import Protocol

import numpy as np

from bitfold.detection import Detections
from networks import PIXEL_ZERO

PYRAMID_STEP = 0.709
"""Each picture of the pyramid has about half the area of the one before."""

PROPOSAL_WINDOW, REFINEMENT_WINDOW = 12, 24
PROPOSAL_SCORE, REFINEMENT_SCORE = 0.6, 0.7
LEVEL_IOU, PROPOSAL_IOU, FINAL_IOU = 0.5, 0.7, 0.4
MOST_CANDIDATES, MOST_PROPOSALS, MOST_FACES = 300, 128, 20


class Arithmetic(Protocol):
    """What the cascade needs; boxes are float [n, 4], scores float [n] from 0 to 1."""

    def resize(self, image: np.ndarray, size: tuple[int, int]) -> np.ndarray:
        """Scale a picture [h, w, 3] of values from 0 to 255."""

    def propose(self, image: np.ndarray, scale: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
        """Boxes and scores of all windows of a picture that is `scale` (y, x) of the photograph."""

    def refine(self, crops: np.ndarray, windows: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
        """Boxes and scores of cut-outs [n, 24, 24, 3] of square windows [n, 4]."""

    def suppress(
        self, boxes: np.ndarray, scores: np.ndarray, threshold: float, iou: float, most: int
    ) -> Detections:
        """Non-maximum suppression of boxes with scores above the threshold."""


@dataclass(frozen=True)
class Level:
    """A picture of the pyramid, `scale` (y, x) of the photograph."""

    image: np.ndarray
    scale: np.ndarray


@dataclass(frozen=True)
class Result:
    """What the detector found, and what the second stage was given.

    crops: [n, 24, 24, 3], the cut-outs. windows: float [n, 4], their places.
    """

    proposals: Detections
    faces: Detections
    crops: np.ndarray
    windows: np.ndarray


def make_pyramid(
    resize: Callable[[np.ndarray, tuple[int, int]], np.ndarray],
    photo: np.ndarray,
    smallest_face: int,
) -> list[Level]:
    """Return the photograph and its scaled pictures, each made from the one before.

    The first scaled picture shows the smallest face as large as the proposal network's window. The
    photograph itself is only there to be cut from.
    """
    shape = np.array(photo.shape[:2])
    levels = [Level(photo, np.ones(2))]
    scale = PROPOSAL_WINDOW / smallest_face
    while (size := np.rint(shape * scale).astype(int)).min() >= PROPOSAL_WINDOW:
        levels.append(Level(resize(levels[-1].image, tuple(size.tolist())), size / shape))
        scale *= PYRAMID_STEP
    return levels


def detect(arithmetic: Arithmetic, pyramid: list[Level]) -> Result:
    """Run both stages."""
    found = [_propose(arithmetic, level) for level in pyramid[1:]]
    proposals = arithmetic.suppress(
        np.concatenate([f.boxes for f in found]),
        np.concatenate([f.scores for f in found]),
        PROPOSAL_SCORE, PROPOSAL_IOU, MOST_PROPOSALS,
    )  # fmt: skip
    cuts = [_cut(arithmetic, pyramid, box) for box in proposals.boxes]
    side = REFINEMENT_WINDOW
    crops = np.array([crop for crop, _ in cuts]).reshape(-1, side, side, 3)
    windows = np.array([window for _, window in cuts]).reshape(-1, 4)
    boxes, scores = arithmetic.refine(crops, windows) if cuts else (np.empty((0, 4)), np.empty(0))
    faces = arithmetic.suppress(boxes, scores, REFINEMENT_SCORE, FINAL_IOU, MOST_FACES)
    return Result(proposals, faces, crops, windows)


def _propose(arithmetic: Arithmetic, level: Level) -> Detections:
    """The best windows of one picture."""
    boxes, scores = arithmetic.propose(level.image, level.scale)
    best = np.argsort(-scores, kind="stable")[:MOST_CANDIDATES]
    return arithmetic.suppress(
        boxes[best], scores[best], PROPOSAL_SCORE, LEVEL_IOU, MOST_CANDIDATES
    )


def _cut(
    arithmetic: Arithmetic, pyramid: list[Level], box: np.ndarray
) -> tuple[np.ndarray, np.ndarray]:
    """Cut a square around a box from the coarsest picture that is fine enough, and scale it.

    Beyond the photograph's edge lies grey. Returns the cut-out and its place.
    """
    side = max(box[2:] - box[:2])
    fine = [level for level in pyramid if level.scale.min() * side >= REFINEMENT_WINDOW]
    level = (fine or pyramid[:1])[-1]
    start = np.rint(((box[:2] + box[2:]) - side) / 2 * level.scale).astype(int)
    extent = np.maximum(1, np.rint(side * level.scale)).astype(int)
    low = np.clip(start, 0, level.image.shape[:2])
    high = np.clip(start + extent, 0, level.image.shape[:2])
    canvas = np.full((*extent, 3), np.ceil(PIXEL_ZERO), level.image.dtype)
    target = tuple(slice(*ends) for ends in zip(low - start, high - start, strict=True))
    canvas[target] = level.image[low[0] : high[0], low[1] : high[1]]
    window = np.concatenate([start / level.scale, (start + extent) / level.scale])
    return arithmetic.resize(canvas, (REFINEMENT_WINDOW, REFINEMENT_WINDOW)), window
