# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What gradients are compared with: differences of the op itself, where these are exact.

Of whole numbers that neither wrap nor are rounded an op is the real function that it approximates,
and that is linear in each operand. So a difference over any step is its slope, with no error, and
sums of few such numbers have none either: everything compares on bits.
"""

from __future__ import annotations

from collections.abc import Callable, Sequence

import numpy as np
import tensorflow as tf
from support import assert_bits


def whole(rng: np.random.Generator, *shape: int, of: int = 1) -> np.ndarray:
    """Return small multiples of a number as float32."""
    return (of * rng.integers(-9, 10, shape)).astype(np.float32)


def gradients(
    function: Callable[..., tf.Tensor], operands: Sequence[np.ndarray], upstream: np.ndarray
) -> list[tf.Tensor]:
    """Return the gradients of all operands, taken eagerly."""
    tensors = [tf.constant(x) for x in operands]
    with tf.GradientTape() as tape:
        tape.watch(tensors)
        result = function(*tensors)
    return tape.gradient(result, tensors, output_gradients=tf.constant(upstream))


def graph_gradients(
    function: Callable[..., tf.Tensor], operands: Sequence[np.ndarray], upstream: np.ndarray
) -> list[tf.Tensor]:
    """Return the same of a graph that knows nothing but the ranks of its operands."""
    ranks = [tf.TensorSpec([None] * np.ndim(x), tf.float32) for x in operands]
    traced = tf.function(lambda *x: function(*x), input_signature=ranks, autograph=False)
    return gradients(traced, operands, upstream)


def differences(
    function: Callable[..., tf.Tensor],
    operands: Sequence[np.ndarray],
    upstream: np.ndarray,
    step: float,
) -> list[np.ndarray]:
    """Return what each element of each operand changes by a step, as a slope times `upstream`."""
    start = function(*operands).numpy().astype(np.float64)
    found = []
    for index, operand in enumerate(operands):
        slopes = np.zeros(np.shape(operand), np.float64)
        for place in np.ndindex(slopes.shape):
            changed = list(map(np.copy, operands))
            changed[index][place] += step
            change = function(*changed).numpy() - start
            slopes[place] = (change * upstream).sum() / step
        found.append(slopes.astype(np.float32))
    return found


def assert_same(actual: Sequence[tf.Tensor], expected: Sequence[np.ndarray], **inputs) -> None:
    """Fail unless gradients are equal on bits; the sign of a 0 carries no meaning."""
    for index, (got, wanted) in enumerate(zip(actual, expected, strict=True)):
        assert got is not None, f"operand {index} has no gradient"
        assert_bits(np.asarray(got) + 0.0, np.asarray(wanted) + 0.0, operand=index, **inputs)


def assert_differences(
    function: Callable[..., tf.Tensor], operands: Sequence[np.ndarray], step: float = 1.0, **inputs
) -> None:
    """Fail unless gradients, eager ones and those of a graph, are the op's own differences."""
    shape = function(*operands).shape
    upstream = whole(np.random.default_rng(5), *shape)
    eager = gradients(function, operands, upstream)
    assert_same(eager, differences(function, operands, upstream, step), **inputs)
    assert_same(graph_gradients(function, operands, upstream), eager, **inputs)
