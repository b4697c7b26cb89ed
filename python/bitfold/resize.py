# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Bilinear resizing of images on ``bitfold.ops.bilinear``.

The op takes the four neighbours of every output pixel and their four weights. ``bilinear`` gathers
both and runs it; ``bilinear_inputs`` only gathers.

Example:
    >>> import bitfold, numpy as np
    >>> from bitfold import resize
    >>> image = np.uint8([[0, 40], [80, 120]]).reshape(1, 2, 2, 1)
    >>> resize.bilinear(image, [2, 4]).numpy()[0, :, :, 0]
    array([[  0,  10,  30,  40],
           [ 80,  90, 110, 120]], dtype=int32)
"""

from __future__ import annotations

import dataclasses
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold._frame.arguments import element_tensor, integer
from bitfold._frame.checks import require

__all__ = ["BilinearInputs", "bilinear", "bilinear_inputs"]

_INT32_MAX = 2**31 - 1
# Roundings of float32 that a weighted value passes: its weight, the product and two sums, and one
# for what they make of each other. The weights add up to 1.
_FLOAT_ERROR = 5 * 2.0**-24
# A stated error that is not 0 also covers the float64 arithmetic that it was computed in.
_HOST_ERROR = 2.0**-46


@dataclass(frozen=True, eq=False)
class BilinearInputs:
    """What `bilinear_inputs` returns: arguments of ``bitfold.ops.bilinear``.

    Attributes:
        upper_left: [N, out_height, out_width, C], the neighbours.
        upper_right: the same shape, like the next two.
        bottom_left: the next row.
        bottom_right: the next row and column.
        weight_upper_left: [out_height, out_width, C], the weights.
        weight_upper_right: the same shape, like the next two.
        weight_bottom_left: the next row's.
        weight_bottom_right: the next row's and column's.
        mult_shift: the shift of the products.
        float_accumulator: whether the op only adds, as it does with float images.
        output_scale: what a step of the result stands for, in steps of the image.
        place_error: how far the fractions of both axes are off together, in pixels of the image.
        rounded_products: how many of the four products the shift may round.
    """

    upper_left: tf.Tensor
    upper_right: tf.Tensor
    bottom_left: tf.Tensor
    bottom_right: tf.Tensor
    weight_upper_left: tf.Tensor
    weight_upper_right: tf.Tensor
    weight_bottom_left: tf.Tensor
    weight_bottom_right: tf.Tensor
    mult_shift: int
    float_accumulator: bool
    output_scale: float
    place_error: float
    rounded_products: int

    @property
    def keywords(self) -> dict[str, Any]:
        """Keyword arguments of ``bitfold.ops.bilinear``."""
        about = ("output_scale", "place_error", "rounded_products")
        names = [field.name for field in dataclasses.fields(self) if field.name not in about]
        return {name: getattr(self, name) for name in names}

    def max_error(self, low: float, high: float) -> float:
        """Bound the error against real bilinear interpolation, as `bilinear` derives it.

        Args:
            low: the smallest value of the image.
            high: the largest one.

        Returns:
            The bound in steps of the image, for an accumulator that holds every sum.
        """
        largest = max(abs(low), abs(high))
        if self.float_accumulator:
            return (_FLOAT_ERROR + _HOST_ERROR) * largest
        error = (high - low) * self.place_error + self.rounded_products * self.output_scale / 2
        return error + _HOST_ERROR * largest if error else 0.0


def bilinear(
    images: Any,
    size: Sequence[int],
    *,
    align_corners: bool = False,
    half_pixel_centers: bool | None = None,
    fraction_bits: int = 8,
    output_fraction_bits: int = 0,
    accumulator_size: int = 32,
    name: str | None = None,
) -> tf.Tensor:
    """Resize images by bilinear interpolation in the accelerator's arithmetic.

    Where an output pixel lies in the image is counted in one of the conventions of the stock op:
    with half-pixel centres (the default, as in ``tf.image.resize``) pixel d lies at
    (d + 1/2) * in / out - 1/2; with aligned corners at d * (in - 1) / (out - 1); with neither at
    d * in / out. Places beyond the edge are drawn back to it.

    Fixed point. For int32 images each axis' fraction is rounded to p = `fraction_bits` bits, and a
    pixel's weights are products of fractions, (2^p - y) * (2^p - x) and so on: whole numbers that
    add up to 2^(2p) exactly. The op shifts each product by 2p - `output_fraction_bits`.

    Error. Rounded fractions move a pixel's place by up to 2^-(p + 1) on each axis, and the
    interpolated value by no more than that times the largest difference of neighbours, at most
    high - low. The op rounds each of the four products singly, by up to half a step of the result,
    where one rounding of the sum would cost half a step in all. With f = `output_fraction_bits`
    the error stays within

        (high - low) * 2^-p + 2 * 2^-f

    steps of the image: up to 3 grey levels for 8-bit images and the defaults. Bits of fraction in
    the result (f > 0) divide the larger part of it. Places that are whole, and factors whose
    fractions p bits hold, are exact. `BilinearInputs.max_error` leaves out what a size does not
    need. Float images are interpolated with real weights: within 5 * 2^-24 of the largest
    magnitude.

    Args:
        images: [N, height, width, C], float32 or int32, not empty; narrower types widen. Height,
            width and channels must be known.
        size: [out_height, out_width].
        align_corners: the corner pixels keep their places.
        half_pixel_centers: by default whatever `align_corners` is not.
        fraction_bits: bits of each axis' fraction, 0 to 14 (int32 images only). The largest value
            times 2^(2 * fraction_bits) must be below 2^31.
        output_fraction_bits: results are in steps of 2^-this, 0 to 2 * fraction_bits (int32 only).
        accumulator_size: the accumulator's width in bits (int32 only): float images are added in
            plain float32.
        name: the node's name.

    Returns:
        A tensor [N, out_height, out_width, C] of the images' element type.

    Raises:
        TypeError: for other element types.
        ValueError: for other ranks, unknown or empty dimensions, sizes below 1, both conventions
            at once, fractions out of range, and values that are too large for the fraction.

    Example:
        >>> import numpy as np
        >>> from bitfold import resize
        >>> image = np.int32([0, 100]).reshape(1, 1, 2, 1)
        >>> resize.bilinear(image, [1, 5], align_corners=True).numpy().ravel()
        array([  0,  25,  50,  75, 100], dtype=int32)
        >>> resize.bilinear(np.float32(image) / 8, [1, 5], align_corners=True).numpy().ravel()
        array([ 0.   ,  3.125,  6.25 ,  9.375, 12.5  ], dtype=float32)
    """
    inputs = bilinear_inputs(
        images,
        size,
        align_corners=align_corners,
        half_pixel_centers=half_pixel_centers,
        fraction_bits=fraction_bits,
        output_fraction_bits=output_fraction_bits,
    )
    return ops.bilinear(**inputs.keywords, accumulator_size=accumulator_size, name=name)


def bilinear_inputs(
    images: Any,
    size: Sequence[int],
    *,
    align_corners: bool = False,
    half_pixel_centers: bool | None = None,
    fraction_bits: int = 8,
    output_fraction_bits: int = 0,
) -> BilinearInputs:
    """Gather the neighbours and weights that `bilinear` gives to the op.

    Args:
        images: as for `bilinear`, like all arguments.
        size: see there.
        align_corners: see there.
        half_pixel_centers: see there.
        fraction_bits: see there.
        output_fraction_bits: see there.

    Returns:
        A `BilinearInputs`.

    Raises:
        TypeError: as for `bilinear`.
        ValueError: as for `bilinear`.

    Example:
        >>> import bitfold, numpy as np
        >>> from bitfold import resize
        >>> image = np.int32([0, 100]).reshape(1, 1, 2, 1)
        >>> inputs = resize.bilinear_inputs(image, [1, 3], fraction_bits=4)
        >>> inputs.weight_upper_right.numpy().ravel()  # in 256ths: places 0, 1/2 and 1
        array([  0, 128,   0], dtype=int32)
        >>> bitfold.ops.bilinear(**inputs.keywords, bias=7.0).numpy().ravel()
        array([  7,  57, 107], dtype=int32)
    """
    tensor = element_tensor(images, "images")
    require(tensor.shape.rank == 4, "images must be [N, height, width, C]", tensor.shape)
    require(
        all(tensor.shape[1:]),
        "images need known height, width and channels, none of them 0 (set_shape gives them)",
        tensor.shape,
    )
    if half_pixel_centers is None:
        half_pixel_centers = not align_corners
    require(
        not (align_corners and half_pixel_centers),
        "align_corners and half_pixel_centers exclude each other; set one of them to False",
        "both",
    )
    require(np.shape(size) == (2,), "size must be [height, width]", size)
    sides = [integer(side, "size") for side in size]
    require(min(sides) >= 1, "size must be at least 1 on each axis", size)

    places = [
        _places(*pair, align_corners, half_pixel_centers)
        for pair in zip(tensor.shape[1:3], sides, strict=True)
    ]
    corners = [
        tf.gather(tf.gather(tensor, rows, axis=1), columns, axis=2)
        for rows in places[0].neighbours
        for columns in places[1].neighbours
    ]
    channels = tensor.shape[3]
    if tensor.dtype == tf.float32:
        weights = _weights([place.fractions for place in places], 1.0)
        return BilinearInputs(
            *corners, *_tensors(weights, channels, np.float32),
            mult_shift=0, float_accumulator=True, output_scale=1.0,
            place_error=0.0, rounded_products=0,
        )  # fmt: skip
    _check_fraction(tensor, fraction_bits, output_fraction_bits)
    whole = 2**fraction_bits
    rounded = [np.rint(place.fractions * whole) for place in places]
    weights = _weights(rounded, whole)
    shift = 2 * fraction_bits - output_fraction_bits
    errors = [abs(r / whole - p.fractions).max() for r, p in zip(rounded, places, strict=True)]
    return BilinearInputs(
        *corners, *_tensors(weights, channels, np.int32),
        mult_shift=shift, float_accumulator=False, output_scale=2.0**-output_fraction_bits,
        place_error=float(sum(errors)),
        rounded_products=int((weights % 2**shift != 0).sum(axis=0).max()),
    )  # fmt: skip


@dataclass(frozen=True, eq=False)
class _Places:
    """Where the output pixels of one axis lie: between which two pixels, and how far in."""

    neighbours: tuple[np.ndarray, np.ndarray]
    fractions: np.ndarray


def _places(count: int, out: int, align_corners: bool, half_pixel_centers: bool) -> _Places:
    """Return the places of `out` pixels along an axis of `count`, from exact quotients."""
    index = np.arange(out, dtype=np.int64)
    if align_corners:
        numerator, denominator = index * (count - 1), max(out - 1, 1)
    elif half_pixel_centers:
        numerator, denominator = (2 * index + 1) * count - out, 2 * out
    else:
        numerator, denominator = index * count, out
    numerator = np.clip(numerator, 0, (count - 1) * denominator)
    lower, rest = np.divmod(numerator, denominator)
    return _Places((lower, np.minimum(lower + 1, count - 1)), rest / denominator)


def _weights(fractions: list[np.ndarray], whole: float) -> np.ndarray:
    """Return the four weights [4, height, width] in the op's order; they add up to whole^2."""
    y, x = fractions[0][:, np.newaxis], fractions[1]
    up, left = whole - y, whole - x
    return np.stack([up * left, up * x, y * left, y * x])


def _tensors(weights: np.ndarray, channels: int, dtype: type) -> list[tf.Tensor]:
    repeated = np.repeat(weights[..., np.newaxis].astype(dtype), channels, axis=-1)
    return [tf.constant(weight) for weight in repeated]


def _check_fraction(tensor: tf.Tensor, bits: int, output_bits: int) -> None:
    """Refuse fractions whose products an int32 does not hold, as far as the values are known."""
    bits = integer(bits, "fraction_bits")
    require(0 <= bits <= 14, "fraction_bits must lie in [0, 14]", bits)
    limit = 2 * bits
    what = f"output_fraction_bits must lie in [0, {limit}], twice fraction_bits"
    require(0 <= integer(output_bits, "output_fraction_bits") <= limit, what, output_bits)
    values = tf.get_static_value(tensor)
    if values is None or not values.size:
        return
    largest = max(int(values.max()), -int(values.min()))
    require(
        largest <= _INT32_MAX >> limit,
        f"values must be at most {_INT32_MAX >> limit} with {bits} fraction_bits; lower these",
        largest,
    )
