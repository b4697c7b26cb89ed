# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""From the records of a file to a network's nodes: shapes known, constants folded, or refused.

A file's shapes are those of a converter that did not know the batch, and some are wrong. So every
operator is asked for the shape of its result for one image, symbolically: no memory is taken for
it. What depends on no input, shapes above all, is computed here once.
"""

from __future__ import annotations

import dataclasses
from collections.abc import Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.errors import UnsupportedModelError
from bitfold.network.graph import MOST_ELEMENTS, Graph, Node, Operator, Tensor
from bitfold.network.operators import folding, step_of

_MODEST = 1 << 20
_INPUTS = ("int8", "int16", "uint8", "int32", "float32")
# What an operator's checks leave to numpy and to the stock ops, which say so in these.
_MISFITS = (
    ValueError,
    TypeError,
    IndexError,
    ArithmeticError,
    MemoryError,
    tf.errors.OpError,
)


@dataclasses.dataclass(frozen=True, eq=False)
class Assembly:
    """A graph that can run.

    Attributes:
        graph: as the file has it.
        tensors: by index, with the shapes for one image and the constants that were folded.
        nodes: the operators that run, in order.
    """

    graph: Graph
    tensors: dict[int, Tensor]
    nodes: tuple[Node, ...]

    @property
    def inputs(self) -> tuple[Tensor, ...]:
        """What the caller gives."""
        return tuple(self.tensors[index] for index in self.graph.inputs)

    @property
    def outputs(self) -> tuple[Tensor, ...]:
        """What the caller gets."""
        return tuple(self.tensors[index] for index in self.graph.outputs)


def assemble(graph: Graph) -> Assembly:
    """Make a graph's nodes.

    Raises:
        UnsupportedModelError: listing every operator, tensor and option that cannot be imported.
    """
    assembler = _Assembler(graph)
    for operator in graph.operators:
        assembler.add(operator)
    assembler.check_ends()
    if assembler.reasons:
        raise UnsupportedModelError(assembler.reasons)
    return Assembly(graph, assembler.tensors, tuple(assembler.nodes))


class _Assembler:
    """Takes operators one after the other."""

    def __init__(self, graph: Graph) -> None:
        self.graph = graph
        self.tensors = {tensor.index: tensor for tensor in graph.tensors}
        self.nodes: list[Node] = []
        self.reasons = [f"the file {what}" for what in graph.unsupported]
        # Tensors whose shape is not known, because what writes them was refused.
        self._unknown: set[int] = set()
        # A folded constant may be as large as the file's constants together.
        self._modest = max(_MODEST, sum(t.data.nbytes for t in graph.tensors if t.is_constant))

    def add(self, operator: Operator) -> None:
        """Fold an operator, or make a node of it, or note why it is refused."""
        node = Node.of(operator, self.tensors)
        if self._unknown.intersection(operator.inputs):
            # Shapes are not known here; say only what can be said without them.
            self._unknown.update(operator.outputs)
            if step_of(node) is None and operator.kind not in folding.FOLDS:
                self._refuse(node, "this operator is not supported")
            return
        try:
            problems = self._unsupported(node)
            if not problems:
                problems = self._fold(node) if folding.folds(node) else self._place(node)
        except _MISFITS as error:
            problems = [_said(error)]
        for problem in problems:
            self._refuse(node, problem)
        if problems:
            self._unknown.update(operator.outputs)

    def _refuse(self, node: Node, problem: str) -> None:
        operator = node.operator
        tensors = ", ".join(str(index) for index in operator.outputs)
        name = f" {node.outputs[0].name!r}" if node.outputs else ""
        self.reasons.append(
            f"operator {operator.position} {operator.kind}{name} (tensor {tensors}): {problem}"
        )

    @staticmethod
    def _unsupported(node: Node) -> list[str]:
        return [
            f"{tensor} {what}"
            for tensor in (*node.inputs, *node.outputs)
            if tensor is not None
            for what in tensor.unsupported
        ]

    def _fold(self, node: Node) -> list[str]:
        problems = list(folding.problems(node))
        return problems or self._keep(node, folding.fold(node))

    def _keep(self, node: Node, results: Sequence[np.ndarray]) -> list[str]:
        """Make constants of an operator's outputs."""
        if len(results) != len(node.outputs):
            return [f"need {len(results)} outputs, got {len(node.outputs)}"]
        for tensor, data in zip(node.outputs, results, strict=True):
            data = np.ascontiguousarray(data).reshape(np.shape(data)).astype(tensor.dtype)
            data.setflags(write=False)
            self.tensors[tensor.index] = dataclasses.replace(
                tensor, data=data, shape=data.shape, unknown=()
            )
        return []

    def _place(self, node: Node) -> list[str]:
        """Make a node, or of one whose inputs are constants constants."""
        kind = step_of(node)
        if kind is None:
            return ["this operator is not supported"]
        problems = list(kind.problems(node))
        if problems:
            return problems
        step = kind(node, Arithmetic())
        shapes = self._shapes(step, node)
        problems = self._shape_problems(node, shapes)
        if problems:
            return problems
        if all(tensor is None or tensor.is_constant for tensor in node.inputs):
            elements = sum(shape.num_elements() for shape in shapes)
            if elements > self._modest:
                return [f"need at most {self._modest} elements of a constant, got {elements}"]
            constants = [None if t is None else tf.constant(t.data) for t in node.inputs]
            return self._keep(node, [output.numpy() for output in step.run(constants)])
        for tensor, shape in zip(node.outputs, shapes, strict=True):
            if not shape.rank:
                return [f"need a dimension for the images, got a scalar, {tensor}"]
            if not shape[0]:
                return [f"need rows for an image, got none, {shape} of {tensor}"]
            self.tensors[tensor.index] = dataclasses.replace(
                tensor, shape=tuple(shape.as_list()), unknown=()
            )
        self.nodes.append(Node.of(node.operator, self.tensors))
        return []

    @staticmethod
    def _shape_problems(node: Node, shapes: Sequence[tf.TensorShape]) -> list[str]:
        if len(shapes) != len(node.outputs):
            return [f"need {len(shapes)} outputs, got {len(node.outputs)}"]
        problems = []
        for tensor, shape in zip(node.outputs, shapes, strict=True):
            if not shape.is_fully_defined():
                problems.append(f"need a known shape of {tensor}, got {shape}")
            elif shape.num_elements() > MOST_ELEMENTS:
                problems.append(f"need at most {MOST_ELEMENTS} elements of {tensor}, got {shape}")
        return problems

    def _shapes(self, step, node: Node) -> list[tf.TensorShape]:
        """Return the shapes of a step's outputs for one image."""
        with tf.Graph().as_default():
            inputs = []
            for tensor in node.inputs:
                if tensor is None:
                    inputs.append(None)
                elif tensor.is_constant:
                    inputs.append(tf.constant(tensor.data))
                else:
                    inputs.append(tf.compat.v1.placeholder(tensor.dtype, tensor.shape))
            return [output.shape for output in step.run(inputs)]

    def check_ends(self) -> None:
        """Note which inputs and outputs cannot be those of a network."""
        for what, ends in (("input", self.graph.inputs), ("output", self.graph.outputs)):
            if not ends:
                self.reasons.append(f"need an {what} of the network, got none")
        for index in self.graph.inputs:
            tensor = self.tensors[index]
            if not tensor.shape or not tensor.shape[0]:
                self.reasons.append(f"input {tensor}: need a first dimension for the images")
            if set(tensor.unknown) - {0}:
                self.reasons.append(
                    f"input {tensor}: need all dimensions but the first to be known, the file "
                    f"leaves dimensions {list(tensor.unknown)} open"
                )
            if tensor.dtype.name not in _INPUTS:
                self.reasons.append(f"input {tensor}: need one of {', '.join(_INPUTS)}")
        for index in self.graph.outputs:
            tensor = self.tensors[index]
            if tensor.is_constant:
                self.reasons.append(f"output {tensor}: it depends on no input")
        for index in {*self.graph.inputs, *self.graph.outputs}:
            tensor = self.tensors[index]
            if tensor.is_quantised and tensor.quantisation.scales.size != 1:
                scales = tensor.quantisation.scales.size
                self.reasons.append(f"need one scale, got {scales}, for {tensor}")


def _said(error: Exception) -> str:
    """Return what an error says in its first line, without the node that it was asked about."""
    lines = str(error).split(" for '{{node ")[0].splitlines()
    return lines[0] if lines else type(error).__name__
