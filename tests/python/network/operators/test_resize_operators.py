# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""RESIZE_BILINEAR and RESIZE_NEAREST_NEIGHBOR: sizes, corners and centres, refusals."""

from __future__ import annotations

import pytest
from packed import compare, constant, operator, tensor
from refusing import assert_refused

PLACES = [
    {"align_corners": False, "half_pixel_centers": False},
    {"align_corners": True, "half_pixel_centers": False},
    {"align_corners": False, "half_pixel_centers": True},
]
KINDS = ["RESIZE_BILINEAR", "RESIZE_NEAREST_NEIGHBOR"]


@pytest.mark.parametrize("size", [(10, 14), (1, 9), (37, 24)])
@pytest.mark.parametrize("options", PLACES)
@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("dtype", ["int8", "int16"])
def test_sizes(dtype, kind, options, size):
    """Larger and smaller, one pixel, the same size."""
    x = tensor([1, 5, 7, 2], dtype, 0.5, 9 if dtype == "int8" else 0)
    compare(operator(kind, [x, constant(size)], [tensor([1, *size, 2], dtype, 0.5)], options))


@pytest.mark.parametrize("kind", KINDS)
def test_several_images_in_one_from_one_pixel(kind):
    """There is nothing between one pixel and itself."""
    x, size = tensor([2, 1, 3, 2], "int8", 0.5), constant([4, 4])
    for options in PLACES:
        compare(operator(kind, [x, size], [tensor([2, 4, 4, 2], "int8", 0.25)], options))


def test_nearest_of_floats():
    """Elements move, whatever they are."""
    for options in PLACES:
        inputs = [tensor([1, 3, 4, 2], "float32"), constant([5, 7])]
        compare(operator(KINDS[1], inputs, [tensor([1, 5, 7, 2], "float32")], options))


def test_refusals():
    """Options that exclude one another, sizes of 0 or without end, places beyond the last pixel."""
    x, out = tensor([1, 5, 5, 1], "int16", 0.5), [tensor([1, 1, 1, 1], "int16", 0.5)]
    both = {"align_corners": True, "half_pixel_centers": True}
    for kind in KINDS:
        for size in (0, (1 << 20) + 1):
            assert_refused(f"need a size of 1 to 1048576, got [{size}, 4]", kind,
                           [x, constant([size, 4])], out)  # fmt: skip
        assert_refused("need 2 numbers for the size", kind, [x, constant([4])], out)
    assert_refused("need align_corners or half_pixel_centers", KINDS[0], [x, constant([4, 4])], out,
                   both)  # fmt: skip
    # 126 pixels of 41 / 1024 reach to the sixth of five.
    assert_refused("need pixels between those of 5, got 126", KINDS[0], [x, constant([126, 5])],
                   out)  # fmt: skip
    assert_refused("need the data of rank 4", KINDS[0],
                   [tensor([5, 5], "int8", 0.5), constant([4, 4])], out)  # fmt: skip
