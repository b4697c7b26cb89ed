# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Files of one operator with an accumulator."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np
import packed
from packed import Case, Tensor

ACTIVATIONS = ("NONE", "RELU", "RELU6", "RELU_N1_TO_1")
# Filters whose multiplier has an exponent of its own: powers of two, above 1, tiny.
_MULTIPLIERS = (2.0**-7, 2.0**-3, 1.0, 2.0, 5.3, 0.9999999, 2.0**-20)


def stored(rng: np.random.Generator, shape, dtype: str, scale: float | None = None) -> Tensor:
    """Return a tensor with a scale and a zero point as they come, ends of the range included."""
    if scale is None:
        scale = float(rng.choice([2.0 ** rng.integers(-9, 2), np.exp(rng.uniform(-7, 1))]))
    if dtype == "int16":
        return packed.tensor(shape, dtype, scale)
    zero_point = rng.choice([-128, 127, 0, *rng.integers(-60, 60, 5)])
    return packed.tensor(shape, dtype, scale, int(zero_point))


def _out_size(size: int, kernel: int, stride: int, dilation: int, padding: str) -> int:
    reach = (kernel - 1) * dilation if padding == "VALID" else 0
    return -(-(size - reach) // stride)


class _Weights:
    """A filter, its bias and the scale of the output, for multipliers of every size."""

    def __init__(self, rng: np.random.Generator, shape: list[int], axis: int, x: Tensor, turn: int):
        channels = shape[axis]
        is_wide = turn % 3 != 2
        # Few different sums, where the multiplier is large.
        most = 127 if is_wide else 1
        data = rng.integers(-most, most, shape, endpoint=True)
        if channels > 1:  # a dead channel, and one at the end of the range
            np.moveaxis(data, axis, 0)[0], np.moveaxis(data, axis, 0)[1] = 0, -most
        per_channel = turn % 4 != 0
        scales = np.exp(rng.uniform(-6, -4, channels if per_channel else 1)).astype(np.float32)
        if turn % 4 == 1:
            scales = np.float32(2.0) ** rng.integers(-10, -7, channels).astype(np.float32)
        axis = axis if per_channel else 0
        self.filter = packed.tensor(shape, "int8", scales, axis=axis, data=data)
        self._channels = channels
        self._spread = np.sqrt(data.size / channels) * (most + 1) * 0.58 * _SPREAD[x.dtype]
        multiplier = _SPREAD[x.dtype] / self._spread
        if not is_wide:
            multiplier = _MULTIPLIERS[turn // 3 % len(_MULTIPLIERS)]
        self._sums = np.float32(x.scales[0]) * scales
        self.out_scale = float(self._sums[0] / multiplier)

    def bias(self, rng: np.random.Generator, dtype: str, turn: int) -> Tensor:
        """Return the bias, in one of seven far wider than the sums."""
        most = int(self._spread * (0.1, 0.5, 2)[turn % 3]) + 1
        if turn % 7 == 6:
            most = 2**30 if dtype == "int32" else 2**45
        data = rng.integers(-most, most, self._channels)
        return packed.tensor([self._channels], dtype, self._sums, data=data)


# The standard deviation of all stored values.
_SPREAD = {"int8": 74, "int16": 18918}


def _bias_type(x: Tensor) -> str:
    return "int32" if x.dtype == "int8" else "int64"


def _windows(rng, turn: int) -> tuple[int, int, int, int, str, int, int, int, int]:
    """Return rows, columns, window, padding, strides and dilations that fit."""
    kernel = rng.integers(1, 5, 2, endpoint=True)
    strides = [1 + turn % 4, 1 + (turn // 2) % 4]
    dilations = rng.integers(1, 3, 2, endpoint=True) if turn % 3 == 0 else np.array([1, 1])
    size = rng.integers(0, 8, 2, endpoint=True) + (kernel - 1) * dilations + 1
    padding = ("SAME", "VALID")[turn // 4 % 2]
    return (*map(int, (*size, *kernel)), padding, *strides, *map(int, dilations))


def _window_options(padding, strides, dilations, activation) -> dict:
    return {
        "padding": padding,
        "stride_h": strides[0],
        "stride_w": strides[1],
        "dilation_h_factor": dilations[0],
        "dilation_w_factor": dilations[1],
        "fused_activation_function": activation,
    }


def conv_2d(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Windows, strides, dilations, both paddings; filters of one scale and of many; groups."""
    for turn in range(24):
        rows, columns, kr, kc, padding, sr, sc, dr, dc = _windows(rng, turn)
        depth, channels = int(rng.choice([1, 3, 4, 17])), int(rng.choice([1, 2, 5, 16]))
        groups = 1
        if turn % 8 == 7:
            groups, channels = 3, 6
        x = stored(rng, [1, rows, columns, depth * groups], dtype)
        weights = _Weights(rng, [channels, kr, kc, depth], 0, x, turn)
        out = [
            1,
            _out_size(rows, kr, sr, dr, padding),
            _out_size(columns, kc, sc, dc, padding),
            channels,
        ]
        yield packed.operator(
            "CONV_2D",
            [x, weights.filter, weights.bias(rng, _bias_type(x), turn)],
            [stored(rng, out, dtype, weights.out_scale)],
            _window_options(padding, (sr, sc), (dr, dc), ACTIVATIONS[turn % 4]),
        )


def depthwise_conv_2d(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """The same with one filter or several for each channel."""
    for turn in range(24):
        rows, columns, kr, kc, padding, sr, sc, dr, dc = _windows(rng, turn)
        depth, multiplier = int(rng.choice([1, 2, 5, 16])), 1 + turn % 3
        x = stored(rng, [1, rows, columns, depth], dtype)
        weights = _Weights(rng, [1, kr, kc, depth * multiplier], 3, x, turn)
        out = [1, _out_size(rows, kr, sr, dr, padding), _out_size(columns, kc, sc, dc, padding)]
        options = _window_options(padding, (sr, sc), (dr, dc), ACTIVATIONS[turn % 4])
        yield packed.operator(
            "DEPTHWISE_CONV_2D",
            [x, weights.filter, weights.bias(rng, _bias_type(x), turn)],
            [stored(rng, [*out, depth * multiplier], dtype, weights.out_scale)],
            options | {"depth_multiplier": multiplier},
        )


def fully_connected(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Ranks 2 to 4, with dimensions kept or flattened."""
    for turn in range(20):
        depth, channels = int(rng.choice([1, 7, 32])), int(rng.choice([1, 3, 16]))
        leading = [[1], [1], [1, 3], [1, 2, 3]][turn % 4]
        keep = turn % 4 == 2 or (turn % 4 == 3 and turn % 8 == 7)
        inner = int(np.prod(leading[1:])) if turn % 4 == 3 and not keep else 1
        out = [*leading, channels] if keep else [1, channels]
        x = stored(rng, [*leading, depth], dtype)
        weights = _Weights(rng, [channels, depth * inner], 0, x, turn)
        bias = None if turn % 5 == 4 else weights.bias(rng, _bias_type(x), turn)
        yield packed.operator(
            "FULLY_CONNECTED",
            [x, weights.filter, bias],
            [stored(rng, out, dtype, weights.out_scale)],
            {"keep_num_dims": keep, "fused_activation_function": ACTIVATIONS[turn % 4]},
        )


def transpose_conv(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Strides 1 to 3, both paddings, outputs that are no multiple of the input."""
    for turn in range(16):
        size, kernel = rng.integers(1, 5, 2, endpoint=True), rng.integers(1, 4, 2, endpoint=True)
        strides = np.array([1 + turn % 3, 1 + turn // 2 % 3])
        padding = ("SAME", "VALID")[turn % 2]
        out = (size - 1) * strides + 1 if turn % 4 == 2 else size * strides
        if padding == "VALID":
            out = (size - 1) * strides + kernel
        depth, channels = int(rng.choice([1, 3, 8])), int(rng.choice([1, 2, 5]))
        x = stored(rng, [1, *map(int, size), depth], dtype)
        weights = _Weights(rng, [channels, *map(int, kernel), depth], 0, x, turn)
        shape = [1, *map(int, out), channels]
        bias = [] if turn % 5 == 4 else [weights.bias(rng, _bias_type(x), turn)]
        yield packed.operator(
            "TRANSPOSE_CONV",
            [packed.constant(shape), weights.filter, x, *bias],
            [stored(rng, shape, dtype, weights.out_scale)],
            {
                "padding": padding,
                "stride_h": int(strides[0]),
                "stride_w": int(strides[1]),
                "fused_activation_function": ACTIVATIONS[turn % 4],
            },
        )


def batch_matmul(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Transposes of each operand, leading dimensions that repeat, constants."""
    leadings = [([1], [1]), ([1, 3], [1, 3]), ([1, 1], [1, 3]), ([1, 2, 3], [1, 2, 1])]
    for turn in range(16):
        rows, inner, columns = map(int, rng.integers(1, 7, 3, endpoint=True))
        first, second = leadings[turn % 4]
        if turn % 4 == 3 and turn & 4:  # where the runtime leaves results unwritten
            second = first
        out = np.maximum(first, second).tolist()
        adj_x, adj_y = bool(turn & 4), bool(turn & 8)
        if adj_x and first[-1] > second[-1]:
            second = first  # the interpreter leaves all results but the first unwritten
        a = stored(rng, first + ([inner, rows] if adj_x else [rows, inner]), dtype)
        b = stored(rng, second + ([columns, inner] if adj_y else [inner, columns]), dtype)
        if turn % 5 == 3 and dtype == "int8":
            data = rng.integers(-128, 127, b.shape, endpoint=True)
            b = packed.tensor(b.shape, dtype, b.scales[0], b.zero_points[0], data=data)
        spread = np.sqrt(inner) * _SPREAD[dtype]
        multiplier = (1 / spread, 2.0**-6, 2.0, 0.3 / spread)[turn // 4 % 4]
        scale = float(np.float32(a.scales[0]) * np.float64(np.float32(b.scales[0])) / multiplier)
        yield packed.operator(
            "BATCH_MATMUL",
            [a, b],
            [stored(rng, [*out, rows, columns], dtype, scale)],
            {"adj_x": adj_x, "adj_y": adj_y},
        )


CASES = {
    "BATCH_MATMUL": batch_matmul,
    "CONV_2D": conv_2d,
    "DEPTHWISE_CONV_2D": depthwise_conv_2d,
    "FULLY_CONNECTED": fully_connected,
    "TRANSPOSE_CONV": transpose_conv,
}
