# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The narrow floats: `bitfold.fpx`, the C functions by ctypes, and a C program."""

from __future__ import annotations

import ctypes
import os
import pathlib
import re
import shutil
import subprocess

import hypothesis
import hypothesis.strategies as st
import numpy as np
import pytest
import support

import bitfold
import units
from bitfold import fpx

FORMATS = [(e, m) for e in (3, 4) for m in (1, 2, 4, 5, 8, 16, 24)]


def fields(values):
    """Return the fields apart from the bytes between them."""
    return [values[name].copy() for name in fpx.DTYPE.names]


def assert_same(actual, expected, **inputs):
    """Compare every field of two arrays."""
    assert actual.dtype == fpx.DTYPE
    assert actual.shape == expected.shape
    for name in fpx.DTYPE.names:
        support.assert_bits(
            np.ascontiguousarray(actual[name]), np.ascontiguousarray(expected[name]), **inputs
        )


def random_values(rng, exp_len, man_len, shape):
    """Return any values of a format, not all of them normalised."""
    values = np.zeros(shape, fpx.DTYPE)
    values["exp_len"], values["man_len"] = exp_len, man_len
    values["mantissa"] = rng.integers(0, 2**man_len, shape)
    values["mantissa"] |= np.where(rng.integers(0, 4, shape), 1 << (man_len - 1), 0).astype("u4")
    values["exponent"] = rng.integers(0, 2**exp_len, shape)
    values["sign"] = rng.integers(0, 2, shape)
    return values


# ---- Arrays ------------------------------------------------------------------------------------


@pytest.mark.parametrize(("exp_len", "man_len"), FORMATS)
def test_quantize(exp_len, man_len):
    """Boundary and random floats against the oracle, counters included."""
    rng = np.random.default_rng([exp_len, man_len])
    floats = support.random_values(rng, np.float32, (40, 50))
    floats[:20] = np.ldexp(rng.random((20, 50)), rng.integers(-14, 6, (20, 50)))
    before = fpx.counters()
    actual = fpx.quantize(floats, exp_len, man_len)
    moved = [b - a for a, b in zip(before, fpx.counters(), strict=True)]
    expected, counts = units.reference().quantize(floats, exp_len, man_len)
    assert_same(actual, expected, floats=floats)
    assert moved == counts
    support.assert_bits(fpx.to_float(actual), units.reference().to_float(expected))


@pytest.mark.parametrize(("exp_len", "man_len"), FORMATS)
def test_resize(exp_len, man_len):
    """Every format to every other, wider ones included; the values stay as they are."""
    rng = np.random.default_rng([7, exp_len, man_len])
    values = random_values(rng, exp_len, man_len, (100,))
    kept = fields(values)
    for target in FORMATS:
        before = fpx.counters()
        actual = fpx.resize(values, *target)
        moved = [b - a for a, b in zip(before, fpx.counters(), strict=True)]
        expected, counts = units.reference().resize(values, *target)
        assert_same(actual, expected)
        assert moved == counts
    for was, now in zip(kept, fields(values), strict=True):
        support.assert_bits(now, was)


@pytest.mark.filterwarnings("ignore")
@pytest.mark.parametrize("name", ["add", "multiply"])
@pytest.mark.parametrize(("exp_len", "man_len"), FORMATS)
def test_binary(name, exp_len, man_len, printed):
    """Any pair, normalised or not."""
    rng = np.random.default_rng([9, exp_len, man_len])
    a, b = (random_values(rng, exp_len, man_len, (30, 30)) for _ in range(2))
    with printed():  # results that are not normalised are logged
        actual = getattr(fpx, name)(a, b)
        swapped = getattr(fpx, name)(b, a)
    assert_same(actual, units.reference().binary(name, a, b))
    assert_same(swapped, units.reference().binary(name, b, a))


@hypothesis.settings(derandomize=True, deadline=None)
@hypothesis.given(
    values=st.lists(st.floats(width=32) | st.floats(-16, 16, width=32), max_size=20),
    other=st.floats(-16, 16, width=32),
    exp_len=st.sampled_from([3, 4]),
    man_len=st.integers(1, 24),
)
def test_property(values, other, exp_len, man_len):
    """Quantised floats added and multiplied, broadcast against one."""
    oracle = units.reference()
    x = fpx.quantize(values, exp_len, man_len)
    y = fpx.quantize(other, exp_len, man_len)
    assert_same(x, oracle.quantize(np.float32(values), exp_len, man_len)[0])
    full = np.broadcast_to(y, x.shape)
    assert_same(fpx.add(x, y), oracle.binary("add", x, full))
    assert_same(fpx.multiply(y, x), oracle.binary("multiply", full, x))


