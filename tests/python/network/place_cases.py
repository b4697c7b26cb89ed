# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Files of one operator that moves elements, and of the arithmetic on shapes."""

from __future__ import annotations

from collections.abc import Callable, Iterator

import numpy as np
import packed
from packed import Case, Tensor
from sum_cases import stored


def _like(x: Tensor, shape) -> Tensor:
    """Return a tensor with the scale and zero point of another."""
    return packed.tensor([int(n) for n in shape], x.dtype, x.scales[0], x.zero_points[0])


def _paddings(kind: str) -> Callable:
    def cases(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
        """Every dimension of an image, none, and 64-bit sizes."""
        for turn, shape in enumerate(
            ([1, 7], [1, 5, 3], [1, 4, 5, 3], [1, 3, 2, 4], [1, 3, 2, 2, 3])
        ):
            if kind != "MIRROR_PAD" and len(shape) > 4:
                continue
            sizes = [[0, 0], *rng.integers(0, 3, (len(shape) - 1, 2)).tolist()]
            if kind == "MIRROR_PAD":
                sizes = [
                    [min(n, size - 1) for n in pair]
                    for pair, size in zip(sizes, shape, strict=True)
                ]
            x = stored(rng, shape, dtype)
            out = _like(x, np.array(shape) + np.sum(sizes, 1))
            inputs = [x, packed.constant(sizes, ("int32", "int64")[turn % 2])]
            options = {}
            if kind == "PADV2":
                value = int(rng.integers(-100, 100))
                inputs.append(
                    packed.tensor([1], dtype, x.scales[0], x.zero_points[0], data=[value])
                )
            if kind == "MIRROR_PAD":
                options["mode"] = ("REFLECT", "SYMMETRIC")[turn % 2]
            yield packed.operator(kind, inputs, [out], options)

    return cases


def concatenation(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """One to five tensors, constants, every axis; for 16 bits also of other scales."""
    for turn, axis in enumerate((1, 2, 3, -1, -2, 3)):
        count = 1 + turn % 5
        x = stored(rng, [1, 3, 4, 5], dtype)
        shapes = [[1, 3, 4, 5] for _ in range(count)]
        for i, shape in enumerate(shapes):
            shape[axis] = 1 + i
        parts = [_like(x, shape) for shape in shapes]
        if turn == 5:
            data = packed.stored_values_of(rng, parts[0], 1)
            parts.append(packed.tensor(shapes[0], dtype, x.scales[0], x.zero_points[0], data=data))
        out = [1, 3, 4, 5]
        out[axis] = sum(p.shape[axis] for p in parts)
        yield packed.operator("CONCATENATION", parts, [_like(x, out)], {"axis": axis})
        if dtype == "int16":
            parts = [stored(rng, p.shape, dtype) for p in parts]
            yield packed.operator("CONCATENATION", parts, [stored(rng, out, dtype)], {"axis": axis})


def split(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Every axis, into one part and into several."""
    for axis, count in ((1, 2), (2, 3), (3, 4), (-1, 2), (-3, 1)):
        x = stored(rng, [1, 4, 6, 8], dtype)
        shape = [1, 4, 6, 8]
        shape[axis] //= count
        outputs = [_like(x, shape) for _ in range(count)]
        yield packed.operator("SPLIT", [packed.constant(axis), x], outputs, {"num_splits": count})


def slice_(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """All, the rest, one element; ranks 2 to 5."""
    for begin, size, shape, out in (
        ([0, 1, 2], [1, 3, -1], [1, 5, 6], [1, 3, 4]),
        ([0, 0], [-1, -1], [1, 7], [1, 7]),
        ([0, 2, 1, 4], [1, 1, 2, 1], [1, 3, 4, 5], [1, 1, 2, 1]),
        ([0, 1, 0, 1, 2], [1, 1, 2, 1, 2], [1, 2, 2, 3, 4], [1, 1, 2, 1, 2]),
    ):
        x = stored(rng, shape, dtype)
        for kind in ("int32", "int64"):
            inputs = [x, packed.constant(begin, kind), packed.constant(size, kind)]
            yield packed.operator("SLICE", inputs, [_like(x, out)])


def _masks(**bits: int) -> dict[str, int]:
    return {f"{name}_mask": value for name, value in bits.items()}


def strided_slice(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Ends before the beginning and beyond, steps backwards, every mask."""
    for begin, end, strides, masks, out in (
        ([0, 4, 0], [1, 0, 6], [1, -2, 3], {}, [1, 2, 2]),
        ([0, 1, 2], [9, -1, 100], [1, 1, 1], {}, [1, 3, 4]),
        ([0, 0, 0], [0, 0, 0], [1, 2, -1], _masks(begin=7, end=7), [1, 3, 6]),
        ([0, -2, 1], [0, 5, 0], [1, 1, 1], _masks(begin=1, end=5), [1, 2, 5]),
        ([0, 3, 0], [0, 4, 0], [1, 1, 1], _masks(begin=5, end=5, shrink_axis=2), [1, 6]),
        ([0, 0, -1], [0, 0, 0], [1, 1, 1], _masks(begin=3, end=3, shrink_axis=4), [1, 5]),
        ([0, 0, 0, 0], [0] * 4, [1] * 4, _masks(begin=15, end=15, new_axis=2), [1, 1, 5, 6]),
        ([0, 0, 2], [1, 0, 5], [1, 1, 2], _masks(ellipsis=2), [1, 5, 2]),
        ([0, 2], [0, 4], [1, 1], _masks(begin=1, end=1), [1, 2, 6]),
    ):  # fmt: skip
        x = stored(rng, [1, 5, 6], dtype)
        inputs = [x, *(packed.constant(value) for value in (begin, end, strides))]
        yield packed.operator("STRIDED_SLICE", inputs, [_like(x, out)], masks)


def reshape(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """A size left open; the shape as a tensor and as an option."""
    for shape, wanted, out in (
        ([1, 4, 6], [1, 24], [1, 24]),
        ([1, 4, 6], [1, -1, 3], [1, 8, 3]),
        ([1, 24], [1, 2, 3, 2, 2], [1, 2, 3, 2, 2]),
        ([1, 7], [1, 7], [1, 7]),
    ):
        x = stored(rng, shape, dtype)
        yield packed.operator("RESHAPE", [x, packed.constant(wanted)], [_like(x, out)])
        yield packed.operator("RESHAPE", [x], [_like(x, out)], {"new_shape": wanted})


def squeeze(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Named dimensions, from the end, too."""
    for dims, out in (([2], [1, 4, 1, 3]), ([-2], [1, 4, 1, 3]), ([2, 3], [1, 4, 3])):
        x = stored(rng, [1, 4, 1, 1, 3], dtype)
        yield packed.operator("SQUEEZE", [x], [_like(x, out)], {"squeeze_dims": dims})


def expand_dims(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Every place behind the batch, and from the end."""
    for axis, out in ((1, [1, 1, 4, 3]), (3, [1, 4, 3, 1]), (-1, [1, 4, 3, 1]), (-2, [1, 4, 1, 3])):
        x = stored(rng, [1, 4, 3], dtype)
        yield packed.operator("EXPAND_DIMS", [x, packed.constant(axis)], [_like(x, out)])


def transpose(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Permutations that keep the batch in front, and one that does not."""
    for order in (
        [0, 2, 1],
        [0, 1, 3, 2],
        [0, 3, 1, 2],
        [0, 3, 2, 1],
        [0, 4, 2, 1, 3],
        [0, 1],
        [1, 0, 2],
    ):
        shape = [1, 4, 5, 3, 2][: len(order)]
        x = stored(rng, shape, dtype)
        out = _like(x, [shape[i] for i in order])
        yield packed.operator("TRANSPOSE", [x, packed.constant(order)], [out])


def pack(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Every axis behind the batch."""
    for axis, count in ((1, 2), (2, 3), (3, 1), (-1, 2), (-2, 2)):
        x = stored(rng, [1, 4, 5], dtype)
        out = np.insert([1, 4, 5], axis % 4, count)
        parts = [_like(x, [1, 4, 5]) for _ in range(count)]
        yield packed.operator("PACK", parts, [_like(x, out)], {"values_count": count, "axis": axis})


def unpack(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """The same backwards."""
    for axis, count in ((1, 4), (2, 5), (-1, 5), (-2, 4)):
        x = stored(rng, [1, 4, 5], dtype)
        out = np.delete([1, 4, 5], axis)
        outputs = [_like(x, out) for _ in range(count)]
        yield packed.operator("UNPACK", [x], outputs, {"num": count, "axis": axis})


def space_to_batch(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Blocks that are not square, with padding; images of one dimension."""
    for shape, block, sizes in (
        ([1, 5, 4, 2], [2, 2], [[1, 0], [0, 2]]),
        ([1, 4, 6, 3], [2, 3], [[0, 0], [0, 0]]),
        ([1, 3, 3, 1], [1, 1], [[0, 0], [1, 1]]),
        ([1, 7, 2], [3], [[1, 1]]),
    ):
        x = stored(rng, shape, dtype)
        padded = np.array(shape[1:-1]) + np.sum(sizes, 1)
        out = [int(np.prod(block)), *(padded // block), shape[-1]]
        inputs = [x, packed.constant(block), packed.constant(sizes)]
        yield packed.operator("SPACE_TO_BATCH_ND", inputs, [_like(x, out)])


def batch_to_space(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """The same backwards, with crops."""
    for shape, block, crops in (
        ([4, 3, 3, 2], [2, 2], [[1, 0], [0, 2]]),
        ([6, 2, 2, 3], [2, 3], [[0, 0], [0, 0]]),
        ([1, 3, 5, 1], [1, 1], [[0, 0], [1, 1]]),
        ([3, 3, 2], [3], [[1, 1]]),
    ):
        x = stored(rng, shape, dtype)
        cropped = np.array(shape[1:-1]) * block - np.sum(crops, 1)
        out = [shape[0] // int(np.prod(block)), *cropped, shape[-1]]
        inputs = [x, packed.constant(block), packed.constant(crops)]
        yield packed.operator("BATCH_TO_SPACE_ND", inputs, [_like(x, out)])


def space_to_depth(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Blocks of 1 to 3."""
    for block in (1, 2, 3):
        x = stored(rng, [1, 6, 12, 3], dtype)
        out = _like(x, [1, 6 // block, 12 // block, 3 * block**2])
        yield packed.operator("SPACE_TO_DEPTH", [x], [out], {"block_size": block})


def depth_to_space(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """The same backwards."""
    for block in (1, 2, 3):
        x = stored(rng, [1, 2, 3, 2 * block**2], dtype)
        out = _like(x, [1, 2 * block, 3 * block, 2])
        yield packed.operator("DEPTH_TO_SPACE", [x], [out], {"block_size": block})


def tile(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Any dimension of an image."""
    for shape, times in (([1, 4, 3], [1, 2, 3]), ([1, 5], [1, 1]), ([1, 2, 3, 2], [1, 3, 1, 2])):
        x = stored(rng, shape, dtype)
        repeats = packed.constant(times, ("int32", "int64")[len(shape) % 2])
        yield packed.operator("TILE", [x, repeats], [_like(x, np.array(shape) * times)])


def gather(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """Indices that repeat, of any rank."""
    for axis, indices in ((1, [3, 0, 3]), (2, [4]), (-1, [[0, 4], [1, 1]])):
        x = stored(rng, [1, 4, 5], dtype)
        out = [1, 4, 5]
        out[axis % 3 : axis % 3 + 1] = np.shape(indices)
        inputs = [x, packed.constant(indices)]
        yield packed.operator("GATHER", inputs, [_like(x, out)], {"axis": axis})


def shapes(dtype: str, rng: np.random.Generator) -> Iterator[Case]:
    """What converters write around a shape that is known only when the network runs."""

    def number(shape=()) -> Tensor:
        return packed.tensor(shape, "int32")

    x = stored(rng, [1, 4, 5, 3], dtype)
    shape, first, packed_shape = number([4]), number(), number([2])
    slices = [packed.constant([n]) for n in (0, 1, 1)]
    yield packed.network(
        [
            ("SHAPE", [x], [shape], {"out_type": "INT32"}, 1),
            ("STRIDED_SLICE", [shape, *slices], [first], _masks(shrink_axis=1), 1),
            ("PACK", [first, packed.constant(60)], [packed_shape], {"values_count": 2}, 1),
            ("RESHAPE", [x, packed_shape], [_like(x, [1, 60])], {}, 1),
        ]
    )
    shape, some, product, both = number([4]), number([2]), number([1]), number([2])
    gathered = [shape, packed.constant([0, 1])]
    yield packed.network(
        [
            ("SHAPE", [x], [shape], {"out_type": "INT32"}, 1),
            ("GATHER", gathered, [some], {}, 1),
            ("REDUCE_PROD", [some, packed.constant([0])], [product], {"keep_dims": True}, 1),
            ("CONCATENATION", [product, packed.constant([15])], [both], {"axis": 0}, 1),
            ("RESHAPE", [x, both], [_like(x, [4, 15])], {}, 1),
        ]
    )


CASES: dict[str, Callable[[str, np.random.Generator], Iterator[Case]]] = {
    "PAD": _paddings("PAD"),
    "PADV2": _paddings("PADV2"),
    "MIRROR_PAD": _paddings("MIRROR_PAD"),
    "CONCATENATION": concatenation,
    "SPLIT": split,
    "SLICE": slice_,
    "STRIDED_SLICE": strided_slice,
    "RESHAPE": reshape,
    "SQUEEZE": squeeze,
    "EXPAND_DIMS": expand_dims,
    "TRANSPOSE": transpose,
    "PACK": pack,
    "UNPACK": unpack,
    "SPACE_TO_BATCH_ND": space_to_batch,
    "BATCH_TO_SPACE_ND": batch_to_space,
    "SPACE_TO_DEPTH": space_to_depth,
    "DEPTH_TO_SPACE": depth_to_space,
    "TILE": tile,
    "GATHER": gather,
    "SHAPE": shapes,
}
