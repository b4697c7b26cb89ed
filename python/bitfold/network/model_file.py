# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Reads the runtime's model files into records.

A file may hold anything: what is wrong in itself is a `ValueError` here, whatever the damage, in
time and memory proportional to the file's size. What is sound but beyond the records stands in
`Tensor.unsupported` and `Graph.unsupported`, so that an importer can name it with its other
reasons.
"""

from __future__ import annotations

import contextlib
import dataclasses
import math
from collections.abc import Iterator

import numpy as np
from tensorflow.lite.python import schema_py_generated as schema

from bitfold.network import model_schema
from bitfold.network.flat_file import View
from bitfold.network.graph import Graph, Operator, Tensor
from bitfold.network.model_tensors import read_tensor


def read(source: bytes) -> Graph:
    """Read a model file.

    Args:
        source: the file's bytes. Constants of the graph are views of them.

    Returns:
        The file's first subgraph, in which every operator reads what is given, constant or written
        by an earlier one.

    Raises:
        ValueError: the file is damaged.
    """
    source = bytes(source)
    with _naming("the model file"):
        if len(source) < 8 or source[4:8] != model_schema.IDENTIFIER:
            raise ValueError(
                f"Need a file with the identifier {model_schema.IDENTIFIER!r} at byte 4, got "
                f"{source[4:8]!r} in {len(source)} bytes{_way_in(source)}"
            )
        model = View.root(schema.Model, source)
        if model.number("Version") != model_schema.VERSION:
            raise ValueError(
                f"Need version {model_schema.VERSION} of the schema, got {model.number('Version')}"
            )
        return _graph(model, source)


def _way_in(source: bytes) -> str:
    """Return a way to read what is no model file, where there is one."""
    if source.startswith(b"PK"):  # a zip archive
        return (
            "; Network.load reads what Network.save wrote, and Network.from_keras quantises the "
            "model of a .keras file"
        )
    if source.startswith(b"\x89HDF"):
        return "; Network.from_keras quantises the Keras model of an .h5 file"
    return ""


@contextlib.contextmanager
def _naming(what: str) -> Iterator[None]:
    """Say in which part of the file an error lies."""
    try:
        yield
    except ValueError as error:
        raise ValueError(f"{what}: {error}") from None


def _graph(model: View, source: bytes) -> Graph:
    """Read the first subgraph and what it refers to."""
    with _naming("buffers"):
        buffers = [_buffer(view, source) for view in model.tables("Buffers")]
    with _naming("operator codes"):
        codes = [_code(view) for view in model.tables("OperatorCodes")]
    subgraphs = model.tables("Subgraphs")
    if not subgraphs:
        raise ValueError("Need at least one subgraph, got none")
    main = subgraphs[0]
    tensors = []
    for index, view in enumerate(main.tables("Tensors")):
        with _naming(f"tensor {index}"):
            tensors.append(read_tensor(index, view, buffers))
    operators = []
    for position, view in enumerate(main.tables("Operators")):
        with _naming(f"operator {position}"):
            operators.append(_operator(position, view, codes, len(tensors)))
    inputs, outputs = (_indices(main, field, len(tensors)) for field in ("Inputs", "Outputs"))
    tensors = _ordered(tensors, operators, inputs, outputs)
    with _naming("signatures"):
        names = _names(model, tensors)
    return Graph(
        tensors=tuple(tensors),
        operators=tuple(operators),
        inputs=inputs,
        outputs=outputs,
        input_names=tuple(names["Inputs"].get(i, tensors[i].name) for i in inputs),
        output_names=tuple(names["Outputs"].get(i, tensors[i].name) for i in outputs),
        unsupported=(f"holds {len(subgraphs)} subgraphs",) if len(subgraphs) > 1 else (),
    )


def _buffer(view: View, source: bytes) -> np.ndarray:
    """Return a buffer's bytes, which lie in the flat file or, in files above 2 GiB, after it."""
    offset, size = view.number("Offset"), view.number("Size")
    if offset <= 1:
        return view.array("Data")
    if size > len(source) or offset > len(source) - size:
        raise ValueError(f"Need buffers within {len(source)} bytes, got {size} bytes at {offset}")
    return np.frombuffer(source, np.uint8, size, offset)


def _code(view: View) -> tuple[str, int]:
    """Return an operator's name and version."""
    # The older of the two fields has one byte.
    number = max(view.number("BuiltinCode"), view.number("DeprecatedBuiltinCode"))
    kind = model_schema.OPERATORS.get(number, f"BUILTIN {number}")
    if kind == "CUSTOM":
        kind = f"CUSTOM {view.text('CustomCode')}"
    return kind, view.number("Version")


