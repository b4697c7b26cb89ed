# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The sums of each operator with an accumulator, written plainly from the file's stored integers.

An operator is put in the form of a convolution or of a product of matrices here. Strides above 2,
where the ops place SAME windows elsewhere than the model, come with their zeros written out. Who
does the products and sums is a parameter: `PublicOps`, the oracle (`OracleOps`), or exact integers
(`ExactOps`).
"""

from __future__ import annotations

import itertools
from collections.abc import Callable
from typing import Any, NamedTuple, Protocol

import numpy as np
import oracle
from witness import Witness

import bitfold


class Windows(NamedTuple):
    """Where a filter meets an image."""

    strides: tuple[int, int] = (1, 1)
    dilations: tuple[int, int] = (1, 1)
    padding: str = "VALID"


class Ops(Protocol):
    """Who multiplies and adds."""

    def convolve(self, data, filter, windows: Windows, is_depthwise: bool) -> np.ndarray:
        """Convolve; a depthwise filter is [rows, columns, channels, 1]."""

    def add_bias(self, sums, bias) -> np.ndarray:
        """Add a number to each channel."""

    def matmul(self, a, b) -> np.ndarray:
        """Multiply two matrices."""


class PublicOps:
    """`bitfold.ops`, in an arithmetic."""

    def __init__(self, arithmetic: bitfold.Arithmetic) -> None:
        """Take what to compute in."""
        self._keywords, self._type = _datapath(arithmetic)

    def convolve(self, data, filter, windows, is_depthwise):
        """Convolve."""
        function = bitfold.ops.conv2d
        if is_depthwise:
            function = bitfold.ops.depthwise_conv2d
        elif windows.dilations != (1, 1):
            function = bitfold.ops.dilated_conv2d
        data, filter = data.astype(self._type), filter.astype(self._type)
        return function(data, filter, **windows._asdict(), **self._keywords).numpy()

    def add_bias(self, sums, bias):
        """Add a number to each channel."""
        return bitfold.ops.bias_add(sums, _narrowed(bias, self._type), **self._keywords).numpy()

    def matmul(self, a, b):
        """Multiply two matrices."""
        a, b = a.astype(self._type), b.astype(self._type)
        return bitfold.ops.matmul(a, b, **self._keywords).numpy()


class OracleOps:
    """The models of tests/reference, in an arithmetic."""

    def __init__(self, arithmetic: bitfold.Arithmetic, reference: oracle.Reference) -> None:
        """Take what to compute in."""
        self._keywords, self._type = _datapath(arithmetic)
        self._reference = reference

    def convolve(self, data, filter, windows, is_depthwise):
        """Convolve."""
        filter = filter.reshape(*filter.shape[:2], 1, -1) if is_depthwise else filter
        data, filter = data.astype(self._type), filter.astype(self._type)
        arguments = {**windows._asdict(), "is_depthwise": is_depthwise, **self._keywords}
        return self._reference.convolve(data, filter, **arguments)[0]

    def add_bias(self, sums, bias):
        """Add a number to each channel."""
        return self._reference.bias_add(sums, _narrowed(bias, self._type), **self._keywords)[0]

    def matmul(self, a, b):
        """Multiply two matrices."""
        a, b = a.astype(self._type), b.astype(self._type)
        return self._reference.matmul(a, b, **self._keywords)[0]


class ExactOps:
    """Integers of 64 bits; every product and the bias divided by 2^shift, halves to even."""

    def __init__(self, shift: int) -> None:
        """Take what to compute in."""
        self._shift = shift

    def convolve(self, data, filter, windows, is_depthwise):
        """Convolve."""
        strides, dilations, _ = windows
        if windows.padding == "SAME":
            data = _padded(data, filter.shape, windows)
        rows, columns = (
            (n - (k - 1) * d - 1) // s + 1
            for n, k, d, s in zip(data.shape[1:3], filter.shape, dilations, strides, strict=False)
        )
        sums = 0
        for i, j in itertools.product(*map(range, filter.shape[:2])):
            top, left = i * dilations[0], j * dilations[1]
            seen = data[:, top :: strides[0], left :: strides[1]][:, :rows, :columns]
            products = self._shifted(seen[..., None].astype(np.int64) * filter[i, j])
            sums = sums + products.sum(4 if is_depthwise else 3)
        return sums

    def add_bias(self, sums, bias):
        """Add a number to each channel."""
        return sums + self._shifted(bias.astype(np.int64))

    def matmul(self, a, b):
        """Multiply two matrices."""
        return self._shifted(a.astype(np.int64)[:, :, None] * b.astype(np.int64)).sum(1)

    def _shifted(self, values):
        if not self._shift:
            return values
        quotients, rests = values >> self._shift, values & (2**self._shift - 1)
        half = 2 ** (self._shift - 1)
        return quotients + ((rests > half) | ((rests == half) & (quotients % 2 == 1)))


def _datapath(arithmetic: bitfold.Arithmetic) -> tuple[dict, type]:
    """Return the keywords of an op, and the type of the elements."""
    is_half, shift = arithmetic.use_fp16_acc, arithmetic.mult_shift
    size = arithmetic.accumulator_size
    keywords = {
        "accumulator_size": 32 if size is None else size,
        # Of float data the ops take a divisor.
        "mult_shift": 2**shift if is_half else shift,
        "use_fp16_acc": is_half,
    }
    return keywords, np.float32 if is_half else np.int32


def _narrowed(bias: np.ndarray, dtype: type) -> np.ndarray:
    """Return the low 32 bits of a bias."""
    return (bias.astype(np.int64) & 0xFFFFFFFF).astype(np.uint32).view(np.int32).astype(dtype)


def plain_sums(reference: Witness, position: int, known: dict[int, np.ndarray], ops: Ops) -> Any:
    """Return the sums of an operator, before requantisation.

    Args:
        reference: the file.
        position: the operator's.
        known: the stored inputs of the operator by index, images stacked.
        ops: who multiplies and adds.
    """
    kind, inputs, outputs = reference.operators[position]
    values = [known.get(i, reference.constant(i)) if i >= 0 else None for i in inputs]
    # Sums are taken of what stored integers say beside their zero point.
    less = [
        None if x is None else x.astype(np.int64) - reference.zero_point(i)
        for i, x in zip(inputs, values, strict=True)
    ]
    return _FORMS[kind](reference.options(position), less, reference.shape(outputs[0]), ops)


def _with_bias(ops: Ops, sums: np.ndarray, values: list) -> np.ndarray:
    bias = values[2] if len(values) > 2 else None
    return sums if bias is None else ops.add_bias(sums, bias)


def _padded(data, window, windows: Windows) -> np.ndarray:
    """Return images with the zeros around them that SAME means."""
    widths = [(0, 0)]
    sizes = zip(data.shape[1:3], window, windows.strides, windows.dilations, strict=False)
    for n, k, s, d in sizes:
        total = max((-(-n // s) - 1) * s + (k - 1) * d + 1 - n, 0)
        widths.append((total // 2, total - total // 2))
    return np.pad(data, [*widths, (0, 0)])


def _placed(options: dict, data: np.ndarray, window) -> tuple[np.ndarray, Windows]:
    """Return images and windows that lie where the model has them."""
    windows = Windows(
        (options["strideH"], options["strideW"]),
        (options.get("dilationHFactor", 1), options.get("dilationWFactor", 1)),
        "SAME" if options["padding"] == _SAME else "VALID",
    )
    if windows.padding == "SAME" and max(windows.strides) > 2:
        return _padded(data, window, windows), windows._replace(padding="VALID")
    return data, windows


def _convolution(options: dict, values: list, shape, ops: Ops) -> np.ndarray:
    filter = values[1].transpose(1, 2, 3, 0)
    data, windows = _placed(options, values[0], filter.shape)
    parts = data.shape[3] // filter.shape[2]
    pairs = zip(np.split(data, parts, 3), np.split(filter, parts, 3), strict=True)
    sums = [ops.convolve(x, f, windows, False) for x, f in pairs]
    return _with_bias(ops, np.concatenate(sums, 3), values)


def _depthwise(options: dict, values: list, shape, ops: Ops) -> np.ndarray:
    filter = values[1].transpose(1, 2, 3, 0)
    data = np.repeat(values[0], filter.shape[2] // values[0].shape[3], 3)
    data, windows = _placed(options, data, filter.shape)
    return _with_bias(ops, ops.convolve(data, filter, windows, True), values)


def _dense(options: dict, values: list, shape, ops: Ops) -> np.ndarray:
    filter = values[1].T[None, None]
    data = values[0].reshape(-1, 1, 1, filter.shape[2])
    sums = _with_bias(ops, ops.convolve(data, filter, Windows(), False), values)
    leading = values[0].shape[:-1] if options["keepNumDims"] else (len(sums),)
    return sums.reshape(*leading, filter.shape[3])


def _transposed(options: dict, values: list, shape, ops: Ops) -> np.ndarray:
    """The input spread out, the filter turned."""
    strides, padding = (options["strideH"], options["strideW"]), options["padding"]
    filter, data = values[1].transpose(1, 2, 3, 0)[::-1, ::-1], values[2]
    spread = np.zeros(
        [len(data), *((n - 1) * s + 1 for n, s in zip(data.shape[1:3], strides, strict=True)),
         data.shape[3]], np.int64
    )  # fmt: skip
    spread[:, :: strides[0], :: strides[1]] = data
    for axis in (1, 2):
        n, k, out = spread.shape[axis], filter.shape[axis - 1], shape[axis]
        cut = max(n + k - 1 - out, 0) // 2 if padding == _SAME else 0
        widths = [(0, 0)] * 4
        widths[axis] = (k - 1, max(out + cut - n, 0))
        spread = np.pad(spread, widths)
        spread = np.take(spread, range(cut, cut + out + k - 1), axis)
    return _with_bias(ops, ops.convolve(spread, filter, Windows(), False), values[1:])


def _products(options: dict, values: list, shape, ops: Ops) -> np.ndarray:
    a, b = values[:2]
    a = np.swapaxes(a, -1, -2) if options["adjX"] else a
    b = np.swapaxes(b, -1, -2) if options["adjY"] else b
    leading = np.broadcast_shapes(a.shape[:-2], b.shape[:-2])
    a, b = (np.broadcast_to(x, leading + x.shape[-2:]) for x in (a, b))
    pairs = zip(a.reshape(-1, *a.shape[-2:]), b.reshape(-1, *b.shape[-2:]), strict=True)
    sums = np.stack([ops.matmul(x, y) for x, y in pairs])
    return sums.reshape(*leading, *sums.shape[1:])


_SAME = 0  # in the schema
_FORMS: dict[str, Callable[..., np.ndarray]] = {
    "BATCH_MATMUL": _products,
    "CONV_2D": _convolution,
    "DEPTHWISE_CONV_2D": _depthwise,
    "FULLY_CONNECTED": _dense,
    "TRANSPOSE_CONV": _transposed,
}
KINDS = frozenset(_FORMS)
