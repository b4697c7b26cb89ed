# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the ops have in common: a run beside the oracle, drawn data, refusals, log, stale memory."""

from __future__ import annotations

import re
from collections.abc import Callable, Mapping, Sequence
from typing import Any

import hypothesis.extra.numpy
import hypothesis.strategies as st
import numpy as np
import pytest
import support
import tensorflow as tf

TYPES = (np.int32, np.float32)
# Shapes of ranks 2 and 4, some without elements.
SHAPES = [(1, 1), (3, 5), (0, 3), (2, 0), (1, 1, 1, 1), (2, 3, 5, 7), (1, 17, 1, 3), (2, 0, 3, 4)]


# ---- Beside the oracle -------------------------------------------------------------------------


def compare(
    op: Callable, model: Callable, inputs: Mapping[str, np.ndarray], /, **arguments: Any
) -> None:
    """Run an op and its model on the same data and compare bits, printed lines and the log.

    Args:
        op: a function of raw.py.
        model: the method of the oracle; gives the result, the lines, then any errors logged.
        inputs: the operands, in order.
        **arguments: the settings of both.
    """
    with support.printed() as text:
        actual = op(*inputs.values(), **arguments).numpy()
    expected, lines, *errors = model(*inputs.values(), **arguments)
    shown = {name: _for_each_element(x, expected.shape) for name, x in inputs.items()}
    support.assert_bits(actual, expected, **shown, **arguments)
    support.assert_lines(text.out, lines, **shown, **arguments)
    assert logged_errors(text.err) == errors


def _for_each_element(x: np.ndarray, shape: tuple[int, ...]) -> np.ndarray:
    """Repeat one number per channel, so that a report shows the one of an element."""
    if x.ndim != 1 or not shape or x.size < shape[-1]:
        return x
    return np.ascontiguousarray(np.broadcast_to(x[: shape[-1]], shape))


# ---- Drawn data --------------------------------------------------------------------------------


def numbers(dtype: type) -> st.SearchStrategy:
    """Draw any number of an element type."""
    if dtype is np.float32:
        return st.floats(width=32)
    return st.integers(support.INT32_MIN, support.INT32_MAX)


def arrays(dtype: type, *shapes: Sequence[int]) -> st.SearchStrategy:
    """Draw a tuple of arrays of the given shapes."""
    return st.tuples(
        *(hypothesis.extra.numpy.arrays(dtype, shape, elements=numbers(dtype)) for shape in shapes)
    )


def shapes(*ranks: int, max_side: int = 3) -> st.SearchStrategy:
    """Draw a shape of one of the ranks, without empty dimensions."""
    return st.one_of(
        hypothesis.extra.numpy.array_shapes(min_dims=n, max_dims=n, max_side=max_side)
        for n in ranks
    )


def settings(dtype: type, **more: st.SearchStrategy) -> st.SearchStrategy:
    """Draw the shift, the width and the mode, and what an op has more."""
    return st.fixed_dictionaries(
        {
            "mult_shift": st.integers(-128, 127),
            "accumulator_size": st.integers(0, 32 if dtype is np.int32 else 200),
            "use_fp16_acc": st.booleans(),
            **more,
        }
    )


def feed_repeats() -> st.SearchStrategy:
    """Draw how often an operand is added, few times enough to be quick."""
    return st.floats(-2, 20, width=32)


def random_settings(rng: np.random.Generator, dtype: type) -> dict[str, Any]:
    """Return a shift, a width and a mode."""
    return {
        "mult_shift": int(rng.integers(-128, 128)),
        "accumulator_size": int(rng.choice(support.WIDTHS[dtype])),
        "use_fp16_acc": bool(rng.integers(2)),
    }


# ---- Inferred shapes ---------------------------------------------------------------------------

KEPT_SHAPES = [[2, 3], [None, 3], [1, 2, 3, 4], [None, None, 3], [], None]
# (value, bias, result)
CHANNELS_MERGED = [
    ([2, 3], [3], [2, 3]),
    ([None, None], [3], [None, 3]),
    ([5, 4, 4, None], [3], [5, 4, 4, 3]),
    ([5, 4, 4, 3], [None], [5, 4, 4, 3]),
    ([2, 2, 3], [3], [2, 2, 3]),
    (None, [3], None),
]
# (value, bias, text)
CHANNELS_REFUSED = [
    ([2, 3], [4], "Dimensions must be equal, but are 3 and 4"),
    ([2, 3], [1, 3], "Shape must be rank 1 but is rank 2"),
    ([3], [3], "Shape must be at least rank 2 but is rank 1"),
]