@pytest.mark.parametrize("shape", [(), (0,), (1,), (3, 0, 2), (2, 3, 4)])
def test_shapes(shape):
    """Every function keeps the shape, rank 0 included."""
    x = fpx.quantize(np.ones(shape), 4, 4)
    for result in (x, fpx.resize(x, 3, 3), fpx.add(x, x), fpx.multiply(x, x)):
        assert result.shape == shape
        assert result.dtype == fpx.DTYPE
    floats = fpx.to_float(x)
    assert (floats.shape, floats.dtype) == (shape, np.float32)


def test_broadcasting():
    """As numpy broadcasts."""
    a = fpx.quantize([[1.0], [2.0]], 4, 8)
    b = fpx.quantize([0.5, 1.0, 1.5], 4, 8)
    assert fpx.to_float(fpx.add(a, b)).tolist() == [[1.5, 2.0, 2.5], [2.5, 3.0, 3.5]]
    assert fpx.to_float(fpx.multiply(b, a)).tolist() == [[0.5, 1.0, 1.5], [1.0, 2.0, 3.0]]
    with pytest.raises(ValueError, match="broadcast"):
        fpx.add(fpx.quantize([1.0, 2.0], 4, 8), b)


def test_strided_arrays():
    """Views are read as they are."""
    x = fpx.quantize(np.arange(12).reshape(3, 4), 4, 4)
    expected = fpx.to_float(x)
    support.assert_bits(fpx.to_float(x[:, ::2]), np.ascontiguousarray(expected[:, ::2]))
    support.assert_bits(fpx.to_float(x.T), np.ascontiguousarray(expected.T))
    assert_same(fpx.add(x[::-1], x[::-1]), fpx.add(x, x)[::-1])


@pytest.mark.parametrize("widths", [(2, 4), (5, 4), (0, 4), (4, 0), (4, 25), (4, -1), (3, 255)])
def test_other_widths_are_refused(widths):
    """The format's own range."""
    text = f"Need exp_len of 3 or 4 and man_len of 1 to 24, got exp_len {widths[0]} and man_len "
    text += f"{widths[1]}"
    with pytest.raises(ValueError, match=re.escape(text)):
        fpx.quantize([1.0], *widths)
    with pytest.raises(ValueError, match=re.escape(text)):
        fpx.resize(fpx.quantize([1.0], 4, 4), *widths)


@pytest.mark.parametrize("widths", [(4.0, 4.5), ("4", 4), (4, None)])
def test_widths_that_are_no_integers_are_refused(widths):
    """A fraction must not be dropped silently."""
    with pytest.raises((TypeError, ValueError, ctypes.ArgumentError)):
        fpx.quantize([1.0], *widths)


def test_other_arrays_are_refused():
    """The error names the argument and its type."""
    x = fpx.quantize([1.0], 4, 4)
    with pytest.raises(TypeError, match=r"values must be an array of fpx.DTYPE .*, got float64"):
        fpx.to_float(np.ones(1))
    with pytest.raises(TypeError, match="values must be an array"):
        fpx.resize([1.0], 4, 4)
    with pytest.raises(TypeError, match="a must be an array"):
        fpx.add(np.ones(1), x)
    with pytest.raises(TypeError, match="b must be an array"):
        fpx.multiply(x, np.ones(1))


def test_different_widths_are_refused():
    """Between operands and within one."""
    x, y = fpx.quantize([1.0, 2.0], 4, 4), fpx.quantize([1.0, 2.0], 4, 5)
    for call in (fpx.add, fpx.multiply):
        with pytest.raises(ValueError, match="a and b must have one width"):
            call(x, y)
        mixed = np.zeros(2, fpx.DTYPE)
        mixed[0], mixed[1] = x[0], y[0]
        with pytest.raises(ValueError, match="a and b must have one width"):
            call(mixed, mixed)


def test_concatenated_arrays():
    """Joining arrays, numpy packs the fields; the values are the same."""
    x = fpx.quantize([1.0, 2.0], 4, 4)
    assert fpx.to_float(np.concatenate([x, x])).tolist() == [1.0, 2.0, 1.0, 2.0]
    assert fpx.to_float(np.stack([x, x])).tolist() == [[1.0, 2.0]] * 2


@pytest.mark.parametrize(
    ("value", "field", "number"),
    [
        (1000.0, "to_overflow", 1),
        (1e-9, "to_underflow", 1),
        (np.inf, "to_overflow", 1),
        (0.0, "to_underflow", 0),
    ],
)
def test_counters_of_conversions(value, field, number):
    """A snapshot; only the field at hand moves."""
    before = fpx.counters()
    fpx.quantize([value], 4, 4)
    assert fpx.counters()._replace(**{field: getattr(before, field)}) == before
    assert getattr(fpx.counters(), field) - getattr(before, field) == number


