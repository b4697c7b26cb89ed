# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The oracle of the numeric units on numpy arrays, and the generated ops with its arguments."""

from __future__ import annotations

import ctypes
import functools
import re
import subprocess
from typing import Any

import forks
import numpy as np
import oracle
import support
import tensorflow as tf

from bitfold import fpx, raw_ops

# In the order of registration, which the oracle's is too.
SCALARS = (
    "zero_point",
    "exponent_sub_value",
    "sum_of_x_mult",
    "sum_of_x_shift",
    "sum_of_x_mult_n_shift",
    "x_squared_mult",
    "sum_of_x_squares_shift",
    "epsilon",
    "mul_act_man",
    "mul_act_exp",
    "mul_act_bias",
    "rms_mode_enable",
    "activation_ebias_mode",
    "activation_output_mode",
)

ACTIVATION_TABLES = ("x_points", "offsets", "slopes_m", "slopes_e")
ACTIVATION_SETTINGS = {
    "is_8bit_to_16bit_mode": False,
    "is_velquin": False,
    "ebias": 0,
    "clip_bits": 127,
    "beta": 0,
    "is_16bit_precision_mode": False,
    "is_signed_output": True,
}

OVERFLOW_LINE = "Warning, the softmax sum has overflowed.\n"


# ---- The oracle --------------------------------------------------------------------------------


class Reference(oracle.Oracle):
    """The models of tests/reference for the numeric units; text is what must be printed."""

    def layer_norm(self, value: np.ndarray, lut: np.ndarray, **scalars: int) -> np.ndarray | int:
        """HLayernorm; the failure's number where the unit ends the process."""
        value, lut = np.ascontiguousarray(value), np.ascontiguousarray(lut)
        inputs = (ctypes.c_uint32 * 14)(*(int(scalars[name]) for name in SCALARS))
        fields = (ctypes.c_int64 * 14)()
        self._library.reference_layernorm_fields(inputs, fields)
        out = np.zeros_like(value)
        batch, height, width, channels = value.shape
        status = self._library.reference_layernorm(
            _pointer(value), _pointer(out), channels, width, height, batch, _pointer(lut), fields
        )
        return status or out

    def softmax(
        self, value: np.ndarray, lut_table: np.ndarray, *, is_velquin: bool
    ) -> tuple[np.ndarray, str]:
        """HSoftmax."""
        value, table = np.array(value, order="C"), np.ascontiguousarray(lut_table)
        out = np.zeros_like(value)
        vectors = value.shape[0] if value.ndim > 1 else 1
        lines = self.lines(
            "reference_softmax", _pointer(value), _pointer(out), value.size, vectors,
            _pointer(table), int(is_velquin),
        )  # fmt: skip
        return out, lines

    def activation(
        self, inp: np.ndarray, tables: dict[str, np.ndarray], size_splits: np.ndarray, **settings
    ) -> np.ndarray:
        """HActivation."""
        inp = np.ascontiguousarray(inp)
        parts = [np.ascontiguousarray(tables[name]) for name in ACTIVATION_TABLES]
        pointers = (ctypes.c_void_p * 4)(*(part.ctypes.data for part in parts))
        shapes = (ctypes.c_int64 * 8)(*(size for part in parts for size in part.shape))
        splits = np.ascontiguousarray(size_splits)
        words = {**ACTIVATION_SETTINGS, **settings}
        numbers = (ctypes.c_int32 * 7)(*(int(words[name]) for name in ACTIVATION_SETTINGS))
        out = np.zeros(inp.shape, np.int32)
        positions = int(np.prod(inp.shape[:3], dtype=np.int64))
        status = self._library.reference_activation(
            _pointer(inp), ctypes.c_int64(positions), ctypes.c_int64(inp.shape[3]), pointers,
            shapes, _pointer(splits), ctypes.c_int64(splits.size), numbers, _pointer(out),
        )  # fmt: skip
        assert status == 0, f"the oracle refuses with {status}"
        return out

    def quantize(self, values: np.ndarray, exp_len: int, man_len: int) -> tuple[np.ndarray, list]:
        """float32_toX over an array: the values and how far the four counters moved."""
        values = np.array(values, np.float32, order="C")
        out = np.zeros(values.shape, fpx.DTYPE)
        counters = (ctypes.c_int32 * 4)()
        self.lines(
            "reference_fpx_from_float", _pointer(values), values.size, exp_len, man_len,
            _pointer(out), counters,
        )  # fmt: skip
        return out, list(counters)

    def to_float(self, values: np.ndarray) -> np.ndarray:
        """floatX_to32 over an array."""
        values = np.array(values, order="C")
        out = np.zeros(values.shape, np.float32)
        self.lines("reference_fpx_to_float", _pointer(values), values.size, _pointer(out))
        return out

    def resize(self, values: np.ndarray, exp_len: int, man_len: int) -> tuple[np.ndarray, list]:
        """ResizeX over an array: the values and how far the four counters moved."""
        out = np.array(values, order="C")
        counters = (ctypes.c_int32 * 4)()
        self.lines("reference_fpx_resize", _pointer(out), out.size, exp_len, man_len, counters)
        return out, list(counters)

    def binary(self, name: str, a: np.ndarray, b: np.ndarray) -> np.ndarray:
        """Add or multiply arrays of one shape and format, into zeros of the format."""
        a, b = np.array(a, order="C"), np.array(b, order="C")
        out = np.zeros(a.shape, fpx.DTYPE)
        out["exp_len"], out["man_len"] = a["exp_len"], a["man_len"]
        self.lines(f"reference_fpx_{name}", _pointer(a), _pointer(b), _pointer(out), a.size)
        return out


