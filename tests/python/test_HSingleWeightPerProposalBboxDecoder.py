# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""HSingleWeightPerProposalBboxDecoder through the runtime: bits, printed lines, ranks, refusals."""

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
    "anchors_height_scale_factor",
    "anchors_height_scale_factor_minus",
    "anchors_width_scale_factor",
    "anchors_width_scale_factor_minus",
)
ONE = dict.fromkeys(NAMES, 1)
REGISTRATION = {
    "HSingleWeightPerProposalBboxDecoder": registration.accumulation(
        [*decoders.POSITIONS, *NAMES], registration.kernels("HSingleWeightPerProposalBboxDecoderOp")
    )
}
WRAPPERS = {
    "decode_boxes_single_weight": stated.Wrapper(
        [(2, 4, 5, 6), (2, 4, 5, 6), (4, 6), (5, 6), *[(3,)] * 4],
        {"accumulator_size": 8, "mult_shift": 1},
        raw.decode_boxes_single_weight,
    ),
}


class TestSingleWeightPerProposalBboxDecoder(decoders.Suite):
    """What both decoders have in common."""

    op = staticmethod(raw.decode_boxes_single_weight)
    raw_op = staticmethod(raw.raw_ops.h_single_weight_per_proposal_bbox_decoder)
    model = "decode_boxes_single_weight"
    names = NAMES
    # The text names the other decoder; so it is known.
    rank_error = "HBboxDecoder supports only rank 4 (Convolution result)"


def decode(dtype=np.int32, *, arguments=None, **numbers):
    """Return the corners of one box."""
    inputs = decoders.box(NAMES, dtype, **numbers)
    return raw.decode_boxes_single_weight(*inputs, **(arguments or {})).numpy().ravel().tolist()


@pytest.mark.parametrize("dtype", TYPES)
def test_the_pairing_is_crosswise(dtype):
    """Corners in y take the second number of a pair, in x the first; centres do not cross."""
    boxes = decode(
        dtype,
        detection_centers=(1, 2),
        detection_w_h=(10, 20),
        y_centers=(1000, 2000),
        x_centers=(3000, 4000),
        anchors_height_scale_factor=3,
        anchors_height_scale_factor_minus=-5,
        anchors_width_scale_factor=7,
        anchors_width_scale_factor_minus=-11,
    )
    assert boxes == [-5 * 2 + 1000, -11 * 1 + 3000, 3 * 20 + 2000, 7 * 10 + 4000]


@pytest.mark.parametrize(("product", "scaled"), [(3, 2), (5, 2), (7, 4), (-3, -2)])
def test_integer_shift_rounds_half_to_even(product, scaled):
    """Half of each product, before the centre is added."""
    pairs = {"detection_centers": (product, product), "detection_w_h": (product, product)}
    centers = {"y_centers": (1, 1), "x_centers": (1, 1)}
    assert decode(arguments={"mult_shift": 1}, **pairs, **centers, **ONE) == [scaled + 1] * 4
    # A shift of 0 leaves the products alone.
    assert decode(**pairs, **centers, **ONE) == [product + 1] * 4


@pytest.mark.parametrize(("product", "shift", "scaled"), [(3, 2, 2), (5, 2, 2), (75, 30, 3)])
def test_float_shift_multiplies_by_the_reciprocal(product, shift, scaled):
    """Half of 3 and 5 go to even 2; 75 times the float next to 1/30 is above 2.5."""
    pairs = {"detection_centers": (product, product), "detection_w_h": (product, product)}
    assert decode(np.float32, arguments={"mult_shift": shift}, **pairs, **ONE) == [scaled] * 4


@pytest.mark.parametrize("dtype", TYPES)
def test_one_fold(dtype):
    """100 + 100 folds to -56; 400 + 100 to 244, which stays outside 8 bits."""
    numbers = {"detection_centers": (100, 400), "y_centers": (100, 1), "x_centers": (100, 2)}
    boxes = decode(dtype, arguments={"accumulator_size": 8}, **numbers, **ONE)
    assert boxes == [244, -56, 1, 2]


def test_half_precision():
    """The centre is quantised, the product enters as it is; nothing wraps, integers ignore it."""
    arguments = {"use_fp16_acc": True, "accumulator_size": 8}
    boxes = decode(np.float32, arguments=arguments, detection_centers=(2.0**-11, 0.0),
                   detection_w_h=(100.0, 2.0**-10), y_centers=(0.3, 2.0**-11),
                   x_centers=(2.0**-10, 50.0), **ONE)  # fmt: skip
    # In steps of 2^-10: 0.3 is 307; 1/2 + 1 = 3/2 to even 2; 1 + the centre's 1/2, which is 0.
    assert boxes == [307 * 2.0**-10, 2.0**-9, 2.0**-10, 150.0]
    boxes = decode(arguments=arguments, detection_centers=(100, 0), x_centers=(50, 0), **ONE)
    assert boxes == [0, -106, 0, 0]


@pytest.mark.parametrize("use_fp16_acc", [False, True])
def test_sums_are_reported(use_fp16_acc, printed):
    """The upper bound is reported, the lower one is not, in the order of the corners."""
    numbers = {"detection_centers": (-8388607.0, 8388607.0), "detection_w_h": (9e6, 8388606.0),
               "y_centers": (0.0, 0.0), "x_centers": (0.0, 1.0)}  # fmt: skip
    with printed() as text:
        decode(np.float32, arguments={"use_fp16_acc": use_fp16_acc}, **numbers, **ONE)
    assert text.out == support.warning("8388607.000000") + support.warning("9000001.000000")
    with printed() as text:
        decode(np.int32, **numbers, **ONE)
    assert (text.out, text.err) == ("", "")