def test_counters_start_at_zero():
    """And belong to the process: the C functions move the same ones."""
    output = units.survives("""
from bitfold import fpx
import ctypes
print(tuple(fpx.counters()))
library = ctypes.CDLL(bitfold.library_path())
x = fpx._Value(4, 4, 0, 0, 0)
library.float32_toX.argtypes = [ctypes.c_float, ctypes.c_void_p]
library.float32_toX(1e9, ctypes.byref(x))
fpx.resize(fpx.quantize([2.0**-9], 4, 4), 3, 4)
print(tuple(fpx.counters()))
""")
    assert output.splitlines() == ["(0, 0, 0, 0)", "(1, 0, 0, 1)"]


def test_unknown_widths_log():
    """The runtime's log at error severity, each time the bias is asked for."""
    library = ctypes.CDLL(bitfold.library_path())
    with support.printed() as text:
        assert library.get_bias(7) == 0
        assert library.get_bias(4) == 11
    (line,) = text.err.splitlines()
    assert line.startswith("E")
    assert line.endswith("Wrong Explen")
    assert text.out == ""


def test_results_that_are_not_normalised_are_logged():
    """With the bits of the result."""
    x = np.zeros(1, fpx.DTYPE)
    x["exp_len"], x["man_len"], x["exponent"], x["mantissa"] = 4, 4, 12, 1
    with support.printed() as text:
        fpx.add(x, x)
    (line,) = text.err.splitlines()
    assert line.endswith("Possible bug in addition/subtraction: 0 1100 0010")


# ---- The C functions ---------------------------------------------------------------------------


class BitField(ctypes.Structure):
    """The C structure with its bit-field, which shares the exponent's word."""

    _fields_ = (
        ("exp_len", ctypes.c_uint8),
        ("man_len", ctypes.c_uint8),
        ("mantissa", ctypes.c_uint32),
        ("exponent", ctypes.c_uint16),
        ("sign", ctypes.c_uint16, 1),
    )


def test_layout():
    """By ctypes the declared structure is laid out as the array's type is."""
    assert ctypes.sizeof(BitField) == fpx.DTYPE.itemsize == 12
    for name in ("exp_len", "man_len", "mantissa", "exponent"):
        assert getattr(BitField, name).offset == fpx.DTYPE.fields[name][1]
    x = BitField(sign=1)
    assert np.frombuffer(bytes(x), fpx.DTYPE)["sign"].tolist() == [1]


def test_arrays_by_ctypes():
    """Created, resized and read back by a caller that knows the header alone."""
    library = ctypes.CDLL(bitfold.library_path())
    library.CreateFPXArray_fromFloat32.restype = ctypes.c_void_p
    library.ReplaceFPXArray_fromFPXArray.restype = ctypes.c_void_p
    floats = np.float32([1.0, -3.0, 1.2, 14.0])
    out = np.zeros(4, np.float32)
    data = ctypes.c_void_p(floats.ctypes.data)
    array = library.CreateFPXArray_fromFloat32(data, 4, 4, 8)
    result = library.ReplaceFPXArray_fromFPXArray(ctypes.c_void_p(array), 4, 3, 4)
    assert result == array
    library.OverrideFloatArray_fromFPX(ctypes.c_void_p(array), ctypes.c_void_p(out.ctypes.data), 4)
    assert out.tolist() == [1.0, -3.0, 1.25, 14.0]
    library.DeleteInputFPX(None)


def test_c_program(tmp_path):
    """ISO C against the installed header and library, every warning an error."""
    compiler = next((c for c in (os.environ.get("CC"), "cc", "gcc") if c and shutil.which(c)), None)
    if compiler is None:
        pytest.skip("no C compiler is installed")
    library = pathlib.Path(bitfold.library_path())
    program = tmp_path / "fpx_test"
    command = [compiler, "-std=c11", "-Wall", "-Wextra", "-Werror", "-pedantic"]
    command += [str(support.ROOT / "tests" / "c" / "fpx_test.c"), f"-I{bitfold.include_dir()}"]
    command += ["-o", str(program), str(library), f"-Wl,-rpath,{library.parent}"]
    command += ["-Wl,--allow-shlib-undefined"]
    built = subprocess.run(command, capture_output=True, text=True, check=False)
    assert built.returncode == 0, built.stderr
    output = subprocess.run([program], capture_output=True, text=True, check=False, env={})
    assert re.fullmatch(r"fpx: \d+ checks passed\n", support.passes(output))
