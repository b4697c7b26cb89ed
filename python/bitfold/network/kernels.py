# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Runs the runtime's own kernels on single operators, and makes tables of them.

They are the reference kernels, which define what a quantised model means; where those lack an
operator, the default ones without delegates. Models in floats have no such definition: the default
ones compute them, image by image.
"""

from __future__ import annotations

import contextlib
import dataclasses
import functools
import threading
import warnings
from collections.abc import Collection, Iterator, Mapping, Sequence
from typing import Any

import numpy as np
from tensorflow.lite.python import interpreter as runtime

from bitfold.network import model_file, model_packer
from bitfold.network.graph import Graph, Node, Operator, Quantisation, Tensor

# The reference kernels lack these or leave their outputs unwritten.
_WITHOUT_REFERENCE = ("DEPTH_TO_SPACE", "ELU", "SUM", "TILE")

# Tables of 128 KiB each, at most.
_MOST_TABLES = 128


def run_kernel(
    kind: str,
    inputs: Sequence[Tensor | None],
    outputs: Sequence[Tensor],
    options: Mapping[str, Any],
    data: Sequence[np.ndarray],
    *,
    version: int = 1,
) -> list[np.ndarray]:
    """Run one operator as the runtime's interpreter does.

    Args:
        kind: the operator's name in the schema.
        inputs: its tensors, constants with their elements; None for one that is left out.
        outputs: its tensors.
        options: by their names in the schema; those left out have the schema's default.
        data: stored elements of the inputs that are not constant, in order.
        version: of the operator's registration; newer ones take more types.

    Returns:
        The stored outputs.

    Raises:
        ValueError: the file that holds the operator would be damaged, or the runtime's kernel
            refuses the operator or the data.
    """
    return _Runner(_graph(kind, inputs, outputs, options, version)).run(data)


def tabulate(node: Node) -> np.ndarray:
    """Run an operator that works elementwise on every value of its one input.

    Equal operators share one run. The runtime's kernels of RSQRT and SQRT refuse negative values,
    and then the interpreter stops; here such a value has the result of the least that is taken.

    Args:
        node: one input of int8 or int16 that is not constant, constants of one element, one output.

    Returns:
        The stored output of each stored input, from the least: 256 or 65,536 elements, not
        writable.

    Raises:
        ValueError: the operator has another form, or the runtime's kernel refuses it.
    """
    varying = [t for t in node.inputs if t is not None and not t.is_constant]
    if len(varying) != 1 or varying[0].dtype not in (np.int8, np.int16) or len(node.outputs) != 1:
        raise ValueError(
            f"Need one input of int8 or int16 and one output of {node.kind} for a table, got "
            f"{_listed(node.inputs)} and {_listed(node.outputs)}"
        )
    for tensor in node.inputs:
        if tensor is not None and tensor.is_constant and tensor.data.size != 1:
            raise ValueError(f"Need constants of one element for a table, got {tensor}")
    return _table(
        node.kind,
        node.operator.version,
        tuple(sorted(node.operator.options.items())),
        tuple(None if tensor is None else _Facts.of(tensor) for tensor in node.inputs),
        _Facts.of(node.outputs[0]),
    )


def _listed(tensors: Sequence[Tensor | None]) -> str:
    return ", ".join("none" if tensor is None else str(tensor) for tensor in tensors) or "none"


# Guards the process's filter of warnings.
_WARNINGS = threading.Lock()


def _interpreter(file: bytes, resolver: Any, **keywords: Any) -> runtime.Interpreter:
    """Load a file; the interpreter keeps a pointer to its bytes."""
    # It warns of being replaced by another package, which this one does not use.
    with _WARNINGS, warnings.catch_warnings():
        warnings.filterwarnings("ignore", message=r"\s*Warning: tf\.lite\.Interpreter")
        return runtime.Interpreter(
            model_content=file, experimental_op_resolver_type=resolver, num_threads=1, **keywords
        )


class _Runner:
    """The runtime's interpreter with a graph of one operator."""

    def __init__(self, graph: Graph) -> None:
        """Load the operator.

        Raises:
            ValueError: the runtime does not take it.
        """
        self._kind = graph.operators[0].kind
        # What our own reader finds sound is a file on which the runtime's does not fail.
        self._file = model_packer.pack(graph)
        self._graph = model_file.read(self._file)
        types = runtime.OpResolverType
        reference = self._kind not in _WITHOUT_REFERENCE
        resolver = types.BUILTIN_REF if reference else types.BUILTIN_WITHOUT_DEFAULT_DELEGATES
        with _refusals(self._kind):
            self._interpreter = _interpreter(self._file, resolver)
        with _refusals(self._kind):
            self._interpreter.allocate_tensors()

    def run(self, data: Sequence[np.ndarray]) -> list[np.ndarray]:
        """Run the operator on stored inputs."""
        if len(data) != len(self._graph.inputs):
            raise ValueError(f"Need data for {len(self._graph.inputs)} inputs, got {len(data)}")
        for index, values in zip(self._graph.inputs, data, strict=True):
            tensor = self._graph.tensors[index]
            if values.shape != tensor.shape or values.dtype != tensor.dtype:
                raise ValueError(f"Need data of {tensor}, got {values.dtype} {list(values.shape)}")
            self._interpreter.set_tensor(index, values)
        with _refusals(self._kind):
            self._interpreter.invoke()
        return [self._interpreter.get_tensor(index) for index in self._graph.outputs]


