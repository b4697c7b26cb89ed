# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Bits and lines do not depend on the thread: the runtime's pools flush subnormals, ops do not.

Nor do they depend on who shares the work: the runtime's pool, or a thread for each image.
"""

from __future__ import annotations

import concurrent.futures
import contextlib
import ctypes
import functools
import hashlib
import pathlib
import platform
import struct

import forks
import numpy as np
import pytest
import raw
import support
import tensorflow as tf

import bitfold

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


# ---- The pool and image threads ------------------------------------------------------------------


@pytest.fixture(params=[False, True], ids=["pool", "image-threads"])
def image_threads(request):
    """Set who computes images, and set it back."""
    before = bitfold.set_image_threads(request.param)
    yield request.param
    bitfold.set_image_threads(before)


def _large_calls() -> dict:
    """Return calls that are worth several threads: cut into rows, into channels, into images.

    Some sums leave the accumulator, of floats with fractions in one image: with a line each.
    """
    rng = np.random.default_rng(16)

    def integers(*shape):
        return rng.integers(-128, 128, shape).astype(np.int32)

    fractions = (integers(1, 24, 24, 16) * np.float32(0.3)).astype(np.float32)
    fractions[0, ::5, ::3, 0] = 5e6
    many = (integers(30, 6, 6, 8) * np.float32(0.3)).astype(np.float32)
    many[::4, 3, 3, 1] = 5e6
    return {
        "rows": ("conv2d", integers(1, 48, 48, 32), integers(3, 3, 32, 48)),
        "channels": ("conv2d", integers(1, 6, 6, 128), integers(3, 3, 128, 256)),
        "pixels": ("conv2d", integers(3, 40, 40, 64), integers(1, 1, 64, 64)),
        "images": ("conv2d", integers(40, 9, 9, 16), integers(3, 3, 16, 32)),
        "depthwise": ("depthwise_conv2d", integers(2, 64, 64, 48), integers(3, 3, 48, 1)),
        "lines": ("conv2d", fractions, integers(3, 3, 16, 32).astype(np.float32)),
        "lines of images": ("conv2d", many, integers(3, 3, 8, 32).astype(np.float32)),
    }


LARGE_CALLS = _large_calls()


def _large(name: str, accumulator_size: int = 20) -> tf.Tensor:
    op, pixels, weights = LARGE_CALLS[name]
    size = {"accumulator_size": 24} if pixels.dtype == np.float32 else {}
    return getattr(bitfold.ops, op)(
        pixels, weights, **{"accumulator_size": accumulator_size, **size}
    )


@pytest.fixture(scope="module")
def large_expected(reference):
    """The oracle's output and lines for a large call."""

    @functools.cache
    def compute(name):
        op, pixels, weights = LARGE_CALLS[name]
        is_depthwise = op == "depthwise_conv2d"
        if is_depthwise:
            weights = weights.reshape(3, 3, 1, -1)
        size = 24 if pixels.dtype == np.float32 else 20
        return reference.convolve(pixels, weights, accumulator_size=size, is_depthwise=is_depthwise)

    return compute


@pytest.mark.parametrize("name", LARGE_CALLS)
def test_large_calls(name, image_threads, large_expected, printed, assert_bits, assert_lines):
    """Whoever shares a call, bits and lines are the same; lines of one image keep their order."""
    output, lines = large_expected(name)
    assert bool(lines) == name.startswith("lines")
    with printed() as text:
        result = _large(name)
    assert_bits(result, output)
    assert_lines(text.out, lines, ordered=result.shape[0] == 1)


@pytest.mark.parametrize("name", ["lines", "lines of images"])
def test_large_calls_count_their_lines(name, image_threads, large_expected, printed):
    """Lines of all threads are counted, and none is printed."""
    before = bitfold.set_warnings("count")
    try:
        bitfold.warning_counts(reset=True)
        with printed() as text:
            _large(name)
        counts = bitfold.warning_counts(reset=True)
    finally:
        bitfold.set_warnings(before)
    assert text.out == ""
    (found,) = counts.values()
    assert found["out_of_bounds"] == large_expected(name)[1].count("\n")


@pytest.mark.parametrize("batch", [1, 40])
@pytest.mark.parametrize("dtype", [np.int32, np.float32])
def test_large_products(batch, dtype, reference, printed, assert_bits, assert_lines):
    """Matrix products share rows, columns and entries, and keep the order of all lines."""
    rng = np.random.default_rng(batch)
    rows, inner, columns = (160, 128, 192) if batch == 1 else (12, 64, 48)
    left = rng.integers(-128, 128, (batch, rows, inner)).astype(dtype)
    right = rng.integers(-128, 128, (batch, inner, columns)).astype(dtype)
    if dtype is np.float32:
        left[:, 3, ::9] += np.float32(0.3)
        left[::3, 5, 2] = 3e6
    expected, lines, *_ = reference.matmul(left, right, accumulator_size=24)
    with printed() as text:
        result = bitfold.ops.matmul(left, right, accumulator_size=24)
    assert_bits(result, expected)
    assert_lines(text.out, lines)


# Lines of the library end before a line of Python begins.
_CHILD = """
import ctypes, hashlib, os, sys
os.environ["BITFOLD_IMAGE_THREADS"] = sys.argv[2]
import tensorflow as tf
tf.config.threading.set_intra_op_parallelism_threads(int(sys.argv[1]))
import bitfold, test_threads
for name in test_threads.LARGE_CALLS:
    digest = hashlib.sha256(test_threads._large(name).numpy().tobytes()).hexdigest()
    ctypes.CDLL(None).fflush(None)
    print(digest, flush=True)
print(bitfold.set_image_threads(False))
"""


@pytest.mark.parametrize(("threads", "variable"), [(1, ""), (5, ""), (5, "1")])
def test_any_number_of_threads(threads, variable, large_expected):
    """The runtime's setting of threads changes no bit; the environment chooses image threads."""
    folder = str(pathlib.Path(__file__).parent)
    printed = support.passes(forks.run(_CHILD, str(threads), variable, python_path=folder))
    lines = [line for line in printed.split("\n") if line and "@@@" not in line]
    hashes = [hashlib.sha256(large_expected(n)[0].tobytes()).hexdigest() for n in LARGE_CALLS]
    assert lines == [*hashes, str(variable == "1")]


def test_setting_of_image_threads():
    """The former setting is returned; other values are refused, and change nothing."""
    assert bitfold.set_image_threads(True) is False
    with pytest.raises(TypeError, match="Need a bool, got 0"):
        bitfold.set_image_threads(0)
    assert bitfold.set_image_threads(False) is True


def test_wrong_environment():
    """A value that says neither is refused when the package is imported."""
    result = forks.run("import os; os.environ['BITFOLD_IMAGE_THREADS'] = 'yes'; import bitfold")
    assert "Need BITFOLD_IMAGE_THREADS to be 0 or 1, got 'yes'" in result.stderr


def test_many_images_at_once(image_threads, reference, printed, assert_bits, assert_lines):
    """Several batches of more than 20 images side by side."""
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
