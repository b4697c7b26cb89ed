# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What a model file computes, by the runtime's interpreter and its reference kernels.

The interpreter holds every tensor that it computed, so a witness is all of them. Images run one by
one: some kernels take the first dimension for part of an image.
"""

from __future__ import annotations

import functools
import warnings
from collections.abc import Sequence

import flatbuffers
import numpy as np
import tensorflow as tf
from tensorflow.lite.python import schema_py_generated as schema

_REFERENCE = tf.lite.experimental.OpResolverType.BUILTIN_REF
_DEFAULT = tf.lite.experimental.OpResolverType.BUILTIN_WITHOUT_DEFAULT_DELEGATES


def witness(content: bytes, inputs: Sequence[np.ndarray]) -> dict[int, np.ndarray]:
    """Return every tensor that the file's operators write, for all images, by its index.

    Args:
        content: the model file.
        inputs: stored values in the order of the file, images stacked along the first dimension.
    """
    return Witness(content)(inputs)


class Witness:
    """A model file, ready to run on images.

    Attributes:
        inputs: indices of the tensors that the caller gives.
        outputs: of those that the caller gets.
        tensors: as the schema has them.
        operators: (kind, inputs, outputs) of each.
        kinds: of each operator.
    """

    def __init__(self, content: bytes) -> None:
        """Cut the file where the kernels change, and load each part."""
        model = self._model = _parsed(content)
        graph = model.subgraphs[0]
        self.inputs = [int(i) for i in graph.inputs]
        self.tensors = graph.tensors
        self.outputs = [int(i) for i in graph.outputs]
        self.kinds = [_kind(model, one) for one in graph.operators]
        self.operators = [
            (kind, [int(i) for i in one.inputs], [int(i) for i in one.outputs])
            for kind, one in zip(self.kinds, graph.operators, strict=True)
        ]
        for position, (kind, read, written) in enumerate(self.operators):
            if kind in _SHIFTS and self._outgrows(_SHIFTS[kind], read, written):
                raise Unwitnessed(f"{kind} at {position} ends the process: scales too far apart")
            if kind == "MEAN" and self._overflows(read[0], written[0]):
                raise Unwitnessed(f"{kind} at {position} may overflow, which is not defined")
            if kind in _DATA and self._shifts_too_far(read[_DATA[kind]], read[1], written[0]):
                raise Unwitnessed(f"{kind} at {position} shifts too far, which is not defined")
        self._parts = [_Part(content, *piece) for piece in _pieces(self.kinds)]

    def load(self) -> None:
        """Run one image of zeros, to see that the interpreter takes the file."""
        self([np.zeros(self.shape(i), self.dtype(i)) for i in self.inputs])

    def __call__(self, inputs: Sequence[np.ndarray]) -> dict[int, np.ndarray]:
        """Return every tensor that operators write, images stacked along the first dimension."""
        rows = [self.rows(i) for i in self.inputs]
        count = inputs[0].shape[0] // rows[0] if inputs[0].ndim else 1
        images = []
        for k in range(count):
            known = {
                index: x[k * r : (k + 1) * r] if x.ndim else x
                for index, x, r in zip(self.inputs, inputs, rows, strict=True)
            }
            for part in self._parts:
                known |= part.run(known)
            images.append({i: x for i, x in known.items() if i not in self.inputs})
        return {i: _stacked([image[i] for image in images]) for i in images[0]}

    def rows(self, index: int) -> int:
        """Return how many rows of the first dimension are one image's."""
        return (*self.shape(index), 1)[0]

    def shape(self, index: int) -> tuple[int, ...]:
        """Return a tensor's dimensions."""
        shape = self.tensors[index].shape
        return () if shape is None else tuple(map(int, shape))

    def dtype(self, index: int) -> np.dtype:
        """Return the type of a tensor's elements."""
        return np.dtype(_TYPES[self.tensors[index].type])

    def constant(self, index: int) -> np.ndarray | None:
        """Return the elements of a constant."""
        data = self._model.buffers[self.tensors[index].buffer].data
        if data is None or not len(data):
            return None
        return np.frombuffer(bytes(data), self.dtype(index)).reshape(self.shape(index))

    def zero_point(self, index: int) -> int:
        """Return the zero point of a tensor, 0 of one that is not quantised."""
        quantisation = self.tensors[index].quantization
        points = None if quantisation is None else quantisation.zeroPoint
        return int(points[0]) if points is not None and len(points) else 0

    def options(self, position: int) -> dict:
        """Return the options of an operator, by the names of the schema's objects."""
        return vars(self._model.subgraphs[0].operators[position].builtinOptions)

    def is_traced(self, index: int) -> bool:
        """Return whether a tensor holds integers for real numbers, image by image."""
        one = self.tensors[index]
        scales = None if one.quantization is None else one.quantization.scale
        return self.shape(index)[:1] == (1,) and scales is not None and len(scales) > 0

    def _outgrows(self, shifts: dict[int, int], read: list[int], written: list[int]) -> bool:
        """Return whether a sum's multiplier is not below 1, which the kernels assert."""
        output = self.tensors[written[0]]
        if output.type not in shifts:
            return False
        scales = [self.tensors[i].quantization.scale[0] for i in read]
        return 2 * max(scales) >= output.quantization.scale[0] * 2.0 ** shifts[output.type]

    def _overflows(self, read: int, written: int) -> bool:
        """Return whether the sums of a mean, scaled to the output, may need more than 32 bits."""
        data, output = self.tensors[read], self.tensors[written]
        if data.type not in (schema.TensorType.INT8, schema.TensorType.INT16):
            return False
        _, exponent = np.frexp(data.quantization.scale[0] / output.quantization.scale[0])
        elements = np.prod(self.shape(read)) / np.prod(self.shape(written))
        magnitude = abs(self.zero_point(read)) - int(np.iinfo(self.dtype(read)).min)
        return elements * magnitude * 2.0 ** max(exponent, 0) >= 2**31

    def _shifts_too_far(self, data: int, filter: int, written: int) -> bool:
        """Return whether a multiplier of sums of 64 bits is above what the kernels shift by."""
        if self.tensors[written].type != schema.TensorType.INT16:
            return False
        filters = self.tensors[filter].quantization.scale
        largest = np.max(filters[np.isfinite(filters)], initial=0)
        data, output = (self.tensors[i].quantization.scale[0] for i in (data, written))
        return float(data) * float(largest) / float(output) >= 2**7

    def describe(self) -> str:
        """Return the operators in a line."""
        return "operators: " + " ".join(f"{i}:{kind}" for i, kind in enumerate(self.kinds))


