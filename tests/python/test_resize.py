# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Resizing: the stated error against real interpolation, and exact bits where results are whole."""

from __future__ import annotations

import hypothesis
import numpy as np
import pytest
import tensorflow as tf
from hypothesis import strategies as st

import bitfold
from bitfold import resize

CONVENTIONS = [(False, None), (True, None), (False, False)]


def matrix(count: int, out: int, align_corners: bool, half_pixel_centers: bool | None):
    """Return the real interpolation along one axis as whole numbers [out, count] and a divisor."""
    place = np.arange(out)
    if align_corners:
        place, divisor = place * (count - 1), max(out - 1, 1)
    elif half_pixel_centers is None:
        place, divisor = (2 * place + 1) * count - out, 2 * out
    else:
        place, divisor = place * count, out
    place = np.clip(place, 0, (count - 1) * divisor)[:, np.newaxis]
    return np.maximum(0, divisor - np.abs(place - divisor * np.arange(count))), divisor


def interpolated(images: np.ndarray, size, convention) -> tuple[np.ndarray, int]:
    """Return real bilinear interpolation times a divisor, and that: exact for whole numbers."""
    (rows, first), (columns, second) = (
        matrix(count, out, *convention) for count, out in zip(images.shape[1:3], size, strict=True)
    )
    wide = images.astype(np.int64 if images.dtype == np.int32 else np.float64)
    return np.einsum("ah,bw,nhwc->nabc", rows, columns, wide), first * second


def stock(images: np.ndarray, size, convention) -> np.ndarray:
    """Return what TensorFlow's op computes in float32."""
    align_corners, half_pixel_centers = convention
    return tf.raw_ops.ResizeBilinear(
        images=np.float32(images), size=size, align_corners=align_corners,
        half_pixel_centers=not align_corners and half_pixel_centers is None,
    ).numpy()  # fmt: skip


SIDES = st.integers(1, 12)


@pytest.mark.parametrize("convention", CONVENTIONS)
@hypothesis.given(
    sides=st.tuples(SIDES, SIDES),
    size=st.tuples(SIDES, SIDES),
    fraction_bits=st.integers(0, 10),
    output_share=st.floats(0, 1),
    low=st.integers(-128, 100),
    spread=st.integers(0, 255),
    seed=st.integers(0, 99),
)
def test_integer_bound(convention, sides, size, fraction_bits, output_share, low, spread, seed):
    """No pixel is further from real interpolation than stated."""
    images = np.random.default_rng(seed).integers(low, low + spread + 1, (2, *sides, 3))
    images = images.astype(np.int32)
    options = dict(
        align_corners=convention[0],
        half_pixel_centers=convention[1],
        fraction_bits=fraction_bits,
        output_fraction_bits=int(output_share * min(2 * fraction_bits, 14)),
    )
    inputs = resize.bilinear_inputs(images, size, **options)
    result = resize.bilinear(images, size, **options).numpy()
    assert result.dtype == np.int32
    real, divisor = interpolated(images, size, convention)
    steps = round(1 / inputs.output_scale)
    error = np.abs(divisor * result.astype(np.int64) - steps * real).max() / steps
    assert error <= divisor * inputs.max_error(low, low + spread)
    assert inputs.place_error <= 2.0**-fraction_bits
    weights = [getattr(inputs, n).numpy() for n in inputs.keywords if n.startswith("weight")]
    assert (sum(weights) == 4**fraction_bits).all()
    assert min(w.min() for w in weights) >= 0


@pytest.mark.parametrize("convention", CONVENTIONS)
@hypothesis.given(
    sides=st.tuples(SIDES, SIDES),
    size=st.tuples(SIDES, SIDES),
    scale=st.floats(1e-3, 1e6),
    seed=st.integers(0, 99),
)
def test_float_bound(convention, sides, size, scale, seed):
    """Float images are within what their roundings allow."""
    rng = np.random.default_rng(seed)
    images = (scale * rng.standard_normal((2, *sides, 3))).astype(np.float32)
    options = dict(align_corners=convention[0], half_pixel_centers=convention[1])
    inputs = resize.bilinear_inputs(images, size, **options)
    result = resize.bilinear(images, size, **options).numpy()
    assert result.dtype == np.float32
    bound = inputs.max_error(float(images.min()), float(images.max()))
    real, divisor = interpolated(images, size, convention)
    assert np.abs(divisor * result.astype(np.float64) - real).max() <= divisor * bound


# Sizes whose fractions are quarters or halves, so that float32 has no roundings.
WHOLE = {
    CONVENTIONS[0]: [((5, 7), (5, 7)), ((4, 4), (8, 2)), ((8, 6), (2, 12)), ((3, 5), (6, 10))],
    CONVENTIONS[1]: [((5, 7), (5, 7)), ((3, 5), (9, 17)), ((9, 5), (5, 9)), ((2, 9), (5, 3))],
    CONVENTIONS[2]: [((5, 7), (5, 7)), ((4, 4), (8, 2)), ((8, 6), (2, 12)), ((3, 5), (12, 20))],
}


