# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The two networks of the detector: their shape, and trained weights from the package mtcnn.

The proposal network looks at windows of 12x12 pixels, at every second pixel of a picture; the
refinement network at one window scaled to 24x24. Both end in five channels: the logit of a face and
four codes of its box.
"""

from __future__ import annotations

from dataclasses import dataclass
from importlib.util import find_spec
from pathlib import Path

import joblib
import numpy as np

PIXEL_ZERO, PIXEL_SCALE = 127.5, 1 / 128
"""What the networks see of a pixel: (pixel - PIXEL_ZERO) * PIXEL_SCALE."""


@dataclass(frozen=True)
class Layer:
    """A VALID convolution and what follows it.

    filters: float32 [height, width, in, out]. bias: float32 [out].
    slope: float32 [out], the factor of values below 0 (PReLU); None for the last layer.
    pool: window and padding of a maximum pooling with stride 2, or None.
    """

    name: str
    filters: np.ndarray
    bias: np.ndarray
    slope: np.ndarray | None = None
    pool: tuple[int, str] | None = None


@dataclass(frozen=True)
class Network:
    """A chain of layers.

    window: side of the pictures that give one output.
    code_kinds: how many kinds of box codes it has, each of them as many: the proposal network only
        offsets of edges, the refinement network centres and sizes.
    """

    name: str
    window: int
    code_kinds: int
    layers: tuple[Layer, ...]

    def multiply_adds(self, height: int, width: int) -> int:
        """Multiply-adds for a picture of this size."""
        total = 0
        for layer in self.layers:
            height -= layer.filters.shape[0] - 1
            width -= layer.filters.shape[1] - 1
            total += height * width * layer.filters.size
            if layer.pool:
                less = layer.pool[0] - 1 if layer.pool[1] == "VALID" else 0
                height, width = -(-(height - less) // 2), -(-(width - less) // 2)
        return total


def load_networks() -> tuple[Network, Network]:
    """Return the proposal and the refinement network."""
    p, r = _weights("pnet"), _weights("rnet")
    proposal = Network(
        "proposal", 12, 1,
        (
            Layer("conv1", p[0], p[1], p[2].ravel(), (2, "SAME")),
            Layer("conv2", p[3], p[4], p[5].ravel()),
            Layer("conv3", p[6], p[7], p[8].ravel()),
            Layer("head", *_head(p[11][0, 0], p[12], p[9][0, 0], p[10])),
        ),
    )  # fmt: skip
    # The dense layer as a convolution over the whole map, whose columns come before its rows.
    dense = r[9].reshape(3, 3, 64, 128).transpose(1, 0, 2, 3)
    codes, offsets = _centers_and_sizes(r[12], r[13])
    refinement = Network(
        "refinement", 24, 2,
        (
            Layer("conv1", r[0], r[1], r[2].ravel(), (3, "SAME")),
            Layer("conv2", r[3], r[4], r[5].ravel(), (3, "VALID")),
            Layer("conv3", r[6], r[7], r[8].ravel()),
            Layer("dense", dense, r[10], r[11]),
            Layer("head", *_head(r[14], r[15], codes, offsets)),
        ),
    )  # fmt: skip
    return proposal, refinement


def _weights(name: str) -> list[np.ndarray]:
    """Read the arrays of one network; the package's own code is not run."""
    package = find_spec("mtcnn")
    if package is None or package.origin is None:
        raise SystemExit("error: the package mtcnn is missing; run `make setup`")
    return joblib.load(Path(package.origin).parent / "assets" / "weights" / f"{name}.lz4")


def _head(
    classes: np.ndarray, class_bias: np.ndarray, codes: np.ndarray, code_bias: np.ndarray
) -> tuple[np.ndarray, np.ndarray]:
    """Join two classes [in, 2] and codes [in, 4] into filters [1, 1, in, 5] and biases.

    The softmax of two classes is the sigmoid of their difference.
    """
    filters = np.column_stack([classes[:, 1] - classes[:, 0], codes])
    bias = np.concatenate([[class_bias[1] - class_bias[0]], code_bias])
    return filters[np.newaxis, np.newaxis], bias


def _centers_and_sizes(codes: np.ndarray, bias: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """Turn offsets of the edges (left, top, right, bottom) into centres and sizes, (y, x) each.

    With an edge moved by its code times the window's size, the centre moves by the mean of two
    codes and the size becomes 1 plus their difference, so this only changes the weights.
    """
    change = np.array([[0, 0.5, 0, -1], [0.5, 0, -1, 0], [0, 0.5, 0, 1], [0.5, 0, 1, 0]])
    return codes @ change, bias @ change + [0, 0, 1, 1]
