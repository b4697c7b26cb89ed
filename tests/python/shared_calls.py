# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Calls that are large enough to be shared out, on so many threads of the runtime's pool.

    python shared_calls.py THREADS FILE

writes their outputs to an .npz file and, under its name, the lines that each prints.
"""

from __future__ import annotations

import ctypes
import sys
from collections.abc import Callable

import numpy as np
import raw
import tensorflow as tf

import units

SHAPE = (1, 96, 96, 64)
LIMIT = 8388607  # sums from there on are reported


def _random() -> np.random.Generator:
    return np.random.default_rng(2026)


def _whole(shape: tuple[int, ...], dtype: type, low: int = -128, high: int = 127) -> np.ndarray:
    return _random().integers(low, high, shape).astype(dtype)


def _sparse(shape: tuple[int, ...], value: float) -> np.ndarray:
    """Return whole floats, `value` at some places far from and next to one another."""
    x = _whole(shape, np.float32)
    flat = x.reshape(-1)
    for at in (0, 1, flat.size // 3, flat.size // 2, flat.size - 2, flat.size - 1):
        flat[at] = value + at % 7
    return x


def _boxes(decode: Callable[..., tf.Tensor], constants: int, dtype: type) -> tf.Tensor:
    rows, columns, anchors = 50, 60, 9
    shape = (2, rows, columns, 2 * anchors)
    x = _whole(shape, dtype) if dtype is np.int32 else _sparse(shape, LIMIT)
    inputs = [x, _whole(shape, dtype), _whole((rows, 2 * anchors), dtype)]
    inputs += [_whole((columns, 2 * anchors), dtype), *[np.ones(anchors, dtype)] * constants]
    return decode(*inputs, accumulator_size=30)


def _resized(dtype: type, *, float_accumulator: bool) -> tf.Tensor:
    items, size = 3, 60000
    neighbours = [_whole((items, size), dtype) for _ in range(4)]
    if dtype is np.float32:
        neighbours[2] = _sparse((items, size), 1e6)
    weights = [_whole((size,), dtype, 0, 100) for _ in range(4)]
    return raw.bilinear(
        *neighbours, *weights, accumulator_size=26, float_accumulator=float_accumulator
    )


def _normalised() -> tf.Tensor:
    channels = 96
    x = _whole((2, 40, 40, channels), np.float32)
    scalars = units.plain_scalars(channels) | {"x_squared_mult": 1}
    x[0, 0, 0, 3] = x[1, 39, 39, 5] = -np.inf  # vectors for the definition
    return units.layer_norm(x, units.plain_lut(), **scalars)


def _softmax(*, is_velquin: bool) -> tf.Tensor:
    x = _whole((600, 300), np.float32, -200, 0)
    x[::50] = 1  # equal elements, whose sum overflows
    return units.softmax(x, units.plain_softmax_table(), is_velquin=is_velquin)


def _activated(size_splits: list[int]) -> tf.Tensor:
    groups = len(size_splits)
    pieces = (groups, 8)
    tables = {
        "x_points": np.sort(_whole((groups, 7), np.int64)),
        "offsets": _whole(pieces, np.int64),
        "slopes_m": _whole(pieces, np.int64),
        "slopes_e": _whole(pieces, np.int64, 0, 20),
    }
    return units.activation(_whole(SHAPE, np.int64), tables, np.array(size_splits, np.int64))


def _suppressed() -> tf.Tensor:
    classes, boxes = 20, 600
    corners = _random().integers(0, 60, (2, classes * boxes, 2)).astype(np.float32)
    sizes = np.full((2, classes * boxes, 2), 20, np.float32)
    scores = _random().random((2, classes * boxes, 1), np.float32)
    value = np.concatenate([corners, corners + sizes, scores], axis=-1)[..., None]
    return raw.nms(value, 0.1, iou_threshold=0.5, max_output_size=50, classes=classes)


def _long_feed() -> tf.Tensor:
    """More passes than are made: some elements leave the range in a late one."""
    value = _whole((1, 3000), np.float32)
    value[0, [5, 6, 1500, 2999]] = LIMIT - np.arange(3, 7)
    return raw.add(value, np.ones_like(value), feed_repeat=2.0**18, accumulator_size=24)


# Those that print have lines in their names.
CASES: dict[str, Callable[[], tf.Tensor]] = {
    "add": lambda: raw.add(
        _whole(SHAPE, np.int32), _whole(SHAPE, np.int32), feed_repeat=3.0, accumulator_size=9
    ),
    "add, lines": lambda: raw.add(_sparse(SHAPE, LIMIT), _whole(SHAPE, np.float32)),
    "add in half precision, lines": lambda: raw.add(
        _sparse(SHAPE, np.inf), _whole(SHAPE, np.float32), use_fp16_acc=True
    ),
    "long feed, lines": _long_feed,
    "long feed of integers": lambda: raw.add(
        _whole(SHAPE, np.int32), _whole(SHAPE, np.int32), feed_repeat=1e6, accumulator_size=9
    ),
    "bias, lines": lambda: raw.bias_add(_sparse(SHAPE, LIMIT), _whole((64,), np.float32)),
    "bias in two parts, lines": lambda: raw.decomposed_bias_add(
        _sparse(SHAPE, LIMIT), _whole((64,), np.float32), _whole((64,), np.float32)
    ),
    "weighted add, lines": lambda: raw.weighted_add(
        _sparse(SHAPE, LIMIT), _whole(SHAPE, np.float32), np.ones(128, np.float32)
    ),
    "bilinear": lambda: _resized(np.int32, float_accumulator=False),
    "bilinear, lines": lambda: _resized(np.float32, float_accumulator=False),
    "bilinear, float mode": lambda: _resized(np.float32, float_accumulator=True),
    "boxes": lambda: _boxes(raw.decode_boxes, 6, np.int32),
    "boxes, lines": lambda: _boxes(raw.decode_boxes, 6, np.float32),
    "boxes of one product, lines": lambda: _boxes(raw.decode_boxes_single_weight, 4, np.float32),
    "softmax, lines": lambda: _softmax(is_velquin=False),
    "softmax": lambda: _softmax(is_velquin=True),
    "layer normalisation": _normalised,
    "activation": lambda: _activated([64]),
    "activation, groups": lambda: _activated([1, 3] * 16),
    "suppression": _suppressed,
}


def main() -> None:
    """Run every case."""
    threads, file = sys.argv[1:]
    tf.config.threading.set_intra_op_parallelism_threads(int(threads))
    outputs = {}
    for name, call in CASES.items():
        print(f"# {name}", flush=True)
        outputs[name] = call().numpy()
        ctypes.CDLL(None).fflush(None)
    np.savez(file, **outputs)


if __name__ == "__main__":
    main()
