# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The detection ops: two box decoders and suppression."""

from __future__ import annotations

from typing import Any

import tensorflow as tf

from bitfold._frame.arguments import element_tensor, float_attribute, integer, scalar_operand
from bitfold._frame.layers import accepts_symbolic
from bitfold._frame.loaded import raw_ops
from bitfold._frame.operands import Needs, elements
from bitfold._frame.shapes import without_static_shape
from bitfold._frame.tensors import is_tensor


@accepts_symbolic
def decode_boxes(
    detection_centers: Any,
    detection_sizes: Any,
    y_centers: Any,
    x_centers: Any,
    anchors_heights: Any,
    anchors_heights_div_2: Any,
    anchors_heights_minus_div_2: Any,
    anchors_widths: Any,
    anchors_widths_div_2: Any,
    anchors_widths_minus_div_2: Any,
    *,
    accumulator_size: int = 32,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Decode the corners of boxes from a centre, a size and six constants per anchor.

    For an anchor with the pairs (cy, cx) and (sy, sx), y_min is ``anchors_heights * cy`` plus
    ``anchors_heights_minus_div_2 * sy`` plus the row's centre, y_max the same with
    ``anchors_heights_div_2``, and x likewise with the widths: each product scaled by
    ``mult_shift``, wrapping after each of the two additions. ``bitfold.detection.box_decoder``
    makes the inputs.

    `decode_boxes` has no gradient: asking for one raises a ``LookupError``.

    Args:
        detection_centers: float32 or int32 [N, H, W, 2 * A], a (cy, cx) pair for each of A
            anchors.
        detection_sizes: as many (sy, sx) pairs, of the same type, like all that follow.
        y_centers: [H, 2 * A], for each anchor of each row the centre for y_min and for y_max.
        x_centers: [W, 2 * A], for each anchor of each column the centre for x_min and for x_max.
        anchors_heights: [A], the multiplier of cy.
        anchors_heights_div_2: [A], that of sy for y_max.
        anchors_heights_minus_div_2: [A], that of sy for y_min.
        anchors_widths: [A], the multiplier of cx.
        anchors_widths_div_2: [A], that of sx for x_max.
        anchors_widths_minus_div_2: [A], that of sx for x_min.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift of each product, or the number by whose reciprocal it is multiplied,
            -128 to 127.
        use_fp16_acc: accumulate in half precision; needs float32 data.
        name: the node's name.

    Returns:
        A tensor [N, H, W, twice the last dimension] of the same type: y_min, x_min, y_max, x_max
        for each anchor.

    Raises:
        TypeError: for other element types, or types that differ.
        ValueError: for numbers that their type does not hold; centres of another rank or with an
            odd last dimension; other inputs of another number of elements; `use_fp16_acc` with
            int32 data.
        tf.errors.InvalidArgumentError: for a width that is negative, or above 32 with int32 data.

    Example:
        >>> import bitfold, numpy as np
        >>> pair = lambda *numbers: np.int32(numbers).reshape(1, 1, 1, 2)
        >>> # Centred 2 below and 3 left of (50, 60), 20 high and 8 wide.
        >>> bitfold.ops.decode_boxes(
        ...     pair(2, -3), pair(20, 8), [[50, 50]], [[60, 60]], [2], [1], [-1], [2], [1], [-1],
        ...     mult_shift=1,
        ... ).numpy()
        array([[[[42, 53, 62, 61]]]], dtype=int32)
    """
    return _decode(
        raw_ops.h_bbox_decoder, detection_centers, detection_sizes, y_centers, x_centers,
        {
            "anchors_heights": anchors_heights,
            "anchors_heights_div_2": anchors_heights_div_2,
            "anchors_heights_minus_div_2": anchors_heights_minus_div_2,
            "anchors_widths": anchors_widths,
            "anchors_widths_div_2": anchors_widths_div_2,
            "anchors_widths_minus_div_2": anchors_widths_minus_div_2,
        },
        accumulator_size, mult_shift, use_fp16_acc, name,
    )  # fmt: skip


@accepts_symbolic
def decode_boxes_single_weight(
    detection_centers: Any,
    detection_sizes: Any,
    y_centers: Any,
    x_centers: Any,
    heights_scale: Any,
    heights_scale_minus: Any,
    widths_scale: Any,
    widths_scale_minus: Any,
    *,
    accumulator_size: int = 32,
    mult_shift: Any = 0,
    use_fp16_acc: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Decode the corners of boxes with one product and one addition each.

    The pairing is crosswise. For an anchor with the pairs (c0, c1) and (s0, s1):

        y_min = heights_scale_minus * c1 + centre    y_max = heights_scale * s1 + centre
        x_min = widths_scale_minus * c0 + centre     x_max = widths_scale * s0 + centre

    Each product is scaled by ``mult_shift``, each sum wraps once.
    ``bitfold.detection.single_weight_box_decoder`` makes the inputs.

    `decode_boxes_single_weight` has no gradient: asking for one raises a ``LookupError``.

    Args:
        detection_centers: float32 or int32 [N, H, W, 2 * A], what gives the minimum corners, a
            pair for each of A anchors.
        detection_sizes: as many pairs, what gives the maximum corners, of the same type, like all
            that follow.
        y_centers: [H, 2 * A], for each anchor of each row the centre for y_min and for y_max.
        x_centers: [W, 2 * A], for each anchor of each column the centre for x_min and for x_max.
        heights_scale: [A], the multiplier for y_max.
        heights_scale_minus: [A], that for y_min.
        widths_scale: [A], that for x_max.
        widths_scale_minus: [A], that for x_min.
        accumulator_size: the accumulator's width in bits, at least 0.
        mult_shift: the shift of each product, or the number by whose reciprocal it is multiplied,
            -128 to 127.
        use_fp16_acc: accumulate in half precision; needs float32 data.
        name: the node's name.

    Returns:
        As `decode_boxes`.

    Raises:
        TypeError: as for `decode_boxes`.
        ValueError: as for `decode_boxes`.
        tf.errors.InvalidArgumentError: as for `decode_boxes`.

    Example:
        >>> import bitfold, numpy as np
        >>> pair = lambda *numbers: np.int32(numbers).reshape(1, 1, 1, 2)
        >>> # From (50, 60) up 8 and left 5, down 12 and right 7.
        >>> bitfold.ops.decode_boxes_single_weight(
        ...     pair(5, 8), pair(7, 12), [[50, 50]], [[60, 60]], [1], [-1], [1], [-1]
        ... ).numpy()
        array([[[[42, 55, 62, 67]]]], dtype=int32)
    """
    return _decode(
        raw_ops.h_single_weight_per_proposal_bbox_decoder, detection_centers, detection_sizes,
        y_centers, x_centers,
        {
            "heights_scale": heights_scale,
            "heights_scale_minus": heights_scale_minus,
            "widths_scale": widths_scale,
            "widths_scale_minus": widths_scale_minus,
        },
        accumulator_size, mult_shift, use_fp16_acc, name,
    )  # fmt: skip


@accepts_symbolic
def non_max_suppression(
    value: Any,
    scores_threshold: Any,
    *,
    iou_threshold: float,
    max_output_size: int,
    classes: int = 1,
    debug_precise_numeric: bool = False,
    is_velquin: bool = False,
    name: str | None = None,
) -> tf.Tensor:
    """Keep the best boxes of each class and suppress those that overlap them.

    Class by class, the box of the greatest score is taken and every box that overlaps it by more
    than ``iou_threshold`` of their union dropped, until no box is left. The comparison is one of
    whole numbers: the threshold in steps of 1/65536, its product with the union and the overlap
    truncated. Boxes with the same corners are always suppressed. Every step is logged at
    information level, which costs time unless TF_CPP_MIN_LOG_LEVEL filters it.
    ``bitfold.detection`` packs boxes and unpacks the result.

    `non_max_suppression` has no gradient: asking for one raises a ``LookupError``.

    Args:
        value: float32 [B, classes * n, 5, 1], the n boxes of each class: y_min, x_min, y_max,
            x_max, score. The corners are inclusive pixels: a box is y_max - y_min + 1 high.
        scores_threshold: boxes of at most this score, or with `is_velquin` below it, are dropped.
        iou_threshold: the share of the union that boxes may overlap.
        max_output_size: the number of rows of each result, at least 1.
        classes: the number of classes, at least 1.
        debug_precise_numeric: shrink the second box by a pixel where the overlap is measured.
        is_velquin: the behaviour of one variant of the unit: of equal scores the last wins instead
            of the first, a negative score never does, and a best box with a maximum below its
            minimum leaves no row of zeros.
        name: the node's name.

    Returns:
        A float32 tensor [B, classes, max_output_size, 5], the boxes taken in that order, then rows
        of zeros. The first row is of zeros as well where the best box of all had a maximum below
        its minimum.

    Raises:
        TypeError: for a `value` that is not float32; numbers that are no integers.
        ValueError: for numbers that float32 does not hold; a `value` of another shape; boxes that
            the classes do not divide, or none unless `is_velquin`.
        tf.errors.InvalidArgumentError: for an empty batch; `classes` or `max_output_size` below 1.
        tf.errors.ResourceExhaustedError: where the rows need more memory than there is.

    Example:
        >>> import bitfold, numpy as np
        >>> boxes = np.float32([[0, 0, 9, 9, 0.9], [0, 0, 9, 8, 0.8], [0, 0, 9, 4, 0.7]])
        >>> # The second overlaps the first by 90 of 100 pixels, the third by 50.
        >>> bitfold.ops.non_max_suppression(
        ...     boxes.reshape(1, 3, 5, 1), 0.5, iou_threshold=0.5, max_output_size=3
        ... ).numpy()[0, 0]
        array([[0. , 0. , 9. , 9. , 0.9],
               [0. , 0. , 9. , 4. , 0.7],
               [0. , 0. , 0. , 0. , 0. ]], dtype=float32)
    """
    value = element_tensor(value, "value", tf.float32)
    classes = integer(classes, "classes")
    max_output_size = integer(max_output_size, "max_output_size")
    needs = Needs()
    _require_boxes(needs, value, classes, is_velquin)
    with needs.met():
        output = raw_ops.hnms(
            value=without_static_shape(value),
            scores_threshold=scalar_operand(scores_threshold, "scores_threshold", tf.float32),
            iou_threshold=float_attribute(iou_threshold, "iou_threshold"),
            max_output_size=float_attribute(max_output_size, "max_output_size"),
            classes=float_attribute(classes, "classes"),
            debug_precise_numeric=debug_precise_numeric,
            is_velquin=is_velquin,
            name=name,
        )
    if not tf.executing_eagerly():
        batch = value.shape[0] if value.shape.rank == 4 else None
        sizes = [size if size > 0 else None for size in (classes, max_output_size)]
        output.set_shape([batch, *sizes, 5])
    return output


def _require_boxes(needs: Needs, value: tf.Tensor, classes: int, may_be_none: bool) -> None:
    """Require as many boxes of each class, without which the kernel ends the process."""
    needs.rank(value, "value", 4)
    for axis, wanted in ((2, 5), (3, 1)):
        what = f"value of shape [batch, classes * boxes, 5, 1], dimension {axis} being {wanted}"
        needs.size(needs.dimension(value, axis), wanted, what, value)
    if classes < 1:
        return  # the kernel refuses
    boxes = needs.dimension(value, 1)
    divides = tf.equal(boxes % classes, 0) if is_tensor(boxes) else boxes % classes == 0
    needs.holds(divides, f"value to hold a multiple of {classes} boxes, its classes", boxes)
    if not may_be_none:
        needs.holds(boxes > 0, "value to hold a box of each class, without is_velquin", boxes)


def _decode(
    raw_op, detection_centers, detection_sizes, y_centers, x_centers, anchors, accumulator_size,
    mult_shift, use_fp16_acc, name,
) -> tf.Tensor:  # fmt: skip
    """Call one of the two box decoders; `anchors` are its inputs for each anchor, in order."""
    centers = element_tensor(detection_centers, "detection_centers")
    others = {
        "detection_sizes": detection_sizes,
        "y_centers": y_centers,
        "x_centers": x_centers,
        **anchors,
    }
    tensors = {key: element_tensor(x, key, centers.dtype) for key, x in others.items()}
    needs = Needs()
    needs.half_precision_float(use_fp16_acc, centers.dtype)
    _require_anchors(needs, centers, tensors)
    with needs.met():
        return raw_op(
            centers,
            *tensors.values(),
            scalar_operand(mult_shift, "mult_shift", tf.int8),
            accumulator_size=integer(accumulator_size, "accumulator_size"),
            use_fp16_acc=use_fp16_acc,
            name=name,
        )


def _require_anchors(needs: Needs, centers: tf.Tensor, others: dict[str, tf.Tensor]) -> None:
    """Require pairs of centres, and of every other input as many numbers as there are places."""
    needs.rank(centers, "detection_centers", 4)
    pairs = needs.dimension(centers, -1)
    what = "detection_centers with an even last dimension, a pair for each anchor"
    needs.holds(tf.equal(pairs % 2, 0) if is_tensor(pairs) else pairs % 2 == 0, what, pairs)
    counts = {
        "detection_sizes": (elements(centers), "as many as detection_centers"),
        "y_centers": (needs.dimension(centers, 1) * pairs, "a pair for each anchor of each row"),
        "x_centers": (needs.dimension(centers, 2) * pairs, "a pair for each anchor of each column"),
    }
    for key, tensor in others.items():
        needs.elements(tensor, key, *counts.get(key, (pairs // 2, "one for each anchor")))