@contextlib.contextmanager
def _refusals(what: str) -> Iterator[None]:
    """Say that an error comes of the runtime's kernel."""
    try:
        yield
    except (RuntimeError, ValueError) as error:
        text = " ".join(str(error).split())
        raise ValueError(
            f"Need a {what} that the runtime's kernel takes, got its refusal: {text}"
        ) from error


def _graph(
    kind: str,
    inputs: Sequence[Tensor | None],
    outputs: Sequence[Tensor],
    options: Mapping[str, Any],
    version: int,
) -> Graph:
    """Return the graph of one operator."""
    present = [tensor for tensor in inputs if tensor is not None]
    tensors = tuple(
        dataclasses.replace(tensor, index=index, unknown=())
        for index, tensor in enumerate((*present, *outputs))
    )
    numbers = iter(range(len(present)))
    read = tuple(-1 if tensor is None else next(numbers) for tensor in inputs)
    written = tuple(range(len(present), len(tensors)))
    given = tuple(index for index in read if index >= 0 and not tensors[index].is_constant)
    return Graph(
        tensors=tensors,
        operators=(Operator(0, kind, read, written, options, version),),
        inputs=given,
        outputs=written,
    )


# ---- Models in floats --------------------------------------------------------------------------


class FloatModel:
    """A model file in float32, run image by image, of which every tensor can be seen.

    Attributes:
        graph: what the file holds.
    """

    def __init__(self, file: bytes) -> None:
        """Load a model file.

        Raises:
            ValueError: the file is damaged or quantised, its inputs and outputs are not float32 or
                not of one image, or the runtime refuses it.
        """
        self.graph = model_file.read(file)
        for index in (*self.graph.inputs, *self.graph.outputs):
            tensor = self.graph.tensors[index]
            if tensor.dtype != np.float32:
                raise ValueError(f"Need a model in float32, got {tensor}")
            if tensor.shape[:1] != (1,):
                raise ValueError(f"Need a model that takes one image, got {tensor}")
        for operator in self.graph.operators:
            for index in operator.outputs:
                if self.graph.tensors[index].is_quantised:
                    raise ValueError(
                        "Need a model in float32, got a quantised one: operator "
                        f"{operator.position} {operator.kind} writes {self.graph.tensors[index]}"
                    )
        self._file = bytes(file)
        with _refusals("model in floats"):
            self._interpreter = _interpreter(
                self._file,
                runtime.OpResolverType.BUILTIN_WITHOUT_DEFAULT_DELEGATES,
                experimental_preserve_all_tensors=True,
            )
        self._shapes: list[tuple[int, ...]] = []

    def __call__(self, image: Sequence[np.ndarray], wanted: Collection[int]) -> list[np.ndarray]:
        """Compute an image.

        Args:
            image: float32 [1, ...] for each input, in the file's order.
            wanted: indices of tensors that operators write.

        Returns:
            These tensors.

        Raises:
            ValueError: the runtime's kernels refuse the image.
        """
        shapes = [value.shape for value in image]
        with _refusals("model in floats"):
            if shapes != self._shapes:
                for index, shape in zip(self.graph.inputs, shapes, strict=True):
                    self._interpreter.resize_tensor_input(index, shape)
                self._interpreter.allocate_tensors()
                self._shapes = shapes
            for index, value in zip(self.graph.inputs, image, strict=True):
                self._interpreter.set_tensor(index, value)
            self._interpreter.invoke()
            return [self._interpreter.get_tensor(index) for index in wanted]


