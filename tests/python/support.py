# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the tests share: the oracle, captured output, comparison on bits, values worth trying.

The fixtures of conftest.py hand these out; tests import the constants and the small helpers.
"""

from __future__ import annotations

import contextlib
import ctypes
import itertools
import os
import pathlib
import re
import subprocess
import sys
import tempfile
from collections.abc import Iterator, Mapping, Sequence
from typing import Any

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIBC = ctypes.CDLL(None, use_errno=True)

INT32_MIN, INT32_MAX = -(2**31), 2**31 - 1

# Every accumulator width that behaves in a way of its own. From 26 on a float accumulator's
# largest value rounds up to the bound; at 128 the bound is the largest power of two.
WIDTHS = {np.int32: (0, 1, 8, 16, 24, 31, 32), np.float32: (0, 1, 8, 16, 24, 26, 31, 32, 40, 128)}
SHIFTS = (0, 1, 4, 31, 32, -3, 127, -128)
FEED_REPEATS = (0.0, -1.0, -np.inf, 0.5, 1.0, 2.5, 3.0)

RED_LINE = (
    "\033[1;31mweights should be uint8 for DW, check predecessor has signed output, "
    "could cause degradation\033[0m\n"
)


def warning(text: str) -> str:
    """Return the line that reports a float sum, which prints as `text`."""
    return f"@@@ WARNING: acc {text} is out of bounds <-8388607,8388607>\n"


def _around(values: Sequence[int]) -> list[int]:
    near = {v + d for v in values for d in (-1, 0, 1)}
    return sorted(v for v in near if INT32_MIN <= v <= INT32_MAX)


INT32_BOUNDARY = np.array(
    _around([s * 2**e for e in (1, 7, 8, 15, 16, 23, 24, 30, 31) for s in (1, -1)] + [0, 100, 3]),
    np.int32,
)

FLOAT_BOUNDARY = np.array(
    [
        s * v
        for s in (1.0, -1.0)
        for v in (
            0.0,
            np.nan,
            np.inf,
            float.fromhex("0x1p-149"),  # the smallest subnormal
            float.fromhex("0x1.fffffcp-127"),  # the largest subnormal
            float.fromhex("0x1p-126"),
            2.0**-17,
            2.0**-11,  # a tie of the half-precision quantiser
            3 * 2.0**-11,
            0.5,
            1.0,
            1.5,
            float.fromhex("0x1.fffffep0"),
            2.0,
            2.5,
            3.0,
            127.0,
            128.0,
            129.0,
            32766.0,
            32767.9,
            32768.0,
            40000.0,
            65535.5,
            8388606.5,
            8388607.0,
            8388608.0,
            16777216.0,
            16777218.0,
            2.0**31,
            3e20,
            float.fromhex("0x1.fffffep127"),
        )
    ],
    np.float32,
)

BOUNDARY = {np.int32: INT32_BOUNDARY, np.float32: FLOAT_BOUNDARY}


def random_values(rng: np.random.Generator, dtype: type, shape: Sequence[int]) -> np.ndarray:
    """Return values of every magnitude: random words, random integers, boundary values."""
    words = rng.integers(0, 2**32, shape, dtype=np.uint32).view(np.int32)
    integers = words >> rng.integers(0, 32, shape).astype(np.int32)
    boundary = rng.choice(BOUNDARY[dtype], shape)
    if dtype is np.int32:
        choices = [words, integers, boundary]
    else:
        choices = [words.view(np.float32), integers.astype(np.float32), boundary]
    pick = rng.integers(0, 3, shape)
    return np.where(pick == 0, choices[0], np.where(pick == 1, choices[1], choices[2]))


def small_values(rng: np.random.Generator, dtype: type, shape: Sequence[int]) -> np.ndarray:
    """Return small integers in `dtype`: quantised data."""
    return rng.integers(-20, 21, shape).astype(dtype)


def boundary_pairs(dtype: type) -> tuple[np.ndarray, np.ndarray]:
    """Return every boundary value against every other, as two matrices."""
    values = BOUNDARY[dtype]
    first, second = np.meshgrid(values, values, indexing="ij")
    return np.ascontiguousarray(first), np.ascontiguousarray(second)


# ---- Comparison ------------------------------------------------------------------------------


def _hex(value: np.generic) -> str:
    bits = np.asarray(value).view(f"u{value.dtype.itemsize}")
    return f"{value!s} (0x{int(bits):0{2 * value.dtype.itemsize}x})"


def _shown(inputs: Mapping[str, Any], coordinate: tuple[int, ...], shape: tuple[int, ...]) -> str:
    parts = []
    for name, value in inputs.items():
        if isinstance(value, np.ndarray) and value.shape == shape and value.ndim:
            parts.append(f"{name} there: {_hex(value[coordinate])}")
        elif isinstance(value, np.ndarray) and value.size > 16:
            parts.append(f"{name}: {value.dtype.name}{list(value.shape)}")
        else:
            parts.append(f"{name}: {value}")
    return "; ".join(parts)


def assert_bits(actual: Any, expected: np.ndarray, /, **inputs: Any) -> None:
    """Fail unless both arrays have the same type, shape and bits; any NaN equals any other.

    Args:
        actual: the result, an array or a tensor.
        expected: what it must be.
        **inputs: what it was computed from, for the report; arrays of the result's shape are
            shown at the first mismatch.
    """
    actual = np.asarray(actual)
    expected = np.asarray(expected)
    assert actual.dtype == expected.dtype, f"got {actual.dtype}, expected {expected.dtype}"
    assert actual.shape == expected.shape, (
        f"got shape {actual.shape}, expected {expected.shape}; {_shown(inputs, (), ())}"
    )
    word = f"u{actual.dtype.itemsize}"
    differ = np.ascontiguousarray(actual).view(word) != np.ascontiguousarray(expected).view(word)
    differ = differ.reshape(actual.shape)
    if actual.dtype.kind == "f":
        differ &= ~(np.isnan(actual) & np.isnan(expected))
    if not differ.any():
        return
    coordinate = tuple(int(c[0]) for c in np.nonzero(differ)) if actual.ndim else ()
    raise AssertionError(
        f"{int(differ.sum())} of {differ.size} elements differ, first at {list(coordinate)}: "
        f"got {_hex(actual[coordinate])}, expected {_hex(expected[coordinate])}; "
        f"{_shown(inputs, coordinate, actual.shape)}"
    )


def assert_lines(actual: str, expected: str, /, *, ordered: bool = True, **inputs: Any) -> None:
    """Fail unless both texts have the same lines; a NaN's printed sign carries no meaning.

    Args:
        actual: what was printed.
        expected: what must have been.
        ordered: False where several threads print: then the lines are compared as a bag.
        **inputs: what it was computed from, for the report.
    """
    got = actual.replace("-nan", "nan").splitlines(keepends=True)
    want = expected.replace("-nan", "nan").splitlines(keepends=True)
    if not ordered:
        got, want = sorted(got), sorted(want)
    for i, (a, b) in enumerate(itertools.zip_longest(got, want)):
        if a != b:
            raise AssertionError(
                f"line {i} is {a!r}, expected {b!r} (None: no such line; {len(got)} printed, "
                f"{len(want)} expected); {_shown(inputs, (), (-1,))}"
            )


# ---- Captured output -------------------------------------------------------------------------


class Captured:
    """What was written to the two file descriptors, once the capture is over."""

    out: str = ""
    err: str = ""


def _flush() -> None:
    sys.stdout.flush()
    sys.stderr.flush()
    LIBC.fflush(None)


@contextlib.contextmanager
def printed() -> Iterator[Captured]:
    """Capture file descriptors 1 and 2, C's buffers flushed before and after."""
    captured = Captured()
    _flush()
    saved = os.dup(1), os.dup(2)
    try:
        with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
            os.dup2(out.fileno(), 1)
            os.dup2(err.fileno(), 2)
            try:
                yield captured
            finally:
                LIBC.fflush(None)
                os.dup2(saved[0], 1)
                os.dup2(saved[1], 2)
            out.seek(0)
            err.seek(0)
            captured.out = out.read().decode()
            captured.err = err.read().decode()
    finally:
        os.close(saved[0])
        os.close(saved[1])


