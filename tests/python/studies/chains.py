# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What becomes of sums, addend by addend, in Python's integers: the plain definition.

A sum is the list of its addends, in the order in which the accumulator takes them: pairs of a data
element and a weight, and at last, where there is one, the bias.
"""

from __future__ import annotations

import fractions
import itertools
import math
from collections.abc import Iterator, Sequence

import numpy as np
from plain_sums import Windows

import bitfold

Pair = tuple[int, int]


class ChainOps:
    """Lists addends instead of adding them up; see `plain_sums.Ops`."""

    def convolve(self, data, filter, windows: Windows, is_depthwise: bool) -> np.ndarray:
        """Return the pairs of each sum: rows, then input channels, then columns."""
        height, width, inputs = filter.shape[:3]
        outputs = inputs if is_depthwise else filter.shape[3]
        axes = [
            list(_places(size, window, stride, dilation, windows.padding))
            for size, window, stride, dilation in zip(
                data.shape[1:3], (height, width), windows.strides, windows.dilations, strict=True
            )
        ]
        sums = np.empty((len(data), len(axes[0]), len(axes[1]), outputs), object)
        for n, (i, rows), (j, columns), o in itertools.product(
            range(len(data)), enumerate(axes[0]), enumerate(axes[1]), range(outputs)
        ):
            channels = [o] if is_depthwise else range(inputs)
            sums[n, i, j, o] = [
                (int(data[n, y, x, c]), int(filter[kh, kw, c, 0 if is_depthwise else o]))
                for kh, y in rows
                for c in channels
                for kw, x in columns
            ]
        return sums

    def add_bias(self, sums, bias) -> np.ndarray:
        """Append the bias, by itself."""
        result = np.empty(sums.shape, object)
        for place in np.ndindex(sums.shape):
            result[place] = [*sums[place], int(bias.reshape(-1)[place[-1]])]
        return result

    def matmul(self, a, b) -> np.ndarray:
        """Return the pairs of each element."""
        sums = np.empty((len(a), b.shape[1]), object)
        for r, c in np.ndindex(sums.shape):
            sums[r, c] = [(int(x), int(y)) for x, y in zip(a[r], b[:, c], strict=True)]
        return sums


def _places(size, window, stride, dilation, padding) -> Iterator[list[Pair]]:
    """Yield the taps of each window that lie in the image, each with its place."""
    extent = (window - 1) * dilation + 1
    count = -(-size // stride) if padding == "SAME" else (size - extent) // stride + 1
    before = max((count - 1) * stride + extent - size, 0) // 2 if padding == "SAME" else 0
    for i in range(count):
        taps = [(k, i * stride - before + k * dilation) for k in range(window)]
        yield [(k, y) for k, y in taps if 0 <= y < size]


def partial_sums(chain: Sequence, shift: int) -> list[int]:
    """Return the partial sums of full width, without limits."""
    addends = [p if isinstance(p, int) else p[0] * p[1] for p in chain]
    return list(itertools.accumulate(_shifted(p, shift) for p in addends))


def accumulated(chain: Sequence, arithmetic: bitfold.Arithmetic, has_half_weights: bool) -> int:
    """Return what an accumulator holds at the end.

    Args:
        chain: of the addends.
        arithmetic: with a width or in half precision.
        has_half_weights: whether weights are read as numbers of half the width.
    """
    size = 32 if arithmetic.accumulator_size is None else arithmetic.accumulator_size
    total = fractions.Fraction(0) if arithmetic.use_fp16_acc else 0
    for p in chain:
        if isinstance(p, int):
            addend = _wrapped(p, 32)
        else:
            data, weight = p
            most = 2 ** (size // 2 - 1) - 1 if size > 1 else 0
            if has_half_weights and weight > most:
                weight -= 2 * most + 2
            addend = data * weight
        if arithmetic.use_fp16_acc:
            scaled = _shifted(int(np.float32(addend)), arithmetic.mult_shift)
            total = _half(total + _half(fractions.Fraction(scaled)))
        else:
            total = _added(total, _shifted(addend, arithmetic.mult_shift), size)
    assert int(total) == total
    return int(total)


def _added(total: int, addend: int, size: int) -> int:
    """Add in `size` bits: one wrap, a number more than a period outside stays outside."""
    limit = 2 ** (size - 1)
    total = _wrapped(total + addend, 32)
    if total > limit - 1:
        total -= 2 * limit
    elif total < -limit:
        total += 2 * limit
    return total


def _half(x: fractions.Fraction) -> fractions.Fraction:
    """Round as the half-precision accumulator does: down to some bits, then half to even."""
    if x == 0:
        return x
    exponent = math.frexp(abs(float(x)))[1]
    held = max(exponent, 2)
    coarse = math.floor(x * fractions.Fraction(2) ** (18 - held))
    result = fractions.Fraction(round(fractions.Fraction(coarse, 64))) * fractions.Fraction(2) ** (
        held - 12
    )
    if exponent > 15:
        result = -result / 2 ** (exponent - 15)
    return result


def _shifted(p: int, shift: int) -> int:
    """Divide by 2^shift, halves to even."""
    return round(fractions.Fraction(p, 2**shift))


def _wrapped(x: int, bits: int) -> int:
    return (x + 2 ** (bits - 1)) % 2**bits - 2 ** (bits - 1)
