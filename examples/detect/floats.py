# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The detector in float, on TensorFlow's own operations: what the emulated one is measured by."""

from __future__ import annotations

from dataclasses import dataclass, field

import numpy as np
import tensorflow as tf

from bitfold.detection import Detections, grid_centers
from networks import PIXEL_SCALE, PIXEL_ZERO, Network

STRIDE = 2
"""Pixels between the windows of the proposal network."""


def run_network(network: Network, images: np.ndarray) -> dict[str, np.ndarray]:
    """Run over pictures [n, h, w, 3] of 0 to 255; return what each layer passes on."""
    x = (tf.constant(images, tf.float32) - PIXEL_ZERO) * PIXEL_SCALE
    outputs = {}
    for layer in network.layers:
        x = tf.nn.conv2d(x, layer.filters, 1, "VALID") + tf.constant(layer.bias, tf.float32)
        if layer.slope is not None:
            x = tf.maximum(x, 0) + layer.slope * tf.minimum(x, 0)
        outputs[layer.name] = x.numpy()
        if layer.pool:
            x = tf.nn.max_pool2d(x, layer.pool[0], 2, layer.pool[1])
    return outputs


def sigmoid(x: np.ndarray) -> np.ndarray:
    """Scores from logits."""
    return 1 / (1 + np.exp(-np.asarray(x, np.float64)))


@dataclass
class FloatArithmetic:
    """The detector's arithmetic in float (see `cascade.Arithmetic`).

    records: for each network the outputs of its layers, of every run.
    """

    proposal: Network
    refinement: Network
    records: dict[str, list[dict[str, np.ndarray]]] = field(
        default_factory=lambda: {"proposal": [], "refinement": []}
    )

    def resize(self, image: np.ndarray, size: tuple[int, int]) -> np.ndarray:
        """See `cascade.Arithmetic`."""
        return tf.image.resize(image, size).numpy()

    def propose(self, image: np.ndarray, scale: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
        """See `cascade.Arithmetic`."""
        head = self._run(self.proposal, image[np.newaxis])[0]
        rows, columns = (
            grid_centers(count, STRIDE / s, offset=self.proposal.window / 2 / STRIDE)
            for count, s in zip(head.shape, scale, strict=False)
        )
        y, x = np.meshgrid(rows, columns, indexing="ij")
        size = np.tile(self.proposal.window / scale, 2)
        edges = np.stack([y, x, y, x], -1) + size * [-0.5, -0.5, 0.5, 0.5]
        left, top, right, bottom = np.moveaxis(head[..., 1:], -1, 0)
        boxes = edges + size * np.stack([top, left, bottom, right], -1)
        return boxes.reshape(-1, 4), sigmoid(head[..., 0]).ravel()

    def refine(self, crops: np.ndarray, windows: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
        """See `cascade.Arithmetic`."""
        head = self._run(self.refinement, crops)[:, 0, 0]
        size = windows[:, 2:] - windows[:, :2]
        center = (windows[:, :2] + windows[:, 2:]) / 2 + size * head[:, 1:3]
        half = size * head[:, 3:5] / 2
        return np.concatenate([center - half, center + half], axis=1), sigmoid(head[:, 0])

    def suppress(
        self, boxes: np.ndarray, scores: np.ndarray, threshold: float, iou: float, most: int
    ) -> Detections:
        """See `cascade.Arithmetic`."""
        boxes, scores = boxes.astype(np.float32), scores.astype(np.float32)
        kept = tf.image.non_max_suppression(boxes, scores, most, iou, threshold).numpy()
        return Detections(boxes[kept], scores[kept])

    def _run(self, network: Network, images: np.ndarray) -> np.ndarray:
        outputs = run_network(network, images)
        self.records[network.name].append(outputs)
        return outputs["head"]
