# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""How the bytes of one image become an array."""

from __future__ import annotations

import dataclasses
from collections.abc import Iterable

import keras
import numpy as np
import tensorflow as tf

from bitfold.data.pieces import ArraySpec

_INTERPOLATIONS = {
    method for name, method in vars(tf.image.ResizeMethod).items() if not name.startswith("_")
}


@dataclasses.dataclass(frozen=True)
class EncodedImage:
    """A picture as JPEG, PNG, GIF (its first frame) or BMP, decoded and brought to one size.

    It becomes float32 [height, width, channels], as `keras.utils.image_dataset_from_directory`
    makes it, bit for bit; then pixels of 0 to 255 become `pixel * scale + offset`.

    Attributes:
        size: height and width.
        channels: 1 for grey, 3 for red, green and blue, 4 with opacity.
        interpolation: as in `tf.image.resize`.
        crop_to_aspect_ratio: whether to cut off what is too high or too wide, in equal parts on
            both sides, and not to distort.
        scale: what pixels are multiplied by.
        offset: what is added then.

    Example:
        >>> import bitfold, tensorflow as tf
        >>> image = bitfold.data.EncodedImage((2, 2), scale=1 / 127.5, offset=-1)
        >>> png = tf.io.encode_png(tf.fill([8, 6, 3], tf.constant(255, tf.uint8)))
        >>> image.decode(png.numpy())[0, 0]
        array([1., 1., 1.], dtype=float32)
    """

    size: tuple[int, int]
    channels: int = 3
    interpolation: str = "bilinear"
    crop_to_aspect_ratio: bool = False
    scale: float = 1.0
    offset: float = 0.0

    def __post_init__(self) -> None:
        """Check the numbers.

        Raises:
            ValueError: for sizes, channels or an interpolation that do not exist.
        """
        size = tuple(self.size) if isinstance(self.size, Iterable) else (self.size,)
        if len(size) != 2 or not all(isinstance(n, int) and n > 0 for n in size):
            raise ValueError(f"Need size=(height, width), both above 0, got {self.size!r}")
        if self.channels not in (1, 3, 4):
            raise ValueError(f"Need channels of 1, 3 or 4, got {self.channels!r}")
        if self.interpolation not in _INTERPOLATIONS:
            raise ValueError(
                f"Need an interpolation of {sorted(_INTERPOLATIONS)}, got {self.interpolation!r}"
            )
        object.__setattr__(self, "size", size)

    @property
    def spec(self) -> ArraySpec:
        """What an image becomes."""
        return ArraySpec("float32", (*self.size, self.channels))

    def decode(self, content: bytes) -> np.ndarray:
        """Return the array of an image.

        Raises:
            tf.errors.InvalidArgumentError: for bytes that are no picture.
        """
        image = tf.image.decode_image(content, self.channels, expand_animations=False)
        if self.crop_to_aspect_ratio:
            image = keras.preprocessing.image.smart_resize(image, self.size, self.interpolation)
        else:
            image = tf.image.resize(image, self.size, self.interpolation)
        pixels = np.asarray(image).astype(np.float32)
        return pixels * np.float32(self.scale) + np.float32(self.offset)


@dataclasses.dataclass(frozen=True)
class RawArray:
    """An array as its elements' bytes, the least significant first, in rows.

    Attributes:
        shape: of an image.
        dtype: numpy's name of its elements' type.

    Example:
        >>> import bitfold
        >>> bitfold.data.RawArray((2, 2), "uint8").decode(bytes([1, 2, 3, 4]))
        array([[1, 2],
               [3, 4]], dtype=uint8)
    """

    shape: tuple[int, ...]
    dtype: str = "uint8"

    def __post_init__(self) -> None:
        """Check the type.

        Raises:
            ValueError: for a type that is none of numbers, and sizes below 1.
        """
        dtype = np.dtype(self.dtype)
        if dtype.kind not in "biuf":
            raise ValueError(f"Need a type of numbers, got {self.dtype!r}")
        if not all(isinstance(n, int) and n > 0 for n in self.shape):
            raise ValueError(f"Need a shape of sizes above 0, got {self.shape!r}")
        object.__setattr__(self, "shape", tuple(self.shape))
        object.__setattr__(self, "dtype", dtype.name)

    @property
    def spec(self) -> ArraySpec:
        """What an image becomes."""
        return ArraySpec(self.dtype, self.shape)

    def decode(self, content: bytes) -> np.ndarray:
        """Return the array of an image.

        Raises:
            ValueError: for another number of bytes.
        """
        if len(content) != self.spec.bytes:
            raise ValueError(f"Need {self.spec.bytes} bytes for {self.spec}, got {len(content)}")
        little = np.dtype(self.dtype).newbyteorder("<")
        return np.frombuffer(content, little).reshape(self.shape).astype(self.dtype)