# ---- Other processes -------------------------------------------------------------------------


def run_python(
    code: str, *arguments: str, python_path: str | None = None
) -> subprocess.CompletedProcess[str]:
    """Run `code` in a fresh interpreter, away from the checkout, and return what it wrote."""
    environment = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    if python_path is not None:
        environment["PYTHONPATH"] = python_path
    with tempfile.TemporaryDirectory() as folder:
        return subprocess.run(
            [sys.executable, "-c", code, *arguments],
            env=environment,
            cwd=folder,
            capture_output=True,
            text=True,
            timeout=240,
            check=False,
        )


def passes(result: subprocess.CompletedProcess[str]) -> str:
    """Return the standard output of a process that must have succeeded."""
    assert result.returncode == 0, f"{result.stdout}\n{result.stderr}"
    return result.stdout


# ---- The build's flags -----------------------------------------------------------------------


def numerics_flags() -> list[str]:
    """Return the compiler flags of cmake/numerics.cmake that every target gets."""
    text = (ROOT / "cmake" / "numerics.cmake").read_text()
    text = re.sub(r"#.*", "", text)
    unconditional = re.split(r"(?m)^if\s*\(", text)[0]
    flags = []
    for call in re.findall(r"target_compile_options\(([^)]*)\)", unconditional):
        flags += [word for word in call.split() if word.startswith("-")]
    return flags


