# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The constants of both decoder ops, from anchors, centres and scales."""

from __future__ import annotations

import dataclasses
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any

import numpy as np

from bitfold._frame.checks import require
from bitfold.detection._coefficients import fitted


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
    coefficients, fields = fitted(
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
    coefficients, fields = fitted(
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