class Unwitnessed(Exception):  # noqa: N818  (no error: there is nothing to compare with)
    """The interpreter does not run the file."""


class _Part:
    """Operators side by side that the same kernels run."""

    def __init__(self, content: bytes, first: int, last: int, resolver: object) -> None:
        model = _parsed(content)
        graph = model.subgraphs[0]
        graph.operators = graph.operators[first:last]
        self._kinds = " ".join(_kind(model, one) for one in graph.operators)
        used = sorted({one.opcodeIndex for one in graph.operators})
        # The interpreter looks up kernels for all that a file lists.
        model.operatorCodes = [model.operatorCodes[i] for i in used]
        for one in graph.operators:
            one.opcodeIndex = used.index(one.opcodeIndex)
        self.written = [int(i) for one in graph.operators for i in one.outputs]
        constants = {i for i, t in enumerate(graph.tensors) if _is_constant(model, t)}
        read = dict.fromkeys(int(i) for one in graph.operators for i in one.inputs if i >= 0)
        self.read = [i for i in read if i not in constants and i not in self.written]
        graph.inputs, graph.outputs = self.read, self.written
        model.signatureDefs = []
        builder = flatbuffers.Builder(1024)
        builder.Finish(model.Pack(builder), b"TFL3")
        with warnings.catch_warnings():  # about another interpreter, to which users shall move
            warnings.simplefilter("ignore")
            self._interpreter = tf.lite.Interpreter(
                model_content=bytes(builder.Output()),
                experimental_op_resolver_type=resolver,
                experimental_preserve_all_tensors=True,
                num_threads=1,
            )
        self._shapes: list[tuple[int, ...]] = []

    def run(self, known: dict[int, np.ndarray]) -> dict[int, np.ndarray]:
        try:
            return self._run(known)
        except (RuntimeError, ValueError) as error:
            raise Unwitnessed(f"{self._kinds}: {error}") from error

    def _run(self, known: dict[int, np.ndarray]) -> dict[int, np.ndarray]:
        interpreter = self._interpreter
        shapes = [known[i].shape for i in self.read]
        if shapes != self._shapes:
            for i, shape in zip(self.read, shapes, strict=True):
                interpreter.resize_tensor_input(i, shape)
            interpreter.allocate_tensors()
            self._shapes = shapes
        for i in self.read:
            interpreter.set_tensor(i, known[i])
        interpreter.invoke()
        return {i: interpreter.get_tensor(i) for i in self.written}


def _parsed(content: bytes) -> schema.ModelT:
    return schema.ModelT.InitFromObj(schema.Model.GetRootAs(content))


@functools.cache
def _names() -> dict[int, str]:
    names = vars(schema.BuiltinOperator).items()
    return {number: name for name, number in names if isinstance(number, int)}


def _kind(model: schema.ModelT, one: schema.OperatorT) -> str:
    code = model.operatorCodes[one.opcodeIndex]
    return _names()[max(code.builtinCode, code.deprecatedBuiltinCode)]


def _is_constant(model: schema.ModelT, one: schema.TensorT) -> bool:
    data = model.buffers[one.buffer].data
    return data is not None and len(data) > 0


def _pieces(kinds: Sequence[str]) -> list[tuple[int, int, object]]:
    """Return first, last and kernels of each longest run of operators with the same kernels."""
    resolvers = [_DEFAULT if kind in WITHOUT_REFERENCE else _REFERENCE for kind in kinds]
    starts = [i for i, r in enumerate(resolvers) if i == 0 or r is not resolvers[i - 1]]
    return [
        (first, last, resolvers[first])
        for first, last in zip(starts, [*starts, len(kinds)][1:], strict=True)
    ]


def _stacked(images: Sequence[np.ndarray]) -> np.ndarray:
    return np.concatenate(images) if images[0].ndim else images[0]


_TYPES = {
    getattr(schema.TensorType, name.upper()): name
    for name in ("int8", "uint8", "int16", "int32", "int64", "float32", "bool")
}
# By how many bits the sums of two tensors shift their inputs left, by the type of the output.
_SHIFTS_BY_TYPE = {schema.TensorType.INT8: 20, schema.TensorType.INT16: 15}
_SHIFTS = {"ADD": _SHIFTS_BY_TYPE, "SUB": _SHIFTS_BY_TYPE}
# The place of the data among the inputs, beside a filter in the second place.
_DATA = {"CONV_2D": 0, "DEPTHWISE_CONV_2D": 0, "TRANSPOSE_CONV": 2}
# Kinds that the reference kernels lack in the versions that converters write, or whose output they
# leave as they find it.
WITHOUT_REFERENCE = frozenset({"CEIL", "DEPTH_TO_SPACE", "ELU", "ROUND", "SUM", "TILE"})
