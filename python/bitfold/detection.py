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

from __future__ import annotations

import dataclasses
import math
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any

import numpy as np

from bitfold._frame.checks import require

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

_INT32_MAX = 2**31 - 1
_LONGEST_SHIFT = 30  # the op counts shifts modulo 32, and its rounding mask needs one bit more
# Roundings of float32 that the largest term of a corner passes: its coefficient, the product, two
# sums, and one for what they make of each other.
_FLOAT_ERROR = 5 * 2.0**-24
# A stated error that is not 0 also covers the float64 arithmetic that it was computed in.
_HOST_ERROR = 2.0**-46


# ---- Decoders ----------------------------------------------------------------------------------


@dataclass(frozen=True, eq=False)
class _Decoder:
    """What both records share.

    Attributes:
        y_centers: [H, 2 * A], per row and anchor the terms of y_min and y_max.
        x_centers: [W, 2 * A], per column and anchor the terms of x_min and x_max.
        mult_shift: the shift of the products.
        output_scale: pixels per step of the results.
        max_error: how far a corner can lie from the real one, in pixels, for the codes stated and
            an accumulator of at least `accumulator_bits`.
        accumulator_bits: the narrowest accumulator that holds every sum.
    """

    y_centers: np.ndarray
    x_centers: np.ndarray
    mult_shift: int
    output_scale: float
    max_error: float
    accumulator_bits: int

    @property
    def keywords(self) -> dict[str, Any]:
        """Keyword arguments of the op."""
        about = ("output_scale", "max_error", "accumulator_bits")
        names = [field.name for field in dataclasses.fields(self) if field.name not in about]
        return {name: getattr(self, name) for name in names}


@dataclass(frozen=True, eq=False)
class BoxDecoder(_Decoder):
    """What `box_decoder` returns: arguments of ``bitfold.ops.decode_boxes``.

    Attributes:
        anchors_heights: [A], what a step of a centre's code moves it.
        anchors_heights_div_2: [A], what a step of a size's code moves the lower edge.
        anchors_heights_minus_div_2: [A], and the upper edge.
        anchors_widths: [A], the same for x.
        anchors_widths_div_2: [A].
        anchors_widths_minus_div_2: [A].
    """

    anchors_heights: np.ndarray
    anchors_heights_div_2: np.ndarray
    anchors_heights_minus_div_2: np.ndarray
    anchors_widths: np.ndarray
    anchors_widths_div_2: np.ndarray
    anchors_widths_minus_div_2: np.ndarray


@dataclass(frozen=True, eq=False)
class SingleWeightBoxDecoder(_Decoder):
    """What `single_weight_box_decoder` returns.

    Its keywords are arguments of ``bitfold.ops.decode_boxes_single_weight``.

    Attributes:
        heights_scale: [A], what a step of the code moves y_max.
        heights_scale_minus: [A], y_min.
        widths_scale: [A], x_max.
        widths_scale_minus: [A], x_min.
    """

    heights_scale: np.ndarray
    heights_scale_minus: np.ndarray
    widths_scale: np.ndarray
    widths_scale_minus: np.ndarray


def grid_centers(count: int, stride: float, *, offset: float = 0.5) -> np.ndarray:
    """Return the centres of the cells along one axis of a map, float64 [count], in pixels.

    Args:
        count: the number of cells.
        stride: the distance of their centres, in pixels.
        offset: the place of the first centre, in strides.

    Raises:
        ValueError: for a negative count, or a stride that is not above 0.

    Example:
        >>> from bitfold import detection
        >>> detection.grid_centers(3, 8)
        array([ 4., 12., 20.])
    """
    require(count >= 0, "count must not be negative", count)
    require(stride > 0, "stride must be above 0", stride)
    return (np.arange(count) + offset) * float(stride)


