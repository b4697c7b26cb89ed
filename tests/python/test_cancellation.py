# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Feed repeats near 2^31: proven ones are quick, the others end when the runtime cancels them."""

from __future__ import annotations

import threading
import time

import numpy as np
import pytest
import raw
import tensorflow as tf
from tensorflow.python.eager import cancellation

LONGEST = 2.0**31
PASSES = 2**31 - 64  # the smallest count that rounds to it
ENDS = 30.0  # seconds within which what ends has ended, on a busy machine, too

# The ops that repeat, on an operand of one channel.
OPS = {
    "HAdd": lambda value, operand, **kw: raw.add(value, operand, **kw),
    "HBiasAdd": lambda value, operand, **kw: raw.bias_add(value, operand[0], **kw),
    "HDecomposedBiasAdd": lambda value, operand, **kw: raw.decomposed_bias_add(
        value, operand[0], operand[0], **kw
    ),
}


def _cancelled_after(seconds, call, *arrays):
    """Run a call as a cancellable function, cancel it, and return how long it then went on."""

    @tf.function(input_signature=[tf.TensorSpec(a.shape, a.dtype) for a in arrays])
    def function(*tensors):
        return call(*tensors)

    concrete = function.get_concrete_function()
    manager = cancellation.CancellationManager()
    cancelled_at = []

    def cancel():
        cancelled_at.append(time.monotonic())
        manager.start_cancel()

    timer = threading.Timer(seconds, cancel)
    timer.start()
    try:
        with pytest.raises(tf.errors.CancelledError) as error:
            manager.get_cancelable_function(concrete)(*map(tf.constant, arrays))
    finally:
        timer.join()
    return time.monotonic() - cancelled_at[0], str(error.value)


@pytest.mark.parametrize("name", OPS)
def test_integers_that_nothing_proves(name):
    """An operand above the accumulator's period is added pass after pass."""
    call = OPS[name]
    shape = (1, 1000) if name == "HAdd" else (1000, 1)
    value, operand = np.zeros(shape, np.int32), np.full(shape, 257, np.int32)
    seconds, text = _cancelled_after(
        0.3, lambda x, y: call(x, y, feed_repeat=LONGEST, accumulator_size=8), value, operand
    )
    assert seconds < ENDS
    assert f"{name} was cancelled while it computed" in text


@pytest.mark.parametrize("name", OPS)
def test_passes_that_print(name, printed):
    """Lines are printed pass after pass, and end."""
    call = OPS[name]
    value, operand = np.zeros((1, 1), np.float32), np.full((1, 1), 9e6, np.float32)
    with printed() as text:
        seconds, _ = _cancelled_after(
            0.3, lambda x, y: call(x, y, feed_repeat=LONGEST), value, operand
        )
    assert seconds < ENDS
    assert text.out.startswith("@@@ WARNING: acc 9000000.000000 is out of bounds")


@pytest.mark.parametrize("name", OPS)
def test_a_call_that_was_cancelled_before(name, printed):
    """Nothing is computed, and no line printed."""
    call = OPS[name]
    value, operand = np.zeros((1, 1), np.float32), np.full((1, 1), np.nan, np.float32)
    manager = cancellation.CancellationManager()
    manager.start_cancel()
    with printed() as text, pytest.raises(tf.errors.CancelledError):
        manager.get_cancelable_function(
            tf.function(lambda x, y: call(x, y, feed_repeat=LONGEST)).get_concrete_function(
                tf.TensorSpec(value.shape), tf.TensorSpec(operand.shape)
            )
        )(tf.constant(value), tf.constant(operand))
    assert text.out == ""


# At 32 bits larger steps print from 8388607 on, since the accumulator does not wrap before.
SILENT = [
    (step, bits, half)
    for step in (0.1, 1.0, 1e-3, 77.77)
    for bits in (8, 16, 32)
    for half in (False, True)
    if bits < 32 or step < 1 or half
]


@pytest.mark.parametrize(("step", "accumulator_size", "use_fp16_acc"), SILENT)
@pytest.mark.parametrize("name", OPS)
def test_proven_feeds_are_quick(name, step, accumulator_size, use_fp16_acc, printed):
    """2^31 passes on 100 elements, where no line stops them."""
    shape = (1, 100) if name == "HAdd" else (100, 1)
    value = np.linspace(-50, 50, 100, dtype=np.float32).reshape(shape)
    operand = np.full(shape, step, np.float32)
    start = time.process_time()
    with printed() as text:
        OPS[name](
            value,
            operand,
            feed_repeat=LONGEST,
            accumulator_size=accumulator_size,
            use_fp16_acc=use_fp16_acc,
        )
    assert text.out == ""
    assert time.process_time() - start < ENDS


def test_whole_numbers(assert_bits):
    """The sum of all passes, wrapped."""
    value = np.arange(-4, 4, dtype=np.float32).reshape(2, 4)
    result = raw.add(value, np.full_like(value, 3), feed_repeat=LONGEST, accumulator_size=16)
    sums = value.astype(np.int64) + 3 * PASSES
    assert_bits(result, ((sums + 2**15) % 2**16 - 2**15).astype(np.float32))