# ---- Operators and their order -----------------------------------------------------------------


def _operator(position: int, view: View, codes: list[tuple[str, int]], tensors: int) -> Operator:
    number = view.number("OpcodeIndex")
    if number >= len(codes):
        raise ValueError(f"Need an operator code of {len(codes)}, got {number}")
    kind, version = codes[number]
    with _naming(kind):
        return Operator(
            position=position,
            kind=kind,
            inputs=_indices(view, "Inputs", tensors, least=-1),
            outputs=_indices(view, "Outputs", tensors),
            options=_options(kind, view),
            version=version,
        )


def _indices(view: View, field: str, tensors: int, least: int = 0) -> tuple[int, ...]:
    found = tuple(view.numbers(field))
    for index in found:
        if not least <= index < tensors:
            raise ValueError(f"Need {field.lower()} among {tensors} tensors, got {index}")
    return found


def _options(kind: str, view: View) -> dict[str, object]:
    """Read an operator's options by the names in the schema."""
    if kind.startswith("CUSTOM "):
        content = view.array("CustomOptions")
        view.charge(content.size)
        return {"custom_options": content.tobytes()}
    options = model_schema.OPTIONS.get(kind)
    if options is None:
        return {}
    number = view.number(f"{options.union}Type")
    if number == 0:
        return dict(options.defaults)
    if number != options.number:
        raise ValueError(f"Need {options.name} (table {options.number}), got table {number}")
    table = view.union(options.union, options.reader)
    if table is None:
        raise ValueError(f"Need {options.name}, got none")
    return {ours: _option(table, options, field) for ours, field in options.fields.items()}


def _option(table: View, options: model_schema.Options, field: str) -> object:
    accessor = options.accessor(field)
    if options.is_vector(field):
        return tuple(table.numbers(accessor))
    if field in options.texts:
        return table.text(accessor)
    return options.named(field, table.number(accessor))


def _ordered(
    tensors: list[Tensor],
    operators: list[Operator],
    inputs: tuple[int, ...],
    outputs: tuple[int, ...],
) -> list[Tensor]:
    """Check that operators can run in the file's order; return tensors, the empty ones constant."""
    for index in inputs:
        if tensors[index].is_constant:
            raise ValueError(f"Need inputs that are not constant, got {tensors[index]}")
    if len(set(inputs)) != len(inputs):
        raise ValueError(f"Need different inputs, got {list(inputs)}")
    written = set(inputs).union(*(operator.outputs for operator in operators))
    tensors = [t if t.index in written else _with_empty_data(t) for t in tensors]
    known = set(inputs).union(t.index for t in tensors if t.is_constant or t.unsupported)
    for operator in operators:
        with _naming(f"operator {operator.position}: {operator.kind}"):
            for index in operator.inputs:
                if index >= 0 and index not in known:
                    raise ValueError(f"Need inputs that are known by then, got {tensors[index]}")
            for index in operator.outputs:
                if index in known and not tensors[index].unsupported:
                    raise ValueError(f"Need outputs that nothing else gives, got {tensors[index]}")
                known.add(index)
    for index in outputs:
        if index not in known:
            raise ValueError(f"Need outputs that an operator writes, got {tensors[index]}")
    return tensors


def _with_empty_data(tensor: Tensor) -> Tensor:
    """Return a tensor that nothing writes, as a constant where it has no elements to write."""
    if tensor.is_constant or tensor.unsupported or math.prod(tensor.shape):
        return tensor
    data = np.empty(tensor.shape, tensor.dtype)
    data.flags.writeable = False
    return dataclasses.replace(tensor, data=data, unknown=())


def _names(model: View, tensors: list[Tensor]) -> dict[str, dict[int, str]]:
    """Return what the first signature of the first subgraph calls inputs and outputs."""
    names: dict[str, dict[int, str]] = {"Inputs": {}, "Outputs": {}}
    for signature in model.tables("SignatureDefs"):
        if signature.number("SubgraphIndex") != 0:
            continue
        for field, found in names.items():
            for entry in signature.tables(field):
                index = entry.number("TensorIndex")
                if index >= len(tensors):
                    raise ValueError(f"Need one of {len(tensors)} tensors, got {index}")
                found.setdefault(index, entry.text("Name"))
        break
    return names
