# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Model files of a single operator, packed by hand: what no converter writes.

    case = packed.operator(
        "ADD",
        inputs=[packed.tensor([1, 3, 4], "int8", 0.5, 3), packed.tensor([1, 3, 4], "int8", 0.25)],
        outputs=[packed.tensor([1, 3, 4], "int8", 1.0, -128)],
        options={"fused_activation_function": "RELU6"},
    )
    packed.compare(case)  # all stored values, seeded, for one image and for several

The files are written from schema objects here and not by the package, so that a mistake of its
reader cannot cancel out against the same mistake of its writer.
"""

from __future__ import annotations

import dataclasses
from collections.abc import Mapping, Sequence
from typing import Any

import comparing
import flatbuffers
import numpy as np
from tensorflow.lite.python import schema_py_generated as schema

_TYPES = {
    name: getattr(schema.TensorType, name.upper())
    for name in ("int8", "uint8", "int16", "int32", "int64", "float32", "bool")
}
# The options of each kind; none where a kind is not named.
_OPTIONS = {
    "ABS": "Abs",
    "ADD": "Add",
    "AVERAGE_POOL_2D": "Pool2D",
    "BATCH_MATMUL": "BatchMatMul",
    "BATCH_TO_SPACE_ND": "BatchToSpaceND",
    "BROADCAST_TO": "BroadcastTo",
    "CAST": "Cast",
    "CONCATENATION": "Concatenation",
    "CONV_2D": "Conv2D",
    "COS": "Cos",
    "DEPTHWISE_CONV_2D": "DepthwiseConv2D",
    "DEPTH_TO_SPACE": "DepthToSpace",
    "DEQUANTIZE": "Dequantize",
    "DIV": "Div",
    "EQUAL": "Equal",
    "EXP": "Exp",
    "EXPAND_DIMS": "ExpandDims",
    "FLOOR_DIV": "FloorDiv",
    "FLOOR_MOD": "FloorMod",
    "FULLY_CONNECTED": "FullyConnected",
    "GATHER": "Gather",
    "GELU": "Gelu",
    "GREATER": "Greater",
    "GREATER_EQUAL": "GreaterEqual",
    "HARD_SWISH": "HardSwish",
    "L2_NORMALIZATION": "L2Norm",
    "LEAKY_RELU": "LeakyRelu",
    "LESS": "Less",
    "LESS_EQUAL": "LessEqual",
    "LOG_SOFTMAX": "LogSoftmax",
    "MAXIMUM": "MaximumMinimum",
    "MAX_POOL_2D": "Pool2D",
    "MEAN": "Reducer",
    "MINIMUM": "MaximumMinimum",
    "MIRROR_PAD": "MirrorPad",
    "MUL": "Mul",
    "NEG": "Neg",
    "NOT_EQUAL": "NotEqual",
    "PACK": "Pack",
    "PAD": "Pad",
    "PADV2": "PadV2",
    "POW": "Pow",
    "QUANTIZE": "Quantize",
    "REDUCE_MAX": "Reducer",
    "REDUCE_MIN": "Reducer",
    "REDUCE_PROD": "Reducer",
    "RESHAPE": "Reshape",
    "RESIZE_BILINEAR": "ResizeBilinear",
    "RESIZE_NEAREST_NEIGHBOR": "ResizeNearestNeighbor",
    "REVERSE_V2": "ReverseV2",
    "SELECT": "Select",
    "SELECT_V2": "SelectV2",
    "SHAPE": "Shape",
    "SLICE": "Slice",
    "SOFTMAX": "Softmax",
    "SPACE_TO_BATCH_ND": "SpaceToBatchND",
    "SPACE_TO_DEPTH": "SpaceToDepth",
    "SPLIT": "Split",
    "SPLIT_V": "SplitV",
    "SQUARE": "Square",
    "SQUARED_DIFFERENCE": "SquaredDifference",
    "SQUEEZE": "Squeeze",
    "STRIDED_SLICE": "StridedSlice",
    "SUB": "Sub",
    "SUM": "Reducer",
    "TILE": "Tile",
    "TRANSPOSE": "Transpose",
    "TRANSPOSE_CONV": "TransposeConv",
    "UNPACK": "Unpack",
}
# Enumerations of options, which are given by name.
_ENUMERATIONS = {
    "fused_activation_function": schema.ActivationFunctionType,
    "padding": schema.Padding,
    "mode": schema.MirrorPadMode,
    "weights_format": schema.FullyConnectedOptionsWeightsFormat,
    "quantized_bias_type": schema.TensorType,
    "out_type": schema.TensorType,
    "in_data_type": schema.TensorType,
    "out_data_type": schema.TensorType,
}


@dataclasses.dataclass(frozen=True, eq=False)
class Tensor:
    """A tensor to pack; see `tensor`."""

    shape: tuple[int, ...]
    dtype: str
    scales: tuple[float, ...] | None
    zero_points: tuple[int, ...]
    axis: int
    data: np.ndarray | None


@dataclasses.dataclass(frozen=True, eq=False)
class Case:
    """A packed file.

    Attributes:
        content: the file.
        label: what messages call it: the call that made it.
        inputs: the tensors that the caller gives, in the file's order.
        operators: what was packed, (kind, inputs, outputs, options, version) each.
        data: what to give where the operator does not take every stored value; else None.
    """

    content: bytes
    label: str
    inputs: tuple[Tensor, ...]
    operators: tuple[tuple, ...]
    data: tuple[np.ndarray, ...] | None = None


def tensor(
    shape: Sequence[int],
    dtype: str,
    scale: float | Sequence[float] | None = None,
    zero_point: int = 0,
    *,
    axis: int = 0,
    data: Any = None,
) -> Tensor:
    """Return a tensor to pack.

    Args:
        shape: its dimensions.
        dtype: numpy's name of its type.
        scale: None for what is not quantised; several belong to the indices along `axis`.
        zero_point: of every scale.
        axis: the dimension of several scales.
        data: the elements of a constant.
    """
    scales = None if scale is None else tuple(float(s) for s in np.atleast_1d(scale))
    zero_points = (zero_point,) * len(scales or ())
    if data is not None:
        data = np.asarray(data).astype(dtype).reshape(shape)
    return Tensor(tuple(shape), dtype, scales, zero_points, axis, data)


def constant(data: Any, dtype: str = "int32") -> Tensor:
    """Return a constant that is not quantised: axes, sizes, shapes."""
    data = np.asarray(data)
    return tensor(data.shape, dtype, data=data)


def operator(
    kind: str,
    inputs: Sequence[Tensor | None],
    outputs: Sequence[Tensor],
    options: Mapping[str, Any] | None = None,
    version: int = 1,
    data: tuple[np.ndarray, ...] | None = None,
) -> Case:
    """Pack a file of one operator, whose inputs without data are those of the network.

    Args:
        kind: the operator's name in the schema.
        inputs: its tensors; None for one that is left out.
        outputs: its tensors.
        options: by the schema's names; enumerations by name.
        version: of the operator.
        data: what to give where the operator does not take every stored value.
    """
    case = network([(kind, inputs, outputs, options or {}, version)])
    return dataclasses.replace(case, data=data)


def network(operators: Sequence[tuple]) -> Case:
    """Pack a file of several operators, each (kind, inputs, outputs, options, version).

    A tensor that appears twice is the same tensor. What no operator writes is an input, what none
    reads an output.
    """
    tensors: list[Tensor] = []
    for _, inputs, outputs, *_ in operators:
        for one in (*inputs, *outputs):
            if one is not None and not any(one is t for t in tensors):
                tensors.append(one)
    index = {id(t): i for i, t in enumerate(tensors)}
    written = {id(t) for _, _, outputs, *_ in operators for t in outputs}
    read = {id(t) for _, inputs, *_ in operators for t in inputs}
    given = [t for t in tensors if t.data is None and id(t) not in written]

    model = schema.ModelT()
    model.version = 3
    model.description = "packed by hand"
    model.buffers = [schema.BufferT()]
    model.operatorCodes = []
    graph = schema.SubGraphT()
    graph.tensors = [_packed_tensor(model, t, i) for i, t in enumerate(tensors)]
    graph.inputs = [index[id(t)] for t in given]
    graph.outputs = [index[id(t)] for t in tensors if id(t) in written and id(t) not in read]
    graph.operators = []
    for kind, inputs, outputs, options, version in operators:
        packed = schema.OperatorT()
        packed.opcodeIndex = _opcode(model, kind, version)
        packed.inputs = [-1 if t is None else index[id(t)] for t in inputs]
        packed.outputs = [index[id(t)] for t in outputs]
        _set_options(packed, kind, options)
        graph.operators.append(packed)
    model.subgraphs = [graph]
    builder = flatbuffers.Builder(1024)
    builder.Finish(model.Pack(builder), b"TFL3")
    label = "; ".join(_label(*one) for one in operators)
    return Case(bytes(builder.Output()), label, tuple(given), tuple(operators))


def stored_values(case: Case, batch: int, seed: int = 0) -> list[np.ndarray]:
    """Return inputs for `batch` images: the whole range of each type, its ends among it."""
    rng = np.random.default_rng(seed)
    return [stored_values_of(rng, t, batch) for t in case.inputs]


def compare(case: Case, data: Sequence[np.ndarray] | None = None, *, batch: int = 3) -> None:
    """Fail unless the network of a file equals the interpreter on bits.

    Args:
        case: the file.
        data: stored inputs, images stacked; without, the case's or `stored_values`.
        batch: how many images these are.
    """
    data = case.data if data is None else data
    data = stored_values(case, batch) if data is None else data
    comparing.assert_equals_witness(case.content, data, case.label, with_calls=False)


def stored_values_of(rng: np.random.Generator, one: Tensor, batch: int) -> np.ndarray:
    """Return elements of a tensor for `batch` images."""
    shape = (batch * one.shape[0], *one.shape[1:]) if one.shape else ()
    if one.dtype == "float32":
        return rng.normal(0, 5, shape).astype(np.float32)
    return comparing.stored_values(rng, np.dtype(one.dtype), shape)


def _packed_tensor(model: schema.ModelT, one: Tensor, index: int) -> schema.TensorT:
    packed = schema.TensorT()
    packed.shape = list(one.shape)
    packed.type = _TYPES[one.dtype]
    packed.name = f"t{index}"
    packed.buffer = 0
    packed.hasRank = True
    if one.data is not None:
        packed.buffer = len(model.buffers)
        buffer = schema.BufferT()
        buffer.data = np.frombuffer(one.data.tobytes(), np.uint8)
        model.buffers.append(buffer)
    if one.scales is not None:
        packed.quantization = schema.QuantizationParametersT()
        packed.quantization.scale = np.array(one.scales, np.float32)
        packed.quantization.zeroPoint = np.array(one.zero_points, np.int64)
        packed.quantization.quantizedDimension = one.axis
    return packed


def _opcode(model: schema.ModelT, kind: str, version: int) -> int:
    number = getattr(schema.BuiltinOperator, kind)
    for i, code in enumerate(model.operatorCodes):
        if (code.builtinCode, code.version) == (number, version):
            return i
    code = schema.OperatorCodeT()
    code.builtinCode, code.version = number, version
    # Older readers know the field for the first 127 kinds only.
    code.deprecatedBuiltinCode = min(number, 127)
    model.operatorCodes.append(code)
    return len(model.operatorCodes) - 1


def _set_options(packed: schema.OperatorT, kind: str, options: Mapping[str, Any]) -> None:
    if kind not in _OPTIONS:
        assert not options, f"{kind} has no options"
        return
    name = f"{_OPTIONS[kind]}Options"
    packed.builtinOptionsType = getattr(schema.BuiltinOptions, name)
    packed.builtinOptions = getattr(schema, f"{name}T")()
    fields = {_snake(field): field for field in vars(packed.builtinOptions)}
    for key, value in options.items():
        if key in _ENUMERATIONS and isinstance(value, str):
            value = getattr(_ENUMERATIONS[key], value)
        setattr(packed.builtinOptions, fields[key], value)


def _snake(name: str) -> str:
    return "".join(f"_{c.lower()}" if c.isupper() else c for c in name)


def _label(
    kind: str,
    inputs: Sequence[Tensor | None],
    outputs: Sequence[Tensor],
    options: Mapping[str, Any],
    version: int,
) -> str:
    given = ", ".join(_shown(t) for t in inputs)
    made = ", ".join(_shown(t) for t in outputs)
    return f"{kind} v{version} ({given}) -> ({made}) {dict(options)}"


def _shown(one: Tensor | None) -> str:
    if one is None:
        return "none"
    text = f"{one.dtype}{list(one.shape)}"
    if one.scales is not None:
        scale = f"{one.scales[0]:.9g}" if len(one.scales) == 1 else f"{len(one.scales)} scales"
        text += f" scale {scale} zero point {one.zero_points[0]}"
    if one.data is not None and one.data.size <= 8 and one.scales is None:
        text += f" = {one.data.tolist()}"
    return text