def box_decoder(
    anchors: Any,
    y_centers: Any,
    x_centers: Any,
    *,
    center_scale: float | Sequence[float] = 1.0,
    size_scale: float | Sequence[float] = 1.0,
    largest_code: float = 128,
    fraction_bits: int = 4,
    coefficient_bits: int = 16,
    inclusive: bool = False,
    dtype: Any = np.int32,
) -> BoxDecoder:
    """Build the inputs of ``bitfold.ops.decode_boxes`` from anchors.

    With c the code of a centre and s that of a size, one axis of the classic decoder is

        centre = anchor's centre + center_scale * c * anchor's size
        size = size_scale * s * anchor's size
        minimum, maximum = centre -+ size / 2

    A network that gives logarithms of sizes needs `size_terms` in between: the op has no
    exponential. Networks' own factors ("variances") go into the scales: with variances of 0.1 and
    codes in steps of 1/32, center_scale is 0.1 / 32.

    Error. With u = 2^-fraction_bits pixels, int32 coefficients are rint(2^shift * real / u). A
    corner is off by |c| and |s| times the rounding of their coefficients, at most u / 2^(shift + 1)
    each; by half a step for each of the two products, as the shift rounds them one by one; and by
    the rounding of the anchor's centre, at most half a step. So by no more than

        u * ((|c| + |s|) / 2^(shift + 1) + 1 + 1/2)

    and `max_error` leaves out the roundings that these anchors do not need: where coefficients and
    centres are whole steps the op is exact, and it is 0. The shift is the largest for which the
    coefficients fit. float32 corners are off by 5 * 2^-24 of the sum of the
    magnitudes of their terms: coefficient, product and two sums are rounded. (With `use_fp16_acc`
    no error is stated.)

    Args:
        anchors: [A, 2], heights and widths in pixels, above 0.
        y_centers: [H] or [H, A], the anchors' centres by row of the map, in pixels.
        x_centers: [W] or [W, A], by column.
        center_scale: what a step of a centre's code stands for, one number or (y, x).
        size_scale: the same for sizes.
        largest_code: the largest magnitude of a code, for the shift and the stated error.
        fraction_bits: results are in steps of 2^-fraction_bits pixels (int32 only).
        coefficient_bits: the width of the coefficients with their sign, 2 to 32 (int32 only).
        inclusive: the maximum corners are the last pixels of the box and not the first beyond it,
            as ``non_max_suppression`` counts: they lie one pixel lower.
        dtype: int32 or float32.

    Returns:
        A `BoxDecoder`. In the op's codes each pair is (y, x).

    Raises:
        ValueError: for malformed anchors or centres, scales that are not above 0, and coefficients
            or sums that do not fit.

    Example:
        >>> import bitfold, numpy as np
        >>> from bitfold import detection
        >>> rows, columns = detection.grid_centers(2, 16), detection.grid_centers(3, 16)
        >>> anchors = [[16, 16], [32, 16]]
        >>> decoder = detection.box_decoder(
        ...     anchors, rows, columns, center_scale=1 / 128, size_scale=1 / 64)
        >>> centers = np.zeros([1, 2, 3, 4], np.int32)
        >>> sizes = np.full([1, 2, 3, 4], 64, np.int32)
        >>> boxes = bitfold.ops.decode_boxes(
        ...     centers, sizes, accumulator_size=decoder.accumulator_bits, **decoder.keywords)
        >>> boxes.numpy().reshape(1, 2, 3, 2, 4)[0, 1, 2] * decoder.output_scale
        array([[16., 32., 32., 48.],
               [ 8., 32., 40., 48.]])
        >>> decoder.accumulator_bits, decoder.max_error
        (12, 0.0)
    """
    anchors = _anchors(anchors)
    centers = anchors * _pair(center_scale, "center_scale")
    halves = anchors / 2 * _pair(size_scale, "size_scale")
    corners = np.array([0, -1 if inclusive else 0])
    references = [
        _references(y_centers, len(anchors), "y_centers", corners),
        _references(x_centers, len(anchors), "x_centers", corners),
    ]
    coefficients, fields = _fit(
        [centers, halves], references, largest_code, fraction_bits, coefficient_bits, dtype
    )
    (heights, widths), (half_heights, half_widths) = (c.T for c in coefficients)
    return BoxDecoder(
        **fields,
        anchors_heights=heights,
        anchors_heights_div_2=half_heights,
        anchors_heights_minus_div_2=-half_heights,
        anchors_widths=widths,
        anchors_widths_div_2=half_widths,
        anchors_widths_minus_div_2=-half_widths,
    )