# ---- The oracle ------------------------------------------------------------------------------

_SUFFIX = {np.dtype(np.int32): "int32", np.dtype(np.float32): "float"}
_C_TYPE = {np.dtype(np.int32): ctypes.c_int32, np.dtype(np.float32): ctypes.c_float}


class Reference:
    """The arithmetic model of tests/reference, on numpy arrays.

    Results come as (output, lines): an array, and the text that the library must print.
    """

    def __init__(self, path: os.PathLike | str):
        """Load the oracle's shared library."""
        self._library = ctypes.CDLL(str(path))
        self._text = ctypes.create_string_buffer(1 << 18)
        library = self._library
        i32, i64, f32 = ctypes.c_int32, ctypes.c_int64, ctypes.c_float
        pointer, text = ctypes.c_void_p, [ctypes.c_char_p, ctypes.c_int64]
        for dtype, suffix in _SUFFIX.items():
            t = _C_TYPE[dtype]
            add = [pointer, pointer, t, f32, i32, i32, i32, i64]
            self._declare(f"reference_add_{suffix}", i64, [*add, pointer, *text])
            self._declare(f"reference_bias_add_{suffix}", i64, [*add, i64, pointer, *text])
            self._declare(f"reference_convolve_{suffix}", i64, [pointer] * 5 + text)
        self._declare("reference_accumulator_int", i64, [i32, i32, i32, pointer, *text])
        self._declare("reference_accumulator_half", f32, [f32, f32])
        self._declare("reference_multiply", i32, [i32, i32])
        self._declare("reference_shift_int", i32, [i32, i32])
        self._declare("reference_shift_half", f32, [i32])
        self._declare("reference_output_size", i32, [i32] * 5)
        self.accumulator_half = library.reference_accumulator_half
        self.multiply = library.reference_multiply
        self.shift_int = library.reference_shift_int
        self.shift_half = library.reference_shift_half

    def _declare(self, name: str, result: type, arguments: list) -> None:
        function = getattr(self._library, name)
        function.restype = result
        function.argtypes = arguments

    def _lines(self, name: str, *arguments: Any) -> str:
        """Call a function that reports lines, with a buffer that holds them all."""
        function = getattr(self._library, name)
        length = function(*arguments, self._text, len(self._text))
        if length >= len(self._text):
            self._text = ctypes.create_string_buffer(2 * length)
            function(*arguments, self._text, len(self._text))
        return self._text.value.decode()

    def accumulator_int(self, a: int, b: int, width: int) -> tuple[int, str]:
        """One addition into an integer accumulator."""
        result = ctypes.c_int32()
        lines = self._lines("reference_accumulator_int", a, b, width, ctypes.addressof(result))
        return result.value, lines

    def add(
        self,
        value: np.ndarray,
        elementwise: np.ndarray,
        *,
        factor: float = 1,
        feed_repeat: float = 1.0,
        mult_shift: int = 0,
        accumulator_size: int = 32,
        use_fp16_acc: bool = False,
        count: int | None = None,
    ) -> tuple[np.ndarray, str]:
        """HAdd over the first `count` elements, all by default; the rest is 0."""
        value, elementwise = np.ascontiguousarray(value), np.ascontiguousarray(elementwise)
        out = np.zeros_like(value)
        lines = self._lines(
            f"reference_add_{_SUFFIX[value.dtype]}",
            value.ctypes.data, elementwise.ctypes.data, factor, feed_repeat, mult_shift,
            accumulator_size, use_fp16_acc, value.size if count is None else count,
            out.ctypes.data,
        )  # fmt: skip
        return out, lines

    def bias_add(
        self,
        value: np.ndarray,
        bias: np.ndarray,
        *,
        factor: float = 1,
        feed_repeat: float = 1.0,
        mult_shift: int = 0,
        accumulator_size: int = 32,
        use_fp16_acc: bool = False,
    ) -> tuple[np.ndarray, str]:
        """HBiasAdd, channels last."""
        value, bias = np.ascontiguousarray(value), np.ascontiguousarray(bias)
        out = np.zeros_like(value)
        lines = self._lines(
            f"reference_bias_add_{_SUFFIX[value.dtype]}",
            value.ctypes.data, bias.ctypes.data, factor, feed_repeat, mult_shift,
            accumulator_size, use_fp16_acc, value.size, value.shape[-1], out.ctypes.data,
        )  # fmt: skip
        return out, lines

    def output_size(self, input: int, filter: int, stride: int, dilation: int, padding: str) -> int:
        """Return the number of outputs along one axis; below 0 the ops refuse."""
        same = padding == "SAME"
        return self._library.reference_output_size(input, filter, stride, dilation, same)

    def convolve(
        self,
        input: np.ndarray,
        filter: np.ndarray,
        elementwise: np.ndarray | None = None,
        *,
        strides: tuple[int, int] = (1, 1),
        dilations: tuple[int, int] = (1, 1),
        padding: str = "SAME",
        mult_shift: int = 0,
        accumulator_size: int = 32,
        use_fp16_acc: bool = False,
        is_depthwise: bool = False,
    ) -> tuple[np.ndarray, str]:
        """Any of the convolutions; an `elementwise` of another size than the output is ignored."""
        input, filter = np.ascontiguousarray(input), np.ascontiguousarray(filter)
        leading = 1 if filter.ndim > 4 else 0
        rows, columns, _, outputs = filter.shape[leading : leading + 4]
        shape = (
            input.shape[0],
            self.output_size(input.shape[1], rows, strides[0], dilations[0], padding),
            self.output_size(input.shape[2], columns, strides[1], dilations[1], padding),
            outputs,
        )
        out = np.zeros(shape, input.dtype)
        pointer = None
        if elementwise is not None and elementwise.size == out.size:
            elementwise = np.ascontiguousarray(elementwise)
            pointer = elementwise.ctypes.data
        parameters = np.array(
            [
                *input.shape, rows, columns, outputs, accumulator_size, *strides, *dilations,
                padding == "SAME", mult_shift, use_fp16_acc, is_depthwise, leading,
            ],
            np.int32,
        )  # fmt: skip
        lines = self._lines(
            f"reference_convolve_{_SUFFIX[input.dtype]}",
            parameters.ctypes.data, input.ctypes.data, filter.ctypes.data, pointer,
            out.ctypes.data,
        )  # fmt: skip
        return out, lines


def find_reference(folder: pathlib.Path) -> pathlib.Path:
    """Return the oracle's library: the given one, one built by CMake, or one built in `folder`."""
    given = os.environ.get("BITFOLD_REFERENCE_LIBRARY")
    if given:
        return pathlib.Path(given)
    source = ROOT / "tests" / "reference"
    files = [source / "reference.cc", source / "reference_c.cc"]
    newest = max(p.stat().st_mtime for p in source.iterdir())
    built = sorted((ROOT / "build" / "tests").glob("**/libbitfold_reference.so"))
    for path in built:
        if path.stat().st_mtime >= newest:
            return path
    path = folder / "libbitfold_reference.so"
    compiler = os.environ.get("CXX", "c++")
    command = [compiler, "-std=c++17", "-O2", "-fPIC", "-shared", *numerics_flags()]
    subprocess.run([*command, "-o", str(path), *map(str, files)], check=True)
    return path
