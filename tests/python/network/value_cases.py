# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Files of one operator that computes new values without an accumulator of the accelerator."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import numpy as np
import packed
from packed import Case
from sum_cases import ACTIVATIONS, stored

_EVERY = [1, 300]  # room for all values of a byte
_SHAPES = (
    ([1, 4, 5, 7], [1, 4, 5, 7]),
    ([1, 4, 5, 7], [1, 1, 1, 7]),
    ([1, 1, 5, 1], [1, 4, 5, 7]),
    ([1, 4, 5, 7], [7]),
    ([1, 300], [1, 300]),
    ([1, 5, 9], [1, 5, 1]),
    ([1, 300], []),
    ([1, 3, 1, 7], [1, 1, 5, 1]),
    ([1, 2, 3, 2, 5], [1, 2, 3, 2, 5]),
)


def _scales(rng: np.random.Generator, turn: int, ends: tuple[float, float]) -> float:
    """Return a scale; a power of two in one of three."""
    low, high = np.log(ends)
    scale = np.exp(rng.uniform(low, high))
    return float(2.0 ** np.round(np.log2(scale))) if turn % 3 == 0 else float(np.float32(scale))


def _two(kind: str, most: int = 9) -> Callable:
    """Return the cases of an operator on two tensors."""

    def cases(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
        """Shapes that repeat, constants, a tensor with itself, fused activations."""
        for turn in range(2 * most):
            first, second = _SHAPES[turn % most]
            a = stored(rng, first, dtype, _scales(rng, turn, (0.004, 1)))
            b = stored(rng, second, dtype, _scales(rng, turn + turn % 2, (0.004, 1)))
            if turn % 4 == 1 or not second or len(second) == 1:
                data = packed.stored_values_of(rng, b, 1)
                b = packed.tensor(second, dtype, b.scales[0], b.zero_points[0], data=data)
            pair = [b, a] if turn % 5 == 4 else [a, b]
            if turn == 9:
                pair = [a, a]
            out = np.broadcast_shapes(*(t.shape for t in pair))
            options = {}
            if kind != "SQUARED_DIFFERENCE":
                options["fused_activation_function"] = ACTIVATIONS[turn // 2 % 4]
            size = max(a.scales[0], b.scales[0])
            if kind in ("MUL", "SQUARED_DIFFERENCE"):
                size = a.scales[0] * b.scales[0] * (64 if dtype == "int8" else 8192)
            scale = size * float(rng.choice([0.5, 1, 1.7, 2, 0.01]))
            if turn % 3 == 0:
                scale = float(2.0 ** np.round(np.log2(scale)))
            if kind in ("ADD", "SUB"):
                # Sums of 16 bits have a form by shifts alone, for powers of two.
                # Those have no form for shapes that repeat.
                by_shifts = turn % 6 == 0 and a.shape == b.shape
                options["pot_scale_int16"] = by_shifts or turn % 3 != 0
                scale = size if by_shifts else scale
            yield packed.operator(kind, pair, [stored(rng, out, dtype, scale)], options)

    return cases


def _extremes(kind: str) -> Callable:
    """Return the cases of MAXIMUM and MINIMUM, whose tensors share scale and zero point."""

    def cases(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
        """Shapes that repeat, constants."""
        for turn, (first, second) in enumerate(_SHAPES):
            a = stored(rng, first, dtype)
            same = {"scale": a.scales[0], "zero_point": a.zero_points[0]}
            b = packed.tensor(second, dtype, **same)
            if turn % 2 or not second or len(second) == 1:
                data = packed.stored_values_of(rng, b, 1)
                b = packed.tensor(second, dtype, **same, data=data)
            out = packed.tensor(np.broadcast_shapes(a.shape, b.shape), dtype, **same)
            yield packed.operator(kind, [a, b], [out])

    return cases


def _one(kind: str, options: dict | None = None, output: Callable | None = None) -> Callable:
    """Return the cases of a function of one value."""

    def cases(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
        """Scales over ten powers of two, zero points at the ends."""
        for turn in range(8):
            x = stored(rng, _EVERY, dtype, _scales(rng, turn, (0.0005, 0.5)))
            out = stored(rng, _EVERY, dtype, x.scales[0] * float(rng.choice([1, 0.5, 1.3])))
            if output is not None:
                out = packed.tensor(_EVERY, dtype, *output(dtype))
            yield packed.operator(kind, [x], [out], options)

    return cases


def _unit(dtype: str) -> tuple[float, int]:
    return (1 / 256, -128) if dtype == "int8" else (1 / 32768, 0)


def _signed_unit(dtype: str) -> tuple[float, int]:
    return (1 / 128, 0) if dtype == "int8" else (1 / 32768, 0)


def softmax(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Ranks 1 to 4 of the last dimension, steepness, flat and steep scales."""
    shapes = ([1, 40], [1, 3, 7], [1, 2, 3, 11], [1, 1], [1, 300], [1, 5, 2])
    for turn, shape in enumerate(shapes * 2):
        x = stored(rng, shape, dtype, _scales(rng, turn, (0.0005, 0.5)))
        beta = (1.0, 0.3, 2.0)[turn % 3]
        yield packed.operator(
            "SOFTMAX", [x], [packed.tensor(shape, dtype, *_unit(dtype))], {"beta": beta}
        )


def leaky_relu(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Slopes below 0, of 0, and above 1."""
    for alpha in (0.01, 0.3, 0.0, 1.0, 2.5, -0.4):
        x = stored(rng, _EVERY, dtype)
        out = stored(rng, _EVERY, dtype, x.scales[0] * float(rng.choice([1, 0.7, 2])))
        yield packed.operator("LEAKY_RELU", [x], [out], {"alpha": alpha})


def prelu(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """A slope for each channel, for each element, for all."""
    for turn, shape in enumerate(([1, 1, 7], [4, 5, 7], [1, 1, 1], [1, 4, 5, 7], [4, 1, 1])):
        x = stored(rng, [1, 4, 5, 7], dtype)
        # Slopes have 8 bits, whatever the data.
        slope = stored(rng, shape, "int8", (0.01, 2.0**-7, 0.05)[turn % 3])
        data = packed.stored_values_of(rng, slope, 1)
        slope = packed.tensor(shape, "int8", slope.scales[0], slope.zero_points[0], data=data)
        out = stored(rng, [1, 4, 5, 7], dtype, x.scales[0] * (1.0, 0.6)[turn % 2])
        yield packed.operator("PRELU", [x, slope], [out])


def rsqrt(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """All that is above zero."""
    for turn in range(6):
        scale, zero = _scales(rng, turn, (0.0005, 0.5)), 0 if dtype == "int16" else -128
        x = packed.tensor(_EVERY, dtype, scale, zero)
        data = packed.stored_values_of(rng, x, 2).astype(np.int64)
        data = np.maximum(data, zero + 1).astype(dtype)
        most = np.iinfo(dtype).max
        size = float(rng.choice([0.1, 0.5, 1])) / (np.sqrt(scale) * most)
        out = stored(rng, _EVERY, dtype, size)
        yield packed.operator("RSQRT", [x], [out], data=(data,))


def neg(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Zero points at the ends."""
    for _ in range(4):
        x = stored(rng, _EVERY, dtype)
        same = {"scale": x.scales[0], "zero_point": x.zero_points[0]}
        yield packed.operator("NEG", [x], [packed.tensor(_EVERY, dtype, **same)])


def _pool(kind: str) -> Callable:
    def cases(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
        """Windows, strides 1 to 4, both paddings, fused activations."""
        for turn in range(16):
            window = rng.integers(1, 5, 2, endpoint=True)
            strides = np.array([1 + turn % 4, 1 + turn // 2 % 4])
            size, padding = rng.integers(0, 8, 2) + window, ("SAME", "VALID")[turn // 4 % 2]
            reach = window - 1 if padding == "VALID" else 0 * window
            out = -(-(size - reach) // strides)
            x = stored(rng, [1, *map(int, size), int(rng.choice([1, 3, 16]))], dtype)
            same = {"scale": x.scales[0], "zero_point": x.zero_points[0]}
            yield packed.operator(
                kind,
                [x],
                [packed.tensor([1, *map(int, out), x.shape[3]], dtype, **same)],
                {
                    "padding": padding,
                    "stride_h": int(strides[0]),
                    "stride_w": int(strides[1]),
                    "filter_height": int(window[0]),
                    "filter_width": int(window[1]),
                    "fused_activation_function": ACTIVATIONS[turn % 4],
                },
            )

    return cases


def _reduction(kind: str) -> Callable:
    def cases(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
        """Axes in every order, negative ones, one twice, a scalar; dimensions kept or not."""
        shape = [1, 4, 5, 6]
        for turn, axes in enumerate(
            ([1, 2], [2, 1], [-1], [1], [3, 1], [-3, 2], [1, 2, 3], [2, 2], 3)
        ):
            for keep in (False, True):
                reduced = {a % 4 for a in np.atleast_1d(axes).tolist()}
                out = [1 if i in reduced else n for i, n in enumerate(shape)]
                if not keep:
                    out = [n for i, n in enumerate(shape) if i not in reduced]
                x = stored(rng, shape, dtype)
                scale = x.scales[0] * (1.0, 0.4, 3.0)[turn % 3]
                result = stored(rng, out, dtype, scale)
                if turn % 3 == 0:  # the form in which nothing is scaled
                    result = packed.tensor(out, dtype, x.scales[0], x.zero_points[0])
                yield packed.operator(
                    kind, [x, packed.constant(axes)], [result], {"keep_dims": keep}
                )

    return cases


def quantize(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """From floats, halves among them, and from other scales and types."""
    for turn in range(4):
        out = stored(rng, _EVERY, dtype, _scales(rng, turn, (0.01, 1)))
        halves = (rng.integers(-400, 400, [2, 300]) * 0.5 * out.scales[0]).astype(np.float32)
        floats = np.where(rng.random([2, 300]) < 0.5, halves, rng.normal(0, 40, [2, 300]))
        floats[0, :4] = [1e6, -1e6, 0.0, -0.0]
        data = (floats.astype(np.float32),)
        yield packed.operator("QUANTIZE", [packed.tensor(_EVERY, "float32")], [out], data=data)
    for _ in range(8):
        x = stored(rng, _EVERY, dtype)
        factor = float(rng.choice([1, 0.5, 0.7, 2, 3.3, 2.0**-9]))
        yield packed.operator("QUANTIZE", [x], [stored(rng, _EVERY, dtype, x.scales[0] * factor)])
        if dtype == "int16":
            out = stored(rng, _EVERY, "int8", x.scales[0] * 256 * factor)
            yield packed.operator("QUANTIZE", [x], [out])


def dequantize(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Scales of every size."""
    for _ in range(4):
        yield packed.operator(
            "DEQUANTIZE", [stored(rng, _EVERY, dtype)], [packed.tensor(_EVERY, "float32")]
        )


def _resize(kind: str) -> Callable:
    def cases(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
        """Up and down, to one and from one, the three ways to lay the grid."""
        sizes = (
            [3, 4, 7, 5],
            [8, 6, 3, 11],
            [1, 1, 4, 3],
            [5, 7, 1, 1],
            [4, 4, 8, 8],
            [5, 5, 5, 5],
        )
        for rows, columns, *size in sizes:
            for flags in ({}, {"align_corners": True}, {"half_pixel_centers": True}):
                x = stored(rng, [1, rows, columns, 3], dtype)
                same = {"scale": x.scales[0], "zero_point": x.zero_points[0]}
                out = packed.tensor([1, *size, 3], dtype, **same)
                yield packed.operator(kind, [x, packed.constant(size)], [out], flags)

    return cases


CASES: dict[str, Callable[[str, np.random.Generator], Iterator[Case]]] = {
    "ADD": _two("ADD"),
    "SUB": _two("SUB"),
    "MUL": _two("MUL"),
    "SQUARED_DIFFERENCE": _two("SQUARED_DIFFERENCE", 8),
    "MAXIMUM": _extremes("MAXIMUM"),
    "MINIMUM": _extremes("MINIMUM"),
    "AVERAGE_POOL_2D": _pool("AVERAGE_POOL_2D"),
    "MAX_POOL_2D": _pool("MAX_POOL_2D"),
    "MEAN": _reduction("MEAN"),
    "SUM": _reduction("SUM"),
    "QUANTIZE": quantize,
    "DEQUANTIZE": dequantize,
    "SOFTMAX": softmax,
    "LOGISTIC": _one("LOGISTIC", output=_unit),
    "TANH": _one("TANH", output=_signed_unit),
    "HARD_SWISH": _one("HARD_SWISH"),
    "GELU": lambda *a: (c for f in (True, False) for c in _one("GELU", {"approximate": f})(*a)),
    "RELU": _one("RELU"),
    "RELU6": _one("RELU6"),
    "RELU_N1_TO_1": _one("RELU_N1_TO_1"),
    "LEAKY_RELU": leaky_relu,
    "PRELU": prelu,
    "RSQRT": rsqrt,
    "NEG": neg,
    "RESIZE_BILINEAR": _resize("RESIZE_BILINEAR"),
    "RESIZE_NEAREST_NEIGHBOR": _resize("RESIZE_NEAREST_NEIGHBOR"),
}