def single_weight_box_decoder(
    anchors: Any,
    y_centers: Any,
    x_centers: Any,
    *,
    scale: float | Sequence[float] = 1.0,
    from_edges: bool = False,
    largest_code: float = 128,
    fraction_bits: int = 4,
    coefficient_bits: int = 16,
    inclusive: bool = False,
    dtype: Any = np.int32,
) -> SingleWeightBoxDecoder:
    """Build the inputs of ``bitfold.ops.decode_boxes_single_weight`` from anchors.

    Each corner is one code times one coefficient, added to a reference. Two kinds of networks fit:

        distances    minimum = centre - scale * c * size, maximum = centre + scale * s * size
        from_edges   minimum = anchor's minimum + scale * c * size,
                     maximum = anchor's maximum + scale * s * size

    with c and s the codes of both sides and `size` the anchor's. In the op's codes each pair is
    (x, y), against the order of everything else: `detection_centers` holds (left, top) and
    `detection_sizes` (right, bottom).

    Error. As for `box_decoder`, with one product less: for int32 no more than

        2^-fraction_bits * (|code| / 2^(shift + 1) + 1/2 + 1/2)

    pixels, and for float32 5 * 2^-24 of the sum of the magnitudes of a corner's terms.

    Args:
        anchors: [A, 2], heights and widths in pixels, above 0; for distances in pixels or strides
            all alike, that unit.
        y_centers: [H] or [H, A], the anchors' centres by row of the map, in pixels.
        x_centers: [W] or [W, A], by column.
        scale: what a step of a code stands for, as a share of the anchor's size, one number or
            (y, x).
        from_edges: codes move the anchor's edges; by default they are distances from its centre.
        largest_code: the largest magnitude of a code, for the shift and the stated error.
        fraction_bits: results are in steps of 2^-fraction_bits pixels (int32 only).
        coefficient_bits: the width of the coefficients with their sign, 2 to 32 (int32 only).
        inclusive: the maximum corners lie one pixel lower, as ``non_max_suppression`` counts.
        dtype: int32 or float32.

    Returns:
        A `SingleWeightBoxDecoder`.

    Raises:
        ValueError: as for `box_decoder`.

    Example:
        >>> import bitfold, numpy as np
        >>> from bitfold import detection
        >>> decoder = detection.single_weight_box_decoder([[8, 8]], [100], [60], scale=1 / 4)
        >>> left_top = np.int32([1, 2]).reshape(1, 1, 1, 2)  # in quarters of 8 pixels
        >>> right_bottom = np.int32([3, 4]).reshape(1, 1, 1, 2)
        >>> boxes = bitfold.ops.decode_boxes_single_weight(
        ...     left_top, right_bottom, **decoder.keywords)
        >>> boxes.numpy() * decoder.output_scale
        array([[[[ 96.,  58., 108.,  66.]]]])
    """
    anchors = _anchors(anchors)
    corners = np.array([0, -1 if inclusive else 0])
    heights, widths = anchors.T[:, :, np.newaxis] * ([-0.5, 0.5] if from_edges else [0, 0])
    references = [
        _references(y_centers, len(anchors), "y_centers", heights + corners),
        _references(x_centers, len(anchors), "x_centers", widths + corners),
    ]
    coefficients, fields = _fit(
        [anchors * _pair(scale, "scale")],
        references, largest_code, fraction_bits, coefficient_bits, dtype,
    )  # fmt: skip
    heights, widths = coefficients[0].T
    sign = 1 if from_edges else -1
    return SingleWeightBoxDecoder(
        **fields,
        heights_scale=heights,
        heights_scale_minus=sign * heights,
        widths_scale=widths,
        widths_scale_minus=sign * widths,
    )


def size_terms(
    codes: Any, *, code_scale: float, size_scale: float, largest_code: int = 128
) -> np.ndarray:
    """Turn logarithms of sizes into the codes of sizes that ``bitfold.ops.decode_boxes`` takes.

    The decoder has no exponential. An accelerator has it in a table before the decoder, with one
    entry per code; this is that table: rint(exp(code_scale * code) / size_scale), limited to
    `largest_code`. A size that is not limited is off by half a step, size_scale / 2 of the anchor's
    size, and its edges by half of that, which adds to the decoder's `max_error`.

    Args:
        codes: whole or real numbers of any shape.
        code_scale: what a step of them stands for, with the network's own factor.
        size_scale: a step of the result, as a share of the anchor's size.
        largest_code: the largest result.

    Returns:
        An int32 array of the shape of `codes`.

    Raises:
        ValueError: for scales that are not above 0.

    Example:
        >>> import numpy as np
        >>> from bitfold import detection
        >>> detection.size_terms(np.int8([-32, 0, 16]), code_scale=1 / 32, size_scale=1 / 64)
        array([ 24,  64, 106], dtype=int32)
    """
    require(code_scale > 0, "code_scale must be above 0", code_scale)
    require(size_scale > 0, "size_scale must be above 0", size_scale)
    logarithms = code_scale * np.asarray(codes, np.float64)
    # Limited before the exponential, which would overflow.
    logarithms = np.minimum(logarithms, math.log(size_scale * (largest_code + 1)))
    return np.minimum(np.rint(np.exp(logarithms) / size_scale), largest_code).astype(np.int32)