def _pointer(array: np.ndarray) -> ctypes.c_void_p:
    return ctypes.c_void_p(array.ctypes.data)


@functools.cache
def reference() -> Reference:
    """Return the oracle, loaded once."""
    return Reference()


# ---- The generated ops -------------------------------------------------------------------------


def layer_norm(value: Any, lut: Any, **scalars: int) -> tf.Tensor:
    """HLayernorm."""
    inputs = {name: np.array([scalars[name]], np.uint32) for name in SCALARS}
    return raw_ops.h_layernorm(value=value, lut=lut, **inputs)


def softmax(value: Any, lut_table: Any, *, is_velquin: bool) -> tf.Tensor:
    """HSoftmax."""
    return raw_ops.h_softmax(value, lut_table, is_velquin=is_velquin)


def activation(inp: Any, tables: dict[str, Any], size_splits: Any, **settings: Any) -> tf.Tensor:
    """HActivation."""
    return raw_ops.h_activation(
        inp=inp, size_splits=size_splits, **tables, **{**ACTIVATION_SETTINGS, **settings}
    )


# ---- Data --------------------------------------------------------------------------------------


def plain_lut() -> np.ndarray:
    """Return inverse square roots with slopes, as the layer normalisation reads them."""
    lut = np.zeros(256, np.float32)
    for i in range(64, 256):
        here, after = (int(65532 / (k / 64) ** 0.5) for k in (i, i + 1))
        lut[i] = here + ((here - after + 128) // 256 << 16)
    return lut


def plain_scalars(channels: int, zero_point: int = 0) -> dict[str, int]:
    """Return a usual setting for vectors of `channels` elements."""
    log2 = max(channels - 1, 0).bit_length()
    return {
        "zero_point": zero_point,
        "exponent_sub_value": log2 + 4,
        "sum_of_x_mult": 2 ** (log2 + 7) // max(channels, 1),
        "sum_of_x_shift": 0,
        "sum_of_x_mult_n_shift": log2 + 7,
        "x_squared_mult": channels,
        "sum_of_x_squares_shift": 0,
        "epsilon": 1,
        "mul_act_man": 91,
        "mul_act_exp": 4,
        "mul_act_bias": 131072,
        "rms_mode_enable": 0,
        "activation_ebias_mode": 0,
        "activation_output_mode": 0,
    }


def softmax_table(
    exponentials: np.ndarray, sums: np.ndarray, reciprocals: np.ndarray
) -> np.ndarray:
    """Pack 256 rows into 512 words."""
    rows = np.zeros([256, 2], np.uint32)
    rows[:, 0] = exponentials.astype(np.uint32) | sums.astype(np.uint32) << np.uint32(16)
    rows[:, 1] = sums.astype(np.uint32) >> np.uint32(16) | reciprocals.astype(np.uint32) << 8
    return rows.ravel()


def plain_softmax_table() -> np.ndarray:
    """Return falling exponentials and sums, and rising reciprocals."""
    k = np.arange(256)
    return softmax_table(65535 * np.exp(-k / 24) // 1, 16777215 * 0.96**k // 1, k)


def random_int64(rng: np.random.Generator, shape: Any) -> np.ndarray:
    """Return int64 values of every magnitude."""
    words = rng.integers(-(2**63), 2**63, shape, dtype=np.int64)
    return words >> rng.integers(0, 64, shape)


# ---- Processes that end ------------------------------------------------------------------------

_PRELUDE = """
import numpy as np
import tensorflow as tf
import bitfold
import units
"""


def run(code: str) -> subprocess.CompletedProcess[str]:
    """Run `code`, which finds numpy, TensorFlow and this module, in a process of its own."""
    return forks.run(_PRELUDE + code)


def ends_with(code: str, file: str, function: str, expression: str) -> None:
    """Run `code` in a process of its own, which an assertion must end with its message."""
    result = run(code + "\nprint('survived', flush=True)\n")
    assert "survived" not in result.stdout, "the process did not end"
    assert result.returncode == -6, f"ended with {result.returncode}: {result.stderr}"
    pattern = rf"{re.escape(file)}:\d+: {re.escape(function)}: "
    pattern += rf"Assertion `{re.escape(expression)}' failed\."
    assert re.search(pattern, result.stderr), result.stderr


def survives(code: str) -> str:
    """Run `code` in a process of its own and return what it printed."""
    return support.passes(run(code))
