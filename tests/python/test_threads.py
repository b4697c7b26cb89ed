# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Bits and lines do not depend on the thread: the runtime's pools flush subnormals, ops do not."""

from __future__ import annotations

import concurrent.futures
import contextlib
import ctypes
import platform
import struct

import numpy as np
import pytest
import raw
import support
import tensorflow as tf

TINY = np.float32(2.0**-149)  # the smallest subnormal


def _subnormal_cases() -> dict:
    """Return calls whose operands, products and results are subnormal."""
    steps = np.arange(1, 25, dtype=np.int32).view(np.float32)  # k * 2^-149
    normal = np.float32(2.0**-126)
    pixels = steps.reshape(2, 3, 4, 1)
    halves = np.full([2, 1, 1, 1], 0.5, np.float32)
    return {
        "add": (raw.add, "add", (steps.reshape(4, 6), steps[::-1].reshape(4, 6)), {}),
        "add-product": (
            raw.add,
            "add",
            (np.zeros([4, 6], np.float32), np.full([4, 6], normal)),
            {"factor": 0.25, "feed_repeat": 3.0},
        ),
        "add-half": (
            raw.add,
            "add",
            (-steps.reshape(4, 6), steps.reshape(4, 6)),
            {"use_fp16_acc": True},
        ),
        "bias_add": (raw.bias_add, "bias_add", (steps.reshape(4, 6), steps[:6].copy()), {}),
        "conv2d": (raw.convolve, "convolve", (pixels, halves, pixels[..., :1].copy()), {}),
        "conv2d-half": (raw.convolve, "convolve", (-pixels, halves), {"use_fp16_acc": True}),
        "depthwise": (
            raw.convolve,
            "convolve",
            (pixels, halves),
            {"op": "h_depth_wise", "accumulator_size": 40},
        ),
        # Lines as well as bits.
        "add-lines": (
            raw.add,
            "add",
            (np.full([2, 2], 8388600, np.float32), np.array([[5, 9], [-7, np.nan]], np.float32)),
            {"feed_repeat": 3.0},
        ),
        "depthwise-lines": (
            raw.convolve,
            "convolve",
            (1e6 * (1 + pixels), 200 + halves),
            {"op": "h_depth_wise", "accumulator_size": 16},
        ),
    }


CASES = _subnormal_cases()


@contextlib.contextmanager
def floating_point_environment(*, flush: bool = False, upward: bool = False):
    """Set this thread's floating-point environment, yield a reader of it, and restore it.

    The reader returns (flushes, rounds upward).
    """
    libm = ctypes.CDLL("libm.so.6")
    machine = platform.machine()
    if machine == "x86_64":
        size, offset, flush_bits, round_up = 32, 28, 0x8040, 0x800  # MXCSR
    elif machine == "aarch64":
        size, offset, flush_bits, round_up = 8, 0, 1 << 24, 1 << 22  # FPCR
    else:
        pytest.skip(f"no floating-point environment known for {machine}")

    def read() -> bytearray:
        buffer = (ctypes.c_char * size)()
        assert libm.fegetenv(buffer) == 0
        return bytearray(buffer)

    def write(environment: bytes) -> None:
        assert libm.fesetenv((ctypes.c_char * size).from_buffer_copy(environment)) == 0

    saved = read()
    changed = bytearray(saved)
    (word,) = struct.unpack_from("<I", changed, offset)
    struct.pack_into("<I", changed, offset, word | (flush_bits if flush else 0))

    def state() -> tuple[bool, bool]:
        (word,) = struct.unpack_from("<I", read(), offset)
        return word & flush_bits == flush_bits, libm.fegetround() == round_up

    write(changed)
    if upward:
        assert libm.fesetround(round_up) == 0
    try:
        yield state
    finally:
        write(saved)


@pytest.fixture(scope="module")
def expected(reference):
    """The oracle's output and lines for a case."""

    def compute(name):
        _, oracle, arrays, arguments = CASES[name]
        arguments = dict(arguments)
        op = arguments.pop("op", None)
        if oracle == "convolve":
            arguments["is_depthwise"] = op == "h_depth_wise"
        return getattr(reference, oracle)(*arrays, **arguments)

    return compute


@pytest.fixture
def same(printed, assert_bits, assert_lines, expected):
    """Check a case on whatever thread `runner(call, arrays)` runs it."""

    def check(name, runner):
        call, _, arrays, arguments = CASES[name]
        with printed() as text:
            results = runner(lambda *tensors: call(*tensors, **arguments), arrays)
        output, lines = expected(name)
        for result in results:
            assert_bits(result, output)
        assert_lines(text.out, lines * len(results), ordered=False)

    return check


