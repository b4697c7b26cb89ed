# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HBboxDecoder through the runtime: bits, printed lines, ranks, refusals."""

from __future__ import annotations

import decoders
import numpy as np
import pytest
import raw
import registration
import stated
import support

TYPES = decoders.TYPES
NAMES = (
    "anchors_heights",
    "anchors_heights_div_2",
    "anchors_heights_minus_div_2",
    "anchors_widths",
    "anchors_widths_div_2",
    "anchors_widths_minus_div_2",
)
REGISTRATION = {
    "HBboxDecoder": registration.accumulation(
        [*decoders.POSITIONS, *NAMES], registration.kernels("HBboxDecoderOp")
    )
}
WRAPPERS = {
    "decode_boxes": stated.Wrapper(
        [(2, 4, 5, 6), (2, 4, 5, 6), (4, 6), (5, 6), *[(3,)] * 6],
        {"accumulator_size": 8, "mult_shift": 1},
        raw.decode_boxes,
    ),
}


class TestBboxDecoder(decoders.Suite):
    """What both decoders have in common."""

    op = staticmethod(raw.decode_boxes)
    raw_op = staticmethod(raw.raw_ops.h_bbox_decoder)
    model = "decode_boxes"
    names = NAMES
    # The text names the addition; so it is known.
    rank_error = "HAdd supports only rank 4 (Convolution result)"


def decode(dtype=np.int32, *, arguments=None, **numbers):
    """Return the corners of one box."""
    inputs = decoders.box(NAMES, dtype, **numbers)
    return raw.decode_boxes(*inputs, **(arguments or {})).numpy().ravel().tolist()


# A box whose four corners show every input once.
ALL = {
    "detection_centers": (1, 2),
    "detection_w_h": (10, 20),
    "y_centers": (1000, 2000),
    "x_centers": (3000, 4000),
    "anchors_heights": 3,
    "anchors_heights_div_2": 5,
    "anchors_heights_minus_div_2": -7,
    "anchors_widths": 11,
    "anchors_widths_div_2": 13,
    "anchors_widths_minus_div_2": -17,
}


@pytest.mark.parametrize("dtype", TYPES)
def test_corners(dtype):
    """y-min, x-min, y-max, x-max: centre product, size product, centre."""
    expected = [3 - 70 + 1000, 22 - 340 + 3000, 3 + 50 + 2000, 22 + 260 + 4000]
    assert decode(dtype, **ALL) == expected


def test_rows_columns_and_anchors(assert_bits):
    """Centres are those of the row, the column and the anchor; images share them."""
    shape, zeros = (2, 2, 3, 4), np.zeros([2, 2, 3, 4], np.int32)
    y = np.arange(8, dtype=np.int32).reshape(2, 4)
    x = 100 * np.arange(1, 13, dtype=np.int32).reshape(3, 4)
    anchors = [np.zeros([2], np.int32)] * 6
    boxes = raw.decode_boxes(zeros, zeros, y, x, *anchors).numpy().reshape(*shape[:3], 2, 4)
    for h in range(2):
        for w in range(3):
            for j in range(2):
                corners = [y[h, 2 * j], x[w, 2 * j], y[h, 2 * j + 1], x[w, 2 * j + 1]]
                for n in range(2):
                    assert_bits(boxes[n, h, w, j], np.array(corners, np.int32))


@pytest.mark.parametrize(("product", "scaled"), [(6, 2), (10, 2), (14, 4), (-6, -2)])
def test_integer_shift_rounds_half_to_even(product, scaled):
    """A quarter of 6, 10 and 14; each of the six products is scaled by itself."""
    one = dict.fromkeys(NAMES, 1)
    arguments = {"mult_shift": 2}
    boxes = decode(detection_centers=(product, product), arguments=arguments, **one)
    assert boxes == [scaled] * 4
    boxes = decode(detection_w_h=(product, product), arguments=arguments, **one)
    assert boxes == [scaled] * 4


@pytest.mark.parametrize(("product", "shift", "scaled"), [(3, 2, 2), (5, 2, 2), (75, 30, 3)])
def test_float_shift_multiplies_by_the_reciprocal(product, shift, scaled):
    """Half of 3 and 5 go to even 2; 75 times the float next to 1/30 is above 2.5."""
    one = dict.fromkeys(NAMES, 1)
    pair = (product, product)
    for name in ("detection_centers", "detection_w_h"):
        boxes = decode(np.float32, arguments={"mult_shift": shift}, **{name: pair}, **one)
        assert boxes == [scaled] * 4


@pytest.mark.parametrize("dtype", TYPES)
def test_both_additions_fold(dtype):
    """100 + 30 folds to -126 before the centre is added; one fold for each addition."""
    one = {**dict.fromkeys(NAMES, 1), "detection_centers": (100, 100), "detection_w_h": (30, 30)}
    arguments = {"accumulator_size": 8}
    assert decode(dtype, arguments=arguments, **one) == [-126] * 4
    centers = {"y_centers": (-10, 10), "x_centers": (-2, 0)}
    assert decode(dtype, arguments=arguments, **one, **centers) == [120, -128, -116, -126]
    one["detection_centers"] = (600, 600)
    assert decode(dtype, arguments=arguments, **one) == [118] * 4  # 630 - 256 - 256


def test_half_precision():
    """The size product and the centre are quantised, the centre product enters as it is."""
    one = dict.fromkeys(NAMES, 1.0)
    arguments = {"use_fp16_acc": True, "accumulator_size": 8}
    boxes = decode(np.float32, arguments=arguments, **one, detection_centers=(2.0**-11, 100.0),
                   detection_w_h=(2.0**-10, 50.0), y_centers=(0.0, 0.3))  # fmt: skip
    # In steps of 2^-10: 1/2 + 1 = 3/2 to even 2; 0.3 is 307.
    assert boxes == [2.0**-9, 150.0, 309 * 2.0**-10, 150.0]
    # Integers ignore it.
    boxes = decode(arguments=arguments, detection_centers=(100, 100), anchors_heights=1,
                   y_centers=(50, 0))  # fmt: skip
    assert boxes == [-106, 0, 100, 0]


def test_both_sums_are_reported(printed):
    """The upper bound is reported, the lower one is not; corner by corner, sum by sum."""
    numbers = {"detection_centers": (8388607.0, -8388607.0), "y_centers": (0.0, 1.0),
               "x_centers": (-1.0, 0.0), "anchors_heights": 1.0, "anchors_widths": 1.0}  # fmt: skip
    with printed() as text:
        decode(np.float32, **numbers)
    bound, above = support.warning("8388607.000000"), support.warning("8388608.000000")
    assert text.out == 2 * bound + support.warning("-8388608.000000") + bound + above
    with printed() as text:
        decode(np.int32, **{name: np.int32(x) for name, x in numbers.items()})
    assert (text.out, text.err) == ("", "")
