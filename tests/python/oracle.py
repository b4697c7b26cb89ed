# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The models of tests/reference on numpy arrays, called with the same arguments as in raw.py."""

from __future__ import annotations

import ctypes
import functools
import os
import pathlib
import re
import subprocess
import tempfile
from typing import Any

import numpy as np
import support

_SUFFIX = {np.dtype(np.int32): "int32", np.dtype(np.float32): "float"}
_SOURCE = support.ROOT / "tests" / "reference"
_LOG_CAPACITY = 1024
# A function of the C interface: its result, its name and its parameters.
_FUNCTION = re.compile(r"(?m)^(\w+) (reference_\w+)\(([^)]*)\) \{")


@functools.cache
def library() -> ctypes.CDLL:
    """Return the oracle's library, its functions declared as its C interface has them."""
    found = _load()
    for source in sorted(_SOURCE.glob("*_c.cc")):
        for result, name, parameters in _FUNCTION.findall(source.read_text()):
            function = getattr(found, name)
            function.restype = _c_type(result)
            function.argtypes = [_c_type(p) for p in parameters.split(",") if p]
    return found


def _c_type(declared: str) -> Any:
    """Return the type of a result or of a parameter with its name."""
    if "*" in declared:
        return ctypes.c_void_p
    name = declared.split()[0].removesuffix("_t")
    return None if name == "void" else getattr(ctypes, f"c_{name}")


def _load() -> ctypes.CDLL:
    """Return the library: the given one, one built by CMake, or one built now."""
    given = os.environ.get("BITFOLD_REFERENCE_LIBRARY")
    if given:
        return ctypes.CDLL(given)
    newest = max(p.stat().st_mtime for p in _SOURCE.iterdir())
    for path in sorted((support.ROOT / "build" / "tests").glob("**/libbitfold_reference.so")):
        if path.stat().st_mtime >= newest:
            return ctypes.CDLL(str(path))
    files = [p for p in _SOURCE.glob("*.cc") if not p.stem.endswith("_selftest")]
    command = [os.environ.get("CXX", "c++"), "-std=c++17", "-O2", "-fPIC", "-shared"]
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder) / "libbitfold_reference.so"
        command += [*support.numerics_flags(), "-o", str(path)]
        subprocess.run([*command, *map(str, files)], check=True)
        return ctypes.CDLL(str(path))


class Oracle:
    """The library and a buffer for what its functions report.

    A test that alone needs a model calls its function of tests/reference/*_c.cc by `lines`.
    """

    def __init__(self) -> None:
        """Load the oracle's shared library."""
        self._library = library()
        self._text = ctypes.create_string_buffer(1 << 18)

    def lines(self, name: str, *arguments: Any) -> str:
        """Call a function that reports text, with a buffer that holds it all."""
        function = getattr(self._library, name)
        length = function(*arguments, self._text, len(self._text))
        if length >= len(self._text):
            self._text = ctypes.create_string_buffer(2 * length)
            function(*arguments, self._text, len(self._text))
        return self._text.value.decode()