def test_cases_are_about_subnormals(expected):
    """The cases would show a flush: their results hold subnormals."""
    for name in CASES:
        output, lines = expected(name)
        if name.endswith("lines"):
            assert lines
        elif not name.endswith("half"):
            assert ((output != 0) & (np.abs(output) < np.float32(2.0**-126))).any(), name


@pytest.mark.parametrize("name", CASES)
def test_calling_thread(name, same):
    """Eagerly, on the thread that calls."""
    same(name, lambda call, arrays: [call(*arrays).numpy()])


@pytest.mark.parametrize("name", CASES)
def test_python_thread(name, same):
    """From other Python threads, four at once."""

    def runner(call, arrays):
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            return list(pool.map(lambda _: call(*arrays).numpy(), range(8)))

    same(name, runner)


@pytest.mark.parametrize("name", CASES)
def test_dataset_threads(name, same):
    """In a parallel map, on the threads of a data pipeline."""

    def runner(call, arrays):
        data = tf.data.Dataset.range(8)
        data = data.map(
            lambda i: call(*[_opaque(a, i) for a in arrays]),
            num_parallel_calls=4,
        )
        return [result.numpy() for result in data]

    same(name, runner)


@pytest.mark.parametrize("name", CASES)
def test_function_threads(name, same):
    """In a function with independent nodes, on the pool that runs nodes in parallel."""

    def runner(call, arrays):
        @tf.function
        def together(i):
            return [call(*[_opaque(a, i + k) for a in arrays]) for k in range(4)]

        return [r.numpy() for _ in range(2) for r in together(tf.constant(0, tf.int64))]

    same(name, runner)


def _opaque(array: np.ndarray, index: tf.Tensor) -> tf.Tensor:
    """Return the array as a tensor that the graph optimiser can neither fold nor share.

    Moves the bits as integers: the runtime's own float operations would flush subnormals.
    """
    words = tf.constant(array.view(np.int32))
    zero = tf.cast(tf.minimum(tf.abs(index), 0), tf.int32)
    return tf.bitcast(tf.bitwise.bitwise_xor(words, zero), tf.float32)


@pytest.mark.parametrize("name", CASES)
def test_caller_that_flushes_to_zero(name, same):
    """A thread in flush-to-zero mode gets the same bits, and keeps its mode."""

    def runner(call, arrays):
        tensors = [tf.constant(a) for a in arrays]
        with floating_point_environment(flush=True) as state:
            result = call(*tensors)
            assert state() == (True, False)
        return [result.numpy()]

    same(name, runner)


@pytest.mark.parametrize(
    ("call", "oracle", "operands"),
    [
        (raw.add, "add", ([[1.0, 5.0]], [[2.0**-30, 3.0]])),
        (raw.bias_add, "bias_add", ([[1.0, 5.0]], [2.0**-30, 3.0])),
        (raw.convolve, "convolve", ([[[[1.0, 5.0]]]], [[[[2.0**-30], [1.1]]]])),
    ],
)
@pytest.mark.parametrize("mult_shift", [0, 2])
def test_caller_that_rounds_upward(call, oracle, operands, mult_shift, reference, assert_bits):
    """A thread in another rounding mode gets the same bits, and keeps its mode."""
    arrays = [np.array(x, np.float32) for x in operands]
    arguments = {"factor": 1.1} if oracle != "convolve" else {}
    expected, _ = getattr(reference, oracle)(*arrays, mult_shift=mult_shift, **arguments)
    tensors = [tf.constant(a) for a in arrays]
    with floating_point_environment(upward=True) as state:
        result = call(*tensors, mult_shift=mult_shift, **arguments)
        assert state() == (False, True)
    assert_bits(result, expected)


def test_many_images_at_once(reference, printed, assert_bits, assert_lines):
    """Several batches of more than 20 images side by side: each has its own threads."""
    rng = np.random.default_rng(7)
    pixels = support.random_values(rng, np.float32, (25, 3, 3, 2))
    weights = support.random_values(rng, np.float32, (3, 3, 2, 2))
    expected, lines = reference.convolve(pixels, weights, accumulator_size=24)
    with printed() as text, concurrent.futures.ThreadPoolExecutor(4) as pool:
        jobs = [pool.submit(raw.convolve, pixels, weights, accumulator_size=24) for _ in range(8)]
        results = [job.result().numpy() for job in jobs]
    for result in results:
        assert_bits(result, expected)
    assert_lines(text.out, lines * len(results), ordered=False)
