# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What an op needs of its operands' shapes, asked before its kernel runs.

The kernels compute a part, log and give zeros, or end the process where shapes do not fit: the
accelerator's own behaviour, which the generated ops keep. A caller of `bitfold.ops` gets an error
instead: a ValueError for what is known when the op is called, eagerly always, and inside
``tf.function`` an assertion that runs before the kernel for what is not known until then.
"""

from __future__ import annotations

from typing import Any

import tensorflow as tf

from bitfold._frame.checks import require
from bitfold._frame.tensors import is_tensor

# A number of elements, or a tensor that will hold it.
Size = Any


class Needs:
    """Refuses what is known not to fit and gathers assertions about what is not known yet.

    Texts read "Need <what>, got <value>", as the kernels' do.
    """

    def __init__(self) -> None:
        """Start without an assertion."""
        self._assertions: list[tf.Operation] = []

    def holds(self, condition: Any, what: str, got: Any) -> None:
        """Require a condition: a bool, or a tensor that will hold one."""
        if not is_tensor(condition):
            require(bool(condition), f"Need {what}", got)
            return
        with self.met():  # the first that fails is reported
            assertion = tf.raw_ops.Assert(condition=condition, data=[f"Need {what}, got", got])
        self._assertions.append(assertion)

    def dimension(self, tensor: tf.Tensor, axis: int) -> Size:
        """Return a size of a tensor of a rank that was required, or counted from the end."""
        static = tensor.shape[axis] if tensor.shape.rank is not None else None
        if static is not None:
            return static
        with self.met():
            return tf.shape(tensor, tf.int64)[axis]

    def rank(self, tensor: tf.Tensor, name: str, *ranks: int) -> None:
        """Require one of the ranks."""
        if tensor.shape.rank in ranks:
            return
        fits = False if tensor.shape.rank is not None else _is_one_of(tf.rank(tensor), ranks)
        self.holds(fits, f"{name} of rank {' or '.join(map(str, ranks))}", _shape_of(tensor, fits))

    def size(self, got: Size, wanted: Size, what: str, tensor: tf.Tensor) -> None:
        """Require that two sizes are equal; the tensor's shape is reported."""
        equal = _equal(got, wanted)
        if equal is not True:
            self.holds(equal, what, _shape_of(tensor, equal))

    def elements(self, tensor: tf.Tensor, name: str, wanted: Size, why: str) -> None:
        """Require a number of elements."""
        equal = _equal(elements(tensor), wanted)
        if equal is not True:
            count = why if is_tensor(wanted) else f"{wanted} elements ({why})"
            self.holds(equal, f"{name} to hold {count}", _shape_of(tensor, equal))

    def half_precision_float(self, use_fp16_acc: bool, dtype: tf.DType) -> None:
        """Require float32 data for a half-precision accumulator."""
        if use_fp16_acc:
            what = "float32 data for use_fp16_acc, which int32 sums do not heed"
            self.holds(dtype == tf.float32, what, dtype.name)

    def met(self) -> Any:
        """Return a context whose ops run after the assertions."""
        return tf.control_dependencies(self._assertions)

    def after(self, tensor: tf.Tensor) -> tf.Tensor:
        """Return the tensor, once the assertions hold."""
        if not self._assertions:
            return tensor
        with self.met():
            return tf.identity(tensor)


def elements(tensor: tf.Tensor) -> Size:
    """Return how many elements a tensor has."""
    static = tensor.shape.num_elements()
    return tf.size(tensor, tf.int64) if static is None else static


def _equal(a: Size, b: Size) -> bool | tf.Tensor:
    if is_tensor(a) or is_tensor(b):
        return tf.equal(tf.cast(a, tf.int64), tf.cast(b, tf.int64))
    return a == b


def _is_one_of(rank: tf.Tensor, ranks: tuple[int, ...]) -> tf.Tensor:
    return tf.reduce_any(tf.equal(rank, ranks))


def _shape_of(tensor: tf.Tensor, condition: Any) -> str | tf.Tensor:
    """Return the shape to report: as it is known now, or as it will be where the condition is."""
    if is_tensor(condition):
        return tf.shape(tensor)
    return f"shape [{','.join('?' if n is None else str(n) for n in tensor.shape)}]"