@pytest.mark.parametrize(
    ("convention", "sides", "size"), [(c, *pair) for c, pairs in WHOLE.items() for pair in pairs]
)
def test_whole_results_are_the_stock_ops(convention, sides, size, assert_bits):
    """Where nothing needs rounding, both forms have the bits of the stock op."""
    options = dict(align_corners=convention[0], half_pixel_centers=convention[1])
    images = 16 * np.random.default_rng(7).integers(-1000, 1000, (2, *sides, 3)).astype(np.int32)
    expected = stock(images, size, convention)
    assert_bits(resize.bilinear(np.float32(images), size, **options), expected)
    assert_bits(resize.bilinear(images, size, **options), expected.astype(np.int32))
    fine = resize.bilinear(images + 1, size, fraction_bits=4, output_fraction_bits=8, **options)
    assert_bits(np.float32(fine) / 256, stock(images + 1, size, convention))


def test_identity_is_exact(assert_bits):
    """The own size changes nothing, in any convention, and no error is stated."""
    image = np.arange(60, dtype=np.uint8).reshape(1, 4, 5, 3)
    for align_corners, half_pixel_centers in CONVENTIONS:
        options = dict(align_corners=align_corners, half_pixel_centers=half_pixel_centers)
        assert_bits(resize.bilinear(image, [4, 5], **options), image.astype(np.int32))
        assert resize.bilinear_inputs(image, [4, 5], **options).max_error(0, 255) == 0


def test_products_are_rounded_singly():
    """Four values of 1 with quarter weights: each quarter rounds to 0, and so does their sum."""
    ones = np.ones([1, 2, 2, 1], np.int32)
    assert resize.bilinear(ones, [1, 1]).numpy().item() == 0
    assert resize.bilinear(ones, [1, 1], output_fraction_bits=2).numpy().item() == 4
    assert resize.bilinear_inputs(ones, [1, 1]).rounded_products == 4


def test_narrow_accumulators_wrap(assert_bits):
    """The accumulator is the op's."""
    image = np.full([1, 2, 2, 1], 200, np.uint8)
    wrapped = resize.bilinear(image, [3, 3], accumulator_size=8)
    assert_bits(wrapped, np.full([1, 3, 3, 1], 200 - 256, np.int32))


def test_unknown_batch_in_a_graph(assert_bits):
    """Only height, width and channels must be known."""
    images = np.random.default_rng(3).integers(0, 256, (3, 6, 5, 2)).astype(np.int32)

    @tf.function(input_signature=[tf.TensorSpec([None, 6, 5, 2], tf.int32)])
    def shrink(x):
        return resize.bilinear(x, [4, 3])

    assert_bits(shrink(images), resize.bilinear(images, [4, 3]).numpy())


def test_low_level_inputs_are_the_ops(assert_bits):
    """The record's keywords are the op's arguments."""
    images = np.random.default_rng(3).integers(0, 256, (1, 6, 5, 2)).astype(np.int32)
    inputs = resize.bilinear_inputs(images, [9, 9])
    result = bitfold.ops.bilinear(**inputs.keywords, bias=3.0)
    assert_bits(result, resize.bilinear(images, [9, 9]).numpy() + np.int32(3))


@pytest.mark.parametrize(
    ("arguments", "what"),
    [
        (dict(images=np.zeros([4, 4, 1], np.int32)), "images must be"),
        (dict(images=np.zeros([1, 0, 4, 1], np.int32)), "images need"),
        (dict(size=4), "size must be"),
        (dict(size=[4, 4, 1]), "size must be"),
        (dict(size=[0, 4]), "size must be at least 1"),
        (dict(align_corners=True, half_pixel_centers=True), "exclude each other"),
        (dict(fraction_bits=15), "fraction_bits must lie"),
        (dict(fraction_bits=-1), "fraction_bits must lie"),
        (dict(output_fraction_bits=17), "output_fraction_bits must lie"),
        (dict(images=np.full([1, 2, 2, 1], 32768, np.int32)), "lower these"),
        (dict(images=np.full([1, 2, 2, 1], -(2**31), np.int32)), "lower these"),
    ],
)
def test_refuses(arguments, what):
    """Arguments without sense are named, with what to do."""
    with pytest.raises(ValueError, match=what):
        resize.bilinear(**{"images": np.zeros([1, 4, 4, 1], np.int32), "size": [2, 2], **arguments})


def test_refuses_types():
    """float64 images and broken sizes."""
    with pytest.raises(TypeError, match="convert it first"):
        resize.bilinear(np.zeros([1, 4, 4, 1]), [2, 2])
    with pytest.raises(TypeError, match="integer"):
        resize.bilinear(np.zeros([1, 4, 4, 1], np.int32), [2.5, 2])


def test_refuses_unknown_sides():
    """In a graph the sides must be known."""

    @tf.function(input_signature=[tf.TensorSpec([1, None, 4, 1], tf.int32)])
    def shrink(x):
        return resize.bilinear(x, [2, 2])

    with pytest.raises(ValueError, match="set_shape"):
        shrink(np.zeros([1, 4, 4, 1], np.int32))
