# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the tests share: captured output, comparison on bits, values worth trying.

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
import pytest

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
MATMUL_RED_LINE = RED_LINE.replace("DW", "matmul")


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
    """Run `code` in a fresh interpreter, away from the checkout, and return what it wrote.

    A test that does so takes seconds and is skipped where BITFOLD_QUICK is set.
    """
    if os.environ.get("BITFOLD_QUICK"):
        pytest.skip("starts another interpreter, which takes seconds: make test runs it")
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