class Reference(Oracle):
    """The additions, the products, the resize and the detection operations.

    Results come as (output, lines): an array, and the text that the library must print.
    """

    def __init__(self) -> None:
        """Load the oracle and name the functions that need nothing around them."""
        super().__init__()
        self.accumulator_half = self._library.reference_accumulator_half
        self.multiply = self._library.reference_multiply
        self.shift_int = self._library.reference_shift_int
        self.shift_half = self._library.reference_shift_half

    def accumulator_int(self, a: int, b: int, width: int) -> tuple[int, str]:
        """One addition into an integer accumulator."""
        result = ctypes.c_int32()
        lines = self.lines("reference_accumulator_int", a, b, width, ctypes.addressof(result))
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
        value, elementwise = map(np.ascontiguousarray, (value, elementwise))
        out = np.zeros_like(value)
        lines = self.lines(
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
        value, bias = map(np.ascontiguousarray, (value, bias))
        out = np.zeros_like(value)
        lines = self.lines(
            f"reference_bias_add_{_SUFFIX[value.dtype]}",
            value.ctypes.data, bias.ctypes.data, factor, feed_repeat, mult_shift,
            accumulator_size, use_fp16_acc, value.size, value.shape[-1], out.ctypes.data,
        )  # fmt: skip
        return out, lines

    def decomposed_bias_add(
        self,
        value: np.ndarray,
        bias_a: np.ndarray,
        bias_b: np.ndarray,
        *,
        factor_a: float = 1,
        factor_b: float = 1,
        feed_repeat: float = 1.0,
        mult_shift: int = 0,
        accumulator_size: int = 32,
        use_fp16_acc: bool = False,
    ) -> tuple[np.ndarray, str]:
        """HDecomposedBiasAdd, channels last."""
        value, bias_a, bias_b = map(np.ascontiguousarray, (value, bias_a, bias_b))
        out = np.zeros_like(value)
        lines = self.lines(
            f"reference_decomposed_bias_add_{_SUFFIX[value.dtype]}",
            value.ctypes.data, bias_a.ctypes.data, bias_b.ctypes.data, factor_a, factor_b,
            feed_repeat, mult_shift, accumulator_size, use_fp16_acc, value.size, value.shape[-1],
            out.ctypes.data,
        )  # fmt: skip
        return out, lines

    def weighted_add(
        self,
        value: np.ndarray,
        elementwise: np.ndarray,
        weights: np.ndarray,
        *,
        mult_shift: int = 0,
        accumulator_size: int = 32,
        use_fp16_acc: bool = False,
    ) -> tuple[np.ndarray, str]:
        """HStandaloneElementwiseAdd; of other ranks than 4 over d0 rows of d1 channels."""
        value, elementwise, weights = map(np.ascontiguousarray, (value, elementwise, weights))
        out = np.zeros_like(value)
        count = value.size if value.ndim == 4 else value.shape[0] * value.shape[1]
        lines = self.lines(
            f"reference_standalone_add_{_SUFFIX[value.dtype]}",
            value.ctypes.data, elementwise.ctypes.data, weights.ctypes.data, mult_shift,
            accumulator_size, use_fp16_acc, count, value.shape[3 if value.ndim == 4 else 1],
            out.ctypes.data,
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
        lines = self.lines(
            f"reference_convolve_{_SUFFIX[input.dtype]}",
            parameters.ctypes.data, input.ctypes.data, filter.ctypes.data, pointer,
            out.ctypes.data,
        )  # fmt: skip
        return out, lines

    def matmul(
        self,
        a: np.ndarray,
        b: np.ndarray,
        *,
        mult_shift: int = 0,
        accumulator_size: int = 32,
        use_fp16_acc: bool = False,
    ) -> tuple[Any, ...]:
        """HMatmul, one entry of the batch after the other; then the messages logged as errors."""
        a, b = map(np.ascontiguousarray, (a, b))
        shape = list(a.shape)
        shape[b.ndim - 1] = b.shape[-1]
        out = np.zeros(shape, a.dtype)
        lines, messages = "", []
        for entry in range(a.shape[0] if a.ndim > 2 else 1):
            log = ctypes.create_string_buffer(_LOG_CAPACITY)
            length = ctypes.c_int64()
            lines += self.lines(
                f"reference_matmul_{_SUFFIX[a.dtype]}",
                a.ctypes.data, b.ctypes.data, a.shape[-1], a.shape[-2], b.shape[-1], b.shape[-2],
                entry, accumulator_size, mult_shift, use_fp16_acc, out.ctypes.data,
                ctypes.addressof(length), log, _LOG_CAPACITY,
            )  # fmt: skip
            messages += log.value.decode().splitlines()
        return out, lines, *messages

    def bilinear(
        self,
        *inputs: np.ndarray,
        bias: float = 0.0,
        mult_shift: int = 0,
        accumulator_size: int = 32,
        float_accumulator: bool = False,
    ) -> tuple[np.ndarray, str]:
        """HBilinear on four neighbours and four weights."""
        inputs = [np.ascontiguousarray(x) for x in inputs]
        out = np.zeros_like(inputs[0])
        neighbours, weights = _pointers(inputs[:4]), _pointers(inputs[4:])
        batch = out.shape[0]
        lines = self.lines(
            f"reference_bilinear_{_SUFFIX[out.dtype]}",
            neighbours, weights, out.size // batch, batch, mult_shift, bias, accumulator_size,
            float_accumulator, out.ctypes.data,
        )  # fmt: skip
        return out, lines

    def decode_boxes(self, *inputs: np.ndarray, **arguments: Any) -> tuple[np.ndarray, str]:
        """HBboxDecoder on ten inputs."""
        return self._decode("decode_boxes", inputs, **arguments)

    def decode_boxes_single_weight(
        self, *inputs: np.ndarray, **arguments: Any
    ) -> tuple[np.ndarray, str]:
        """HSingleWeightPerProposalBboxDecoder on eight inputs."""
        return self._decode("decode_boxes_single_weight", inputs, **arguments)

    def _decode(
        self, name, inputs, *, mult_shift=0, accumulator_size=32, use_fp16_acc=False
    ) -> tuple[np.ndarray, str]:
        inputs = [np.ascontiguousarray(x) for x in inputs]
        *positions, last = inputs[0].shape
        out = np.zeros([*positions, 2 * last], inputs[0].dtype)
        lines = self.lines(
            f"reference_{name}_{_SUFFIX[out.dtype]}",
            _pointers(inputs), *positions, last // 2, accumulator_size, mult_shift, use_fp16_acc,
            out.ctypes.data,
        )  # fmt: skip
        return out, lines

    def nms(
        self,
        value: np.ndarray,
        scores_threshold: float,
        *,
        iou_threshold: float,
        max_output_size: int,
        classes: int = 1,
        debug_precise_numeric: bool = False,
        is_velquin: bool = False,
    ) -> tuple[np.ndarray, list[str]]:
        """HNMS: the frames, and the messages that are logged as information."""
        value = np.ascontiguousarray(value)
        flags = [classes, debug_precise_numeric, is_velquin]
        settings = np.array([*value.shape, *flags], np.int32)
        thresholds = np.array([scores_threshold, iou_threshold, max_output_size], np.float32)
        out = np.zeros([value.shape[0], classes, int(max_output_size), 5], np.float32)
        rows = np.zeros(out.shape[:2], np.int64)
        length = ctypes.c_int64()
        text = self.lines(
            "reference_nms",
            settings.ctypes.data, thresholds.ctypes.data, value.ctypes.data, rows.ctypes.data,
            out.ctypes.data, out.size, ctypes.addressof(length),
        )  # fmt: skip
        assert (rows == max_output_size).all(), "the oracle's frames have other lengths"
        return out, text.split("\x1e")[:-1]


def _pointers(arrays: list[np.ndarray]) -> ctypes.Array:
    return (ctypes.c_void_p * len(arrays))(*(array.ctypes.data for array in arrays))