def inferred(op: Callable, /, *shapes: Any, **arguments: Any) -> list[int | None] | None:
    """Return the shape that an op's rule finds for int32 inputs of shapes; None: nothing known."""
    with tf.Graph().as_default():
        inputs = [tf.compat.v1.placeholder(tf.int32, shape) for shape in shapes]
        shape = op(*inputs, **arguments).shape
    return None if shape.rank is None else shape.as_list()


# ---- Refusals ----------------------------------------------------------------------------------

# (element type, width, text): refused by whatever has an accumulator, before any input is read.
WIDTHS_REFUSED = [
    (np.int32, -1, "Need accumulator_size >= 0, got -1"),
    (np.float32, -1, "Need accumulator_size >= 0, got -1"),
    (np.int32, -(2**31), "Need accumulator_size >= 0, got -2147483648"),
    (np.int32, 33, "Need accumulator_size <= 32 for int32 data, got 33"),
    (np.int32, 2**31 - 1, "Need accumulator_size <= 32 for int32 data, got 2147483647"),
]
# (feed repeat, as the text prints it): NaN, and what a 32-bit count never reaches.
ENDLESS_REPEATS = [
    (np.nan, "nan"),
    (np.inf, "inf"),
    (2.0**31 + 256, "2.1474839e+09"),
    (2.0**127, "1.70141183e+38"),
]


def refused(text: str) -> Any:
    """Expect an InvalidArgumentError that contains `text`."""
    return pytest.raises(tf.errors.InvalidArgumentError, match=re.escape(text))


def too_small(name: str, needed: int, what: str, got: Sequence[int]) -> str:
    """Return the text that refuses an input of the shape `got`."""
    elements = "element" if needed == 1 else "elements"
    shape = ",".join(map(str, got))
    return (
        f"Need {name} to hold at least {needed} {elements} ({what}), "
        f"got {np.prod(got, dtype=int)} in shape [{shape}]"
    )


def empty_scalar(name: str, got: Sequence[int] = (0,)) -> str:
    """Return the text that refuses a scalar without an element."""
    return too_small(name, 1, "its element 0 is read", got)


def too_long(name: str, shape: Sequence[int]) -> str:
    """Return the text that refuses a dimension beyond 32 bits."""
    return (
        f"Need every dimension of {name} to be at most 2147483647, "
        f"got shape [{','.join(map(str, shape))}]"
    )


def endless(name: str, got: str) -> str:
    """Return the text that refuses a feed repeat."""
    return f"Need {name} to be a number of repeats of at most 2^31 = 2147483648, got {got}"


def ones(x: Any, dtype: type) -> Any:
    """Return a tensor as it is, and ones for a shape."""
    return x if tf.is_tensor(x) else np.ones(x, dtype)


def empty(shape: Sequence[int], dtype: tf.DType = tf.int32) -> tf.Tensor:
    """Return a tensor without elements; its dimensions may exceed what numpy's do."""
    return tf.reshape(tf.zeros([0], dtype), tf.constant(shape, tf.int64))


def case_name(x: Any) -> str:
    """Name a parametrised case after the inputs that it changes."""
    return "-".join(f"{k}{list(v)}" for k, v in x.items()) if isinstance(x, dict) else ""


# ---- The log and unwritten memory --------------------------------------------------------------


def logged_errors(err: str) -> list[str]:
    """Return the messages of what the log wrote, all of which must be errors."""
    messages = []
    for line in err.splitlines():
        match = re.fullmatch(r"E\d{4} [\d:.]+ +\d+ \w+\.(?:cc|h):\d+\] (.*)", line)
        assert match, f"no error of the log: {line!r}"
        messages.append(match.group(1))
    return messages


def leave_dirty_memory(shape: Sequence[int], dtype: type) -> None:
    """Free blocks of the size of a tensor, full of ones, for the allocator to hand out again."""
    full = tf.constant(np.full(shape, 1, dtype))
    blocks = [full + i for i in range(16)]
    del blocks
