# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Whether the library computes in a runtime that it was not compiled with: a few calls, on bits.

What can differ between two builds of the runtime is what both sides compiled in: the layout of a
call, of attributes, shapes and errors, and how memory, threads and inference are asked for. So each
call takes another way through them; which numbers it computes matters little.
"""

from __future__ import annotations

from collections.abc import Callable, Iterator
from typing import Any

import numpy as np


def failures(ops: Any) -> list[str]:
    """Return what is wrong with what the library computes, a sentence each; nothing, as a rule.

    Takes some milliseconds.

    Args:
        ops: the module of its generated ops.
    """
    import tensorflow as tf

    with tf.init_scope(), tf.device("/CPU:0"):
        return [f"{name} {wrong}" for name, call in _CALLS.items() for wrong in _wrong(call, ops)]


def _wrong(call: Callable, ops: Any) -> Iterator[str]:
    try:
        got, wanted = call(ops)
    except Exception as error:
        # Whatever it is: the runtime's own errors are among what is checked.
        yield f"failed with {type(error).__name__}: {error}"
        return
    if np.shape(got) != wanted.shape or np.asarray(got).tobytes() != wanted.tobytes():
        yield f"gave {np.asarray(got).tolist()} instead of {wanted.tolist()}"


def _add(ops: Any, value: np.ndarray, elementwise: np.ndarray, **attributes: Any) -> Any:
    return ops.h_add(
        value=value,
        elementwise=elementwise,
        elementwise_factor=np.ones(1, elementwise.dtype),
        elementwise_feed_repeat=np.ones(1, np.float32),
        mult_shift=np.zeros(1, np.int8),
        **attributes,
    )


def _integers(ops: Any) -> tuple[Any, np.ndarray]:
    """150 wraps to -106 at 8 bits."""
    value, operand = np.array([[100, 3]], np.int32), np.array([[50, 4]], np.int32)
    return _add(ops, value, operand, accumulator_size=8), np.array([[-106, 7]], np.int32)


def _halves(ops: Any) -> tuple[Any, np.ndarray]:
    """The sum of 1 and 2^-11 is a tie of half precision, which goes to the even one."""
    value, operand = np.array([[1, 1.5]], np.float32), np.array([[2**-11, 2.25]], np.float32)
    sums = _add(ops, value, operand, accumulator_size=32, use_fp16_acc=True)
    return sums, np.array([[1.0, 3.75]], np.float32)


def _convolution(ops: Any) -> tuple[Any, np.ndarray]:
    """Lists and names among the attributes, scratch memory and the pool of threads."""
    result = ops.h_conv2d(
        input=np.arange(9, dtype=np.int32).reshape(1, 3, 3, 1),
        filter=np.array([100, 1, 1, 1], np.int32).reshape(2, 2, 1, 1),
        elementwise=np.zeros(1, np.int32),
        mult_shift=np.zeros(1, np.int8),
        strides=[1, 1, 1, 1],
        padding="VALID",
        dilations=[1, 1, 1, 1],
        accumulator_size=8,
    )
    return result, np.array([[[[8], [111]], [[61], [-92]]]], np.int32)


def _requantise(ops: Any, multipliers: list[float]) -> Any:
    return ops.h_requantise(
        sums=np.array([[5, -7], [300, 300]], np.int32),
        multipliers=np.array(multipliers),
        rounding="one_rounding",
        shift=0,
        zero_point=1,
        minimum=-128,
        maximum=127,
        T_out=np.int8,
    )


def _requantised(ops: Any) -> tuple[Any, np.ndarray]:
    """Another type on each side, and a multiplier for each channel."""
    return _requantise(ops, [0.5, 0.25]), np.array([[4, -1], [127, 76]], np.int8)


def _shape(ops: Any) -> tuple[Any, np.ndarray]:
    """What the library tells a graph before anything is computed."""
    import tensorflow as tf

    with tf.Graph().as_default():
        return _requantise(ops, [0.5, 0.25]).shape.as_list(), np.array([2, 2])


def _refusal(ops: Any) -> tuple[Any, np.ndarray]:
    """An error of the library arrives as the runtime's. Of a graph, which logs none."""
    import tensorflow as tf

    with tf.Graph().as_default():
        try:
            _requantise(ops, [0.5, 0.25, 0.125])
        except ValueError as error:
            return "multipliers" in str(error), np.array(True)
        return False, np.array(True)


_CALLS = {
    "an addition of integers": _integers,
    "an addition in half precision": _halves,
    "a convolution": _convolution,
    "a requantisation": _requantised,
    "the shape of a result": _shape,
    "a refusal": _refusal,
}
