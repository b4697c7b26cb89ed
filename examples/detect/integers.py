# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The detector in whole numbers, on Bitfold's operations.

Resizing, convolutions, bias additions, box decoding and non-maximum suppression are Bitfold's. What
lies between two layers - multiplication of the accumulator by a real number, PReLU, rounding,
clipping to int8, maximum pooling - is done in NumPy and TensorFlow, and so is the sigmoid.

A real value is (whole number) x (scale). Filters have one scale per output channel, what a layer
passes on has one scale, and so has each pair of box codes.
"""

from __future__ import annotations

from dataclasses import dataclass, field

import numpy as np
import tensorflow as tf

import bitfold
from bitfold import detection, resize
from bitfold.detection import Detections
from floats import STRIDE, sigmoid
from networks import PIXEL_SCALE, PIXEL_ZERO, Network

LARGEST = 127
"""Largest magnitude of filters, activations and box codes."""

PIXEL_OFFSET = 128
"""Pixels minus this are int8; the half step to `PIXEL_ZERO` goes into the first bias."""

FRACTION_BITS = 4
"""Boxes are decoded in steps of 1/16 pixel."""

TO_EXCLUSIVE = np.float32([0, 0, 1, 1])
"""What turns inclusive maxima into those of the cascade."""


@dataclass(frozen=True)
class IntegerLayer:
    """A layer in whole numbers.

    filters: int32 [height, width, in, out]. bias: int32 [out], in units of `sum_scale`.
    sum_scale: [out], real value of one unit of the accumulator.
    slope, pool: as in the float layer.
    output_scale: real value of one unit of what the layer passes on; the last layer's is not used.
    """

    name: str
    filters: np.ndarray
    bias: np.ndarray
    sum_scale: np.ndarray
    slope: np.ndarray | None
    pool: tuple[int, str] | None
    output_scale: float


@dataclass(frozen=True)
class IntegerNetwork:
    """A network in whole numbers; `code_scales` has the step of each kind of box codes."""

    name: str
    window: int
    layers: tuple[IntegerLayer, ...]
    code_scales: np.ndarray


def quantise(network: Network, largest: dict[str, np.ndarray]) -> IntegerNetwork:
    """Round a network to int8.

    largest: by layer, the largest magnitude of each channel that has to be held.
    """
    layers = []
    scale, offset = PIXEL_SCALE, PIXEL_OFFSET - PIXEL_ZERO
    for layer in network.layers:
        weight_scale = np.abs(layer.filters).max(axis=(0, 1, 2)) / np.float64(LARGEST)
        filters = np.rint(layer.filters / weight_scale)
        sum_scale = scale * weight_scale
        bias = layer.bias / sum_scale + offset * filters.sum(axis=(0, 1, 2))
        if layer.slope is not None:
            scale, offset = float(largest[layer.name].max()) / LARGEST, 0
        layers.append(
            IntegerLayer(
                layer.name, filters.astype(np.int32), np.rint(bias).astype(np.int32), sum_scale,
                layer.slope, layer.pool, scale,
            )
        )  # fmt: skip
    codes = largest["head"][1:].reshape(network.code_kinds, -1).max(axis=1)
    return IntegerNetwork(network.name, network.window, tuple(layers), codes / LARGEST)


@dataclass
class EmulatedArithmetic:
    """The detector's arithmetic on Bitfold (see `cascade.Arithmetic`).

    accumulator_size: bits of the accumulators of convolutions and bias additions. The decoders'
        have as many as they need, and `decoder_bits` is the most of them.
    sums: for each network the accumulators of its layers, of every run.
    """

    proposal: IntegerNetwork
    refinement: IntegerNetwork
    accumulator_size: int = 32
    decoder_bits: int = 0
    sums: dict[str, list[dict[str, np.ndarray]]] = field(
        default_factory=lambda: {"proposal": [], "refinement": []}
    )

    def resize(self, image: np.ndarray, size: tuple[int, int]) -> np.ndarray:
        """See `cascade.Arithmetic`."""
        return np.clip(resize.bilinear(image[np.newaxis], size), 0, 255)[0].astype(np.uint8)

    def propose(self, image: np.ndarray, scale: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
        """See `cascade.Arithmetic`."""
        logits, codes = self._run(self.proposal, image[np.newaxis])
        rows, columns = (
            detection.grid_centers(count, STRIDE / s, offset=self.proposal.window / 2 / STRIDE)
            for count, s in zip(logits.shape[1:], scale, strict=True)
        )
        (scale_of_codes,) = self.proposal.code_scales
        decoder = detection.single_weight_box_decoder(
            [self.proposal.window / scale], rows, columns, scale=scale_of_codes, from_edges=True,
            largest_code=LARGEST, fraction_bits=FRACTION_BITS, inclusive=True,
        )  # fmt: skip
        boxes = self._decode(bitfold.ops.decode_boxes_single_weight, decoder, codes)
        return boxes, sigmoid(logits).ravel()

    def refine(self, crops: np.ndarray, windows: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
        """See `cascade.Arithmetic`.

        The windows are the anchors of a map of one cell.
        """
        logits, codes = self._run(self.refinement, crops)
        size = windows[:, 2:] - windows[:, :2]
        center = (windows[:, :2] + windows[:, 2:]) / 2
        center_scale, size_scale = self.refinement.code_scales
        decoder = detection.box_decoder(
            size, center[np.newaxis, :, 0], center[np.newaxis, :, 1], center_scale=center_scale,
            size_scale=size_scale, largest_code=LARGEST, fraction_bits=FRACTION_BITS,
            inclusive=True,
        )  # fmt: skip
        codes = codes.reshape(1, 1, 1, -1, 4)
        return self._decode(bitfold.ops.decode_boxes, decoder, codes), sigmoid(logits).ravel()

    def suppress(
        self, boxes: np.ndarray, scores: np.ndarray, threshold: float, iou: float, most: int
    ) -> Detections:
        """See `cascade.Arithmetic`. The operation counts maxima inclusively."""
        if not len(boxes):
            return Detections(np.empty((0, 4)), np.empty(0))
        packed = detection.pack_boxes([boxes - TO_EXCLUSIVE], scores[np.newaxis, :, np.newaxis])
        frames = bitfold.ops.non_max_suppression(
            packed, threshold, iou_threshold=iou, max_output_size=most
        )
        ((found,),) = detection.unpack_frames(frames)
        return Detections(found.boxes + TO_EXCLUSIVE, found.scores)

    def _decode(self, op, decoder, codes: np.ndarray) -> np.ndarray:
        """Decode [n, h, w, A, 4], two codes for each input of the operation, to [boxes, 4]."""
        first, second = (
            tf.constant(pair.reshape(*codes.shape[:3], -1), tf.int32)
            for pair in (codes[..., :2], codes[..., 2:])
        )
        bits = decoder.accumulator_bits
        self.decoder_bits = max(self.decoder_bits, bits)
        boxes = op(first, second, accumulator_size=bits, **decoder.keywords).numpy()
        return boxes.reshape(-1, 4) * decoder.output_scale + TO_EXCLUSIVE

    def _run(self, network: IntegerNetwork, images: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
        """Run over pictures [n, h, w, 3] of 0 to 255; return logits and int8 codes."""
        sums = run_network(network, images, self.accumulator_size)
        self.sums[network.name].append(sums)
        head = network.layers[-1]
        real = sums["head"] * head.sum_scale
        scales = np.repeat(network.code_scales, 4 // len(network.code_scales))
        codes = np.clip(np.rint(real[..., 1:] / scales), -LARGEST, LARGEST)
        return real[..., 0], codes


def run_network(
    network: IntegerNetwork, images: np.ndarray, accumulator_size: int
) -> dict[str, np.ndarray]:
    """Run over pictures [n, h, w, 3] of 0 to 255; return the accumulators of each layer."""
    x = tf.constant(images.astype(np.int32) - PIXEL_OFFSET)
    sums = {}
    for layer in network.layers:
        products = bitfold.ops.conv2d(
            x, layer.filters, padding="VALID", accumulator_size=accumulator_size
        )
        sums[layer.name] = bitfold.ops.bias_add(
            products, layer.bias, accumulator_size=accumulator_size
        ).numpy()
        if layer.slope is not None:
            x = _pass_on(layer, sums[layer.name])
    return sums


def _pass_on(layer: IntegerLayer, sums: np.ndarray) -> tf.Tensor:
    """What the next layer gets: PReLU, scaled, rounded and clipped, then pooled."""
    scaled = sums * (layer.sum_scale / layer.output_scale)
    scaled = np.where(sums > 0, scaled, scaled * layer.slope)
    x = tf.constant(np.clip(np.rint(scaled), -LARGEST, LARGEST), tf.int32)
    return tf.nn.max_pool2d(x, layer.pool[0], 2, layer.pool[1]) if layer.pool else x
