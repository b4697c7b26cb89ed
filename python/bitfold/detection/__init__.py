# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Prepares the inputs of the detection ops and unpacks their results.

``box_decoder`` and ``single_weight_box_decoder`` turn anchors, centres and scales into the
constants of the two decoder ops; ``pack_boxes`` lays boxes and scores out as
``non_max_suppression`` takes them, and ``unpack_frames`` drops its padding. All of it runs on the
host, in NumPy; tensors with values may be passed.

Boxes are (y_min, x_min, y_max, x_max) in pixels. Codes are what the network computed for a box:
whole numbers that stand for code * scale, or real numbers with float decoders. A size is a share of
the anchor's size.

Which arithmetic. int32 decoders work in steps of 2^-fraction_bits pixels; their coefficients are
fractions of 2^mult_shift, and the op rounds every product back by that shift. float32 decoders work
in pixels with a shift of 0 and real coefficients, so nothing is rounded to whole steps: that is the
form to compare with. A float shift would round products to whole pixels. It has one use, to carry
the integers in floats: the arrays of an int32 decoder as float32 with ``mult_shift=2**s`` for a
shift s from 1 to 6, as floats multiply by the reciprocal of the number itself. The bits are then
those of int32 while everything stays below 2^24.

Example:
    >>> import bitfold, numpy as np
    >>> from bitfold import detection
    >>> decoder = detection.box_decoder([[20, 10]], [50], [30], size_scale=1 / 64)
    >>> centers = np.int32([0, 0]).reshape(1, 1, 1, 2)
    >>> sizes = np.int32([64, 64]).reshape(1, 1, 1, 2)  # as large as the anchor
    >>> boxes = bitfold.ops.decode_boxes(centers, sizes, **decoder.keywords).numpy()
    >>> boxes * decoder.output_scale
    array([[[[40., 25., 60., 35.]]]])
    >>> packed = detection.pack_boxes(boxes.reshape(1, 1, 4), [[[0.9]]], scale=decoder.output_scale)
    >>> frames = bitfold.ops.non_max_suppression(packed, 0.5, iou_threshold=0.5, max_output_size=3)
    >>> detection.unpack_frames(frames)[0][0].boxes
    array([[40., 25., 60., 35.]], dtype=float32)
"""

from bitfold.detection._decoders import (
    BoxDecoder,
    SingleWeightBoxDecoder,
    box_decoder,
    single_weight_box_decoder,
)
from bitfold.detection._inputs import grid_centers, size_terms
from bitfold.detection._suppression import Detections, pack_boxes, unpack_frames

__all__ = [
    "BoxDecoder",
    "Detections",
    "SingleWeightBoxDecoder",
    "box_decoder",
    "grid_centers",
    "pack_boxes",
    "single_weight_box_decoder",
    "size_terms",
    "unpack_frames",
]

# Whoever asks a function or a record where it lives hears the public address.
for _name in __all__:
    globals()[_name].__module__ = __name__