# ---- Tables ------------------------------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class _Facts:
    """What of a tensor a table depends on; equal where it is equal."""

    dtype: np.dtype
    scales: bytes | None
    zero_points: bytes | None
    data: bytes | None

    @classmethod
    def of(cls, tensor: Tensor) -> _Facts:
        quantisation = tensor.quantisation
        return cls(
            tensor.dtype,
            None if quantisation is None else quantisation.scales.tobytes(),
            None if quantisation is None else quantisation.zero_points.tobytes(),
            None if tensor.data is None else tensor.data.tobytes(),
        )

    def tensor(self, name: str, count: int) -> Tensor:
        """Return a tensor of these facts with `count` elements, a constant with one."""
        quantisation = None
        if self.scales is not None:
            scales = np.frombuffer(self.scales, np.float32)
            quantisation = Quantisation(scales, np.frombuffer(self.zero_points, np.int64))
        shape, data = (1, count), None
        if self.data is not None:
            shape = (1, 1)
            data = np.frombuffer(self.data, self.dtype).reshape(shape)
        return Tensor(0, name, shape, self.dtype, quantisation, data)


@functools.lru_cache(maxsize=_MOST_TABLES)
def _table(
    kind: str,
    version: int,
    options: tuple[tuple[str, Any], ...],
    inputs: tuple[_Facts | None, ...],
    output: _Facts,
) -> np.ndarray:
    """Tabulate an operator, given by what its table depends on."""
    varying = next(facts for facts in inputs if facts is not None and facts.data is None)
    limits = np.iinfo(varying.dtype)
    values = np.arange(limits.min, limits.max + 1, dtype=varying.dtype)

    tensors = [None if facts is None else facts.tensor("input", values.size) for facts in inputs]
    outputs = [output.tensor("output", values.size)]
    runner = _Runner(_graph(kind, tensors, outputs, dict(options), version))
    table = _results(runner, values)
    table.flags.writeable = False
    return table


def _results(runner: _Runner, values: np.ndarray) -> np.ndarray:
    """Return the results of ascending values; those refused are the least and get the next one's.

    Raises:
        ValueError: the kernel refuses the greatest value, too.
    """

    def run(first: int) -> np.ndarray:
        """Return the results with every value raised to that at `first`."""
        return runner.run([np.maximum(values, values[first]).reshape(1, -1)])[0].reshape(-1)

    with contextlib.suppress(ValueError):
        return run(0)
    refused, taken, table = 0, values.size - 1, run(values.size - 1)
    while taken - refused > 1:
        middle = (refused + taken) // 2
        try:
            table, taken = run(middle), middle
        except ValueError:
            refused = middle
    return table
