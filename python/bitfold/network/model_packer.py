# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Writes records as a model file that the runtime's interpreter loads."""

from __future__ import annotations

from typing import Any

import flatbuffers
import numpy as np
from tensorflow.lite.python import schema_py_generated as schema

from bitfold.network import model_schema
from bitfold.network.graph import Graph, Operator, Quantisation, Tensor

# Constants start at multiples of it, in the file and so in memory.
_ALIGNMENT = 16

_TYPE_NUMBERS = {
    dtype: number for number, dtype in model_schema.DTYPES.items() if dtype != np.dtype(object)
}
_CODES = {kind: number for number, kind in model_schema.OPERATORS.items()}
# What the older of the two fields for an operator's number holds where that does not fit.
_GREATER = schema.BuiltinOperator.PLACEHOLDER_FOR_GREATER_OP_CODES


def pack(graph: Graph) -> bytes:
    """Write a graph as a model file; `model_file.read` gives the graph back.

    Args:
        graph: any that holds nothing unsupported.

    Returns:
        The file's bytes.

    Raises:
        ValueError: a type, operator or option is none of the schema.
    """
    for what in (graph, *graph.tensors):
        if what.unsupported:
            raise ValueError(f"Need a graph that records express, got one that {what.unsupported}")
    model = schema.ModelT()
    model.version = model_schema.VERSION
    codes = sorted({(operator.kind, operator.version) for operator in graph.operators})
    model.operatorCodes = [_code(kind, version) for kind, version in codes]
    # The first buffer stands for no elements.
    model.buffers = [_Buffer()]
    main = schema.SubGraphT()
    main.name = "main"
    main.tensors = [_tensor(tensor, model.buffers) for tensor in graph.tensors]
    main.operators = [_operator(operator, codes) for operator in graph.operators]
    main.inputs, main.outputs = list(graph.inputs), list(graph.outputs)
    model.subgraphs = [main]
    if graph.input_names or graph.output_names:
        model.signatureDefs = [_signature(graph)]
    builder = flatbuffers.Builder(1024)
    builder.Finish(model.Pack(builder), file_identifier=model_schema.IDENTIFIER)
    return bytes(builder.Output())


class _Buffer(schema.BufferT):
    """The schema's buffer; its own one aligns constants to bytes."""

    def Pack(self, builder: flatbuffers.Builder) -> int:  # noqa: N802  (the schema calls it so)
        """Write the elements first, then the table."""
        if self.data is None:
            return super().Pack(builder)
        builder.StartVector(1, len(self.data), _ALIGNMENT)
        head = builder.Head() - len(self.data)
        builder.Bytes[head : builder.Head()] = self.data
        builder.head = head
        data = builder.EndVector()
        schema.BufferStart(builder)
        schema.BufferAddData(builder, data)
        return schema.BufferEnd(builder)


def _code(kind: str, version: int) -> schema.OperatorCodeT:
    code = schema.OperatorCodeT()
    name, _, custom = kind.partition(" ")
    if name not in _CODES or bool(custom) != (name == "CUSTOM"):
        raise ValueError(f"Need an operator of the schema, got {kind!r}")
    code.builtinCode = _CODES[name]
    code.deprecatedBuiltinCode = min(code.builtinCode, _GREATER)
    code.customCode = custom or None
    code.version = version
    return code


def _tensor(tensor: Tensor, buffers: list[Any]) -> schema.TensorT:
    if tensor.dtype not in _TYPE_NUMBERS:
        raise ValueError(f"Need a type of the schema, got {tensor}")
    packed = schema.TensorT()
    packed.name = tensor.name
    packed.type = _TYPE_NUMBERS[tensor.dtype]
    packed.shape = list(tensor.shape)
    packed.hasRank = True
    if tensor.unknown:
        packed.shapeSignature = [
            -1 if i in tensor.unknown else size for i, size in enumerate(tensor.shape)
        ]
    packed.quantization = _quantisation(tensor.quantisation)
    packed.buffer = 0
    if tensor.data is not None:
        if tensor.data.shape != tensor.shape or tensor.data.dtype != tensor.dtype:
            raise ValueError(f"Need elements of {tensor}, got {tensor.data.dtype}"
                             f"{list(tensor.data.shape)}")  # fmt: skip
        if tensor.data.size:
            packed.buffer = len(buffers)
            buffers.append(_Buffer(data=_bytes(tensor.data)))
    return packed


def _bytes(data: np.ndarray) -> bytes:
    """Return elements as a file holds them."""
    bits = model_schema.BITS.get(data.dtype)
    if bits is None:
        return data.astype(data.dtype.newbyteorder("<"), copy=False).tobytes()
    apart = np.zeros((-(-data.size * bits // 8), 8 // bits), np.uint8)
    apart.reshape(-1)[: data.size] = data.reshape(-1).astype(np.int8).view(np.uint8) & (
        (1 << bits) - 1
    )
    return np.bitwise_or.reduce(apart << np.arange(0, 8, bits, dtype=np.uint8), axis=1).tobytes()


def _quantisation(quantisation: Quantisation | None) -> schema.QuantizationParametersT | None:
    if quantisation is None:
        return None
    packed = schema.QuantizationParametersT()
    packed.scale = np.asarray(quantisation.scales, np.float32)
    packed.zeroPoint = np.asarray(quantisation.zero_points, np.int64)
    packed.quantizedDimension = quantisation.axis
    return packed


def _operator(operator: Operator, codes: list[tuple[str, int]]) -> schema.OperatorT:
    packed = schema.OperatorT()
    packed.opcodeIndex = codes.index((operator.kind, operator.version))
    packed.inputs, packed.outputs = list(operator.inputs), list(operator.outputs)
    given = dict(operator.options)
    if operator.kind.startswith("CUSTOM "):
        content = given.get("custom_options", b"")
        packed.customOptions = np.frombuffer(content, np.uint8) if content else None
        return packed
    options = model_schema.OPTIONS.get(operator.kind)
    if options is not None:
        field = options.union[0].lower() + options.union[1:]
        setattr(packed, f"{field}Type", options.number)
        setattr(packed, field, options.packed(given))
    elif given:
        raise ValueError(f"Need no options for {operator.kind}, got {', '.join(given)}")
    return packed


def _signature(graph: Graph) -> schema.SignatureDefT:
    signature = schema.SignatureDefT()
    signature.signatureKey = "serving_default"
    signature.subgraphIndex = 0
    for field in ("input", "output"):
        entries = []
        for name, index in zip(
            getattr(graph, f"{field}_names"), getattr(graph, f"{field}s"), strict=True
        ):
            entry = schema.TensorMapT()
            entry.name, entry.tensorIndex = name, index
            entries.append(entry)
        setattr(signature, f"{field}s", entries)
    return signature
