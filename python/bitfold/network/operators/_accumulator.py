# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The sums of a layer, in whatever its arithmetic is, by the public ops one after the other."""

from __future__ import annotations

from collections.abc import Callable, Sequence

import numpy as np
import tensorflow as tf

from bitfold import ops
from bitfold.network.arithmetic import Arithmetic

# From data, weights and the keywords of a datapath to sums; data and weights of one type.
SumOfProducts = Callable[..., tf.Tensor]

_LARGEST = 2**31 - 1


def datapath(arithmetic: Arithmetic) -> dict:
    """Return the keywords that make a public op compute in an arithmetic.

    An integer op takes the shift itself, a float op the divisor.
    """
    shift = arithmetic.mult_shift
    return dict(
        accumulator_size=32 if arithmetic.accumulator_size is None else arithmetic.accumulator_size,
        mult_shift=2**shift if arithmetic.use_fp16_acc and shift else shift,
        use_fp16_acc=arithmetic.use_fp16_acc,
    )


def element_type(arithmetic: Arithmetic) -> tf.DType:
    """Return the type whose ops an arithmetic is computed by: half precision has float ones."""
    return tf.float32 if arithmetic.use_fp16_acc else tf.int32


def narrowed(bias: np.ndarray) -> np.ndarray:
    """Return a bias as int32, the low bits of a wider one."""
    return bias.astype(np.int64).astype(np.uint32).view(np.int32)


class Accumulator:
    """Adds up a layer's products and its bias.

    Sums of a 64-bit bias are exact only in 64 bits. They are then formed of sums over groups of
    input channels, so few to a group that none can leave 32 bits, whatever the data.
    """

    def __init__(
        self,
        product: SumOfProducts,
        weights: np.ndarray,
        bias: np.ndarray | None,
        arithmetic: Arithmetic,
        groups: Sequence[slice] | None = None,
        of_group: Callable[[tf.Tensor, slice], tf.Tensor] | None = None,
    ) -> None:
        """Make it.

        Args:
            product: data, weights and a datapath's keywords to sums [N, H, W, outputs].
            weights: int [..., inputs, outputs], as `product` takes them.
            bias: [outputs] or None.
            arithmetic: the layer's.
            groups: for exact sums in 64 bits the weights' inputs of each group; else None.
            of_group: data and a group to the data of that group.
        """
        self._product = product
        self._bias = bias
        self._keywords = datapath(arithmetic)
        self._type = element_type(arithmetic)
        self._shift = arithmetic.mult_shift
        self._groups = groups
        self._of_group = of_group
        self._weights = weights.astype(self._type.as_numpy_dtype)

    def __call__(self, data: tf.Tensor) -> tf.Tensor:
        """Return the sums of stored data less its zero point, [N, H, W, inputs]."""
        if self._groups is not None:
            return self._in_64_bits(data)
        sums = self._product(tf.cast(data, self._type), self._weights, **self._keywords)
        if self._bias is None:
            return sums
        bias = narrowed(self._bias).astype(self._type.as_numpy_dtype)
        return ops.bias_add(sums, bias, **self._keywords)

    def _in_64_bits(self, data: tf.Tensor) -> tf.Tensor:
        total = None
        for group in self._groups:
            weights = self._weights[..., group, :]
            part = self._product(self._of_group(data, group), weights, **self._keywords)
            part = tf.cast(part, tf.int64)
            total = part if total is None else total + part
        return total if self._bias is None else total + shifted(self._bias, self._shift)


def shifted(bias: np.ndarray, shift: int) -> np.ndarray:
    """Return an int64 bias divided by 2^shift, halves to even."""
    bias = bias.astype(np.int64)
    if not shift:
        return bias
    quotient, rest = bias >> shift, bias & ((1 << shift) - 1)
    half = 1 << (shift - 1)
    return quotient + ((rest > half) | ((rest == half) & (quotient & 1 == 1)))


def largest_sums(weights: np.ndarray, magnitude: int, shift: int) -> np.ndarray:
    """Bound the sums that each input channel gives each output, [inputs, outputs].

    Args:
        weights: [taps..., inputs, outputs].
        magnitude: of the largest data.
        shift: of every product; its rounding adds at most a half.
    """
    products = np.abs(weights.astype(np.int64)) * magnitude
    bounds = -(-products >> shift)  # rounded up
    return bounds.reshape(-1, *weights.shape[-2:]).sum(axis=0)


def exact_groups(weights: np.ndarray, magnitude: int, shift: int) -> list[slice] | None:
    """Split input channels into groups whose sums stay within 32 bits.

    Args:
        weights: [taps..., inputs, outputs].
        magnitude: of the largest data.
        shift: of every product.

    Returns:
        Slices that follow one another; None where one channel alone can leave 32 bits.
    """
    bounds = largest_sums(weights, magnitude, shift)
    if bounds.size and bounds.max() > _LARGEST:
        return None
    groups, first = [], 0
    total = np.zeros(bounds.shape[1], np.int64)
    for channel, bound in enumerate(bounds):
        if (total + bound > _LARGEST).any():
            groups.append(slice(first, channel))
            first, total = channel, np.zeros_like(total)
        total = total + bound
    return [*groups, slice(first, len(bounds))]