def _fit(
    products: list[np.ndarray],
    references: list[np.ndarray],
    largest_code: float,
    fraction_bits: int,
    coefficient_bits: int,
    dtype: Any,
) -> tuple[list[np.ndarray], dict[str, Any]]:
    """Round coefficients and references to the decoder's numbers, and say what that costs.

    Args:
        products: pixels per step of a code, [A, 2] for each product of a corner.
        references: pixels, [H, A, 2] for y and [W, A, 2] for x.
        largest_code: as the builders take it, like the rest.
        fraction_bits: see there.
        coefficient_bits: see there.
        dtype: see there.

    Returns:
        The coefficients in the order of `products`, and the fields of `_Decoder`.
    """
    require(largest_code > 0, "largest_code must be above 0", largest_code)
    require(np.dtype(dtype) in (np.int32, np.float32), "dtype must be int32 or float32", dtype)
    if np.dtype(dtype) == np.float32:
        steps, shift = 1, 0
        error = largest_code * sum(products) + _per_anchor([np.abs(r) for r in references])
        error *= _FLOAT_ERROR
        reach = largest_code * sum(products) + error
    else:
        require(0 <= fraction_bits <= 24, "fraction_bits must lie in [0, 24]", fraction_bits)
        steps = 2**fraction_bits
        exact, targets = ([steps * x for x in group] for group in (products, references))
        shift = _longest_shift(max(c.max() for c in exact), coefficient_bits, largest_code)
        unit = 2.0**shift
        products, references = [np.rint(unit * c) for c in exact], [np.rint(t) for t in targets]
        error = _per_anchor([np.abs(t - r) for t, r in zip(targets, references, strict=True)])
        for coefficient, real in zip(products, exact, strict=True):
            error += largest_code * np.abs(coefficient / unit - real) + 0.5 * (
                coefficient % unit > 0
            )
        reach = sum(np.rint(largest_code * c / unit) for c in products)
    largest = reach + _per_anchor([np.abs(r) for r in references])
    error += np.where(error > 0, _HOST_ERROR * largest, 0)
    bits = _accumulator_bits(reach, references)
    require(
        np.dtype(dtype) == np.float32 or bits <= 32,
        "boxes must fit an accumulator of 32 bits; lower fraction_bits",
        f"{bits} bits",
    )
    y_centers, x_centers = (r.reshape(len(r), -1).astype(dtype) for r in references)
    return [c.astype(dtype) for c in products], {
        "y_centers": y_centers,
        "x_centers": x_centers,
        "mult_shift": shift,
        "output_scale": 1 / steps,
        "max_error": float(error.max()) / steps,
        "accumulator_bits": bits,
    }


def _longest_shift(largest: float, bits: int, largest_code: float) -> int:
    """Return the largest shift with which the largest coefficient fits, and its product."""
    require(2 <= bits <= 32, "coefficient_bits must lie in [2, 32]", bits)
    limit = min(2 ** (bits - 1) - 1, _INT32_MAX // largest_code)
    require(
        np.rint(largest) <= limit,
        f"coefficients must be at most {limit} steps; lower fraction_bits or largest_code, or "
        "raise coefficient_bits",
        largest,
    )
    return next(s for s in range(_LONGEST_SHIFT, -1, -1) if np.rint(largest * 2.0**s) <= limit)


def _accumulator_bits(reach: np.ndarray, references: list[np.ndarray]) -> int:
    """Return the bits that hold all sums of products, up to `reach` [A, 2], and references."""
    largest = reach.max()
    for reference, products in zip(references, reach.T, strict=True):
        for corners in (reference, -1 - reference):
            largest = max(largest, (corners + products[:, np.newaxis]).max(initial=0))
    return math.ceil(largest).bit_length() + 1


def _per_anchor(values: list[np.ndarray]) -> np.ndarray:
    """Return the largest value of each anchor, [A, 2], from [H, A, 2] for y and [W, A, 2] for x."""
    return np.stack([v.max(axis=(0, 2), initial=0) for v in values], axis=1)


def _anchors(anchors: Any) -> np.ndarray:
    anchors = np.asarray(anchors, np.float64)
    require(
        anchors.ndim == 2 and anchors.shape[1] == 2 and len(anchors) > 0,
        "anchors must be [A, 2], heights and widths",
        list(anchors.shape),
    )
    require((anchors > 0).all() and np.isfinite(anchors).all(), "anchors must be above 0", anchors)
    return anchors


def _pair(scale: float | Sequence[float], name: str) -> np.ndarray:
    pair = np.atleast_1d(np.asarray(scale, np.float64))
    right = pair.shape in ((1,), (2,)) and (pair > 0).all() and np.isfinite(pair).all()
    require(right, f"{name} must be one number above 0 or two, (y, x)", scale)
    return pair


def _references(values: Any, anchors: int, name: str, offsets: Any) -> np.ndarray:
    """Return centres [H] or [H, A] with the offsets of both corners, [H, A, 2]."""
    centers = np.asarray(values, np.float64)
    if centers.ndim == 1:
        centers = np.repeat(centers[:, np.newaxis], anchors, axis=1)
    require(
        centers.ndim == 2 and centers.shape[1] == anchors and np.isfinite(centers).all(),
        f"{name} must be one finite number per cell, or [cells, {anchors}], one per anchor too",
        list(centers.shape),
    )
    return centers[:, :, np.newaxis] + offsets


# ---- Non-maximum suppression -------------------------------------------------------------------


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
