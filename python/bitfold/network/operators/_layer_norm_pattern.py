# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Finds layer normalisations among a file's operators, which spell them out.

Converters write (x - mean) / sqrt(variance + epsilon) * gain + bias as x * f + (bias - mean * f)
with f = gain / sqrt(variance + epsilon): MEAN, NEG, SQUARED_DIFFERENCE, MEAN, ADD, RSQRT, MUL, MUL,
ADD, MUL and ADD, where NEG may stand between DEQUANTIZE and QUANTIZE.
"""

from __future__ import annotations

import dataclasses
from collections.abc import Mapping, Sequence

import numpy as np

from bitfold.network.graph import Node, Tensor


@dataclasses.dataclass(frozen=True, eq=False)
class Pattern:
    """A layer normalisation among the operators of a file.

    Attributes:
        data: what is normalised, along its last dimension.
        output: the result.
        epsilon: added to the variance.
        gain: float64 [channels].
        bias: float64 [channels].
        nodes: the operators that spell it out, the last one last.
    """

    data: Tensor
    output: Tensor
    epsilon: float
    gain: np.ndarray
    bias: np.ndarray
    nodes: tuple[Node, ...]


def find_patterns(nodes: Sequence[Node], outputs: Sequence[int]) -> list[Pattern]:
    """Return the layer normalisations that operators spell out, and nothing else uses.

    Args:
        nodes: the operators of a network in order.
        outputs: the network's outputs, by index.
    """
    writers = {tensor.index: node for node in nodes for tensor in node.outputs}
    readers: dict[int, set[int]] = {}
    for node in nodes:
        for tensor in node.inputs:
            if tensor is not None:
                readers.setdefault(tensor.index, set()).add(node.operator.position)
    found = []
    for node in nodes:
        pattern = _Matcher(writers).match(node)
        if pattern is None:
            continue
        inside = {part.operator.position for part in pattern.nodes}
        inner = {tensor.index for part in pattern.nodes[:-1] for tensor in part.outputs}
        if not inner & set(outputs) and all(readers.get(i, set()) <= inside for i in inner):
            found.append(pattern)
    return found


class _MismatchError(Exception):
    """Operators are not those of a layer normalisation."""


class _Matcher:
    """Follows the operators of a layer normalisation from its last one back."""

    def __init__(self, writers: Mapping[int, Node]) -> None:
        self._writers = writers
        self._nodes: dict[int, Node] = {}

    def match(self, last: Node) -> Pattern | None:
        """Return the normalisation that ends with an operator, None where there is none."""
        if last.kind != "ADD":
            return None
        for scaled, rest in (last.inputs, last.inputs[::-1]):
            try:
                return self._matched(last, scaled, rest)
            except _MismatchError:
                self._nodes.clear()
        return None

    def _matched(self, last: Node, scaled: Tensor, rest: Tensor) -> Pattern:
        self._nodes[last.operator.position] = last
        _need(last.option("fused_activation_function", "NONE") == "NONE")
        # rest = -mean * factor, plus the bias.
        mean_part, bias = self._with_constant(rest, "ADD")
        minus_mean, factor = self._pair(mean_part, "MUL")
        if not self._is_negated(minus_mean):
            minus_mean, factor = factor, minus_mean
        data, factor_again = self._pair(scaled, "MUL")
        if factor_again.index != factor.index:
            data, factor_again = factor_again, data
        _need(factor_again.index == factor.index)
        mean = self._single(self._unfloat(minus_mean), "NEG")
        mean = self._unfloat(mean)
        _need(self._mean_of(mean).index == data.index)
        root, gain = self._with_constant(factor, "MUL")
        variance, epsilon = self._with_constant(self._single(root, "RSQRT"), "ADD")
        _need(epsilon is not None and epsilon.data.size == 1)
        squares = self._pair(self._mean_of(variance), "SQUARED_DIFFERENCE")
        _need({tensor.index for tensor in squares} == {data.index, mean.index})
        channels = data.shape[-1]
        return Pattern(
            data,
            last.outputs[0],
            float(_reals(epsilon, 1)[0]),
            np.ones(channels) if gain is None else _reals(gain, channels),
            np.zeros(channels) if bias is None else _reals(bias, channels),
            tuple(self._nodes[position] for position in sorted(self._nodes)),
        )

    def _writer(self, tensor: Tensor, kind: str) -> Node:
        node = self._writers.get(tensor.index)
        _need(node is not None and node.kind == kind)
        self._nodes[node.operator.position] = node
        return node

    def _single(self, tensor: Tensor, kind: str) -> Tensor:
        """Return what an operator of one input made a tensor of."""
        return self._writer(tensor, kind).inputs[0]

    def _pair(self, tensor: Tensor, kind: str) -> tuple[Tensor, Tensor]:
        """Return what an operator of two tensors made a tensor of."""
        node = self._writer(tensor, kind)
        _need(len(node.inputs) == 2 and None not in node.inputs)
        _need(node.option("fused_activation_function", "NONE") == "NONE")
        return node.inputs

    def _with_constant(self, tensor: Tensor, kind: str) -> tuple[Tensor, Tensor | None]:
        """Return what a tensor was made of with a constant; itself where it was not."""
        node = self._writers.get(tensor.index)
        if node is None or node.kind != kind or not any(t.is_constant for t in node.inputs):
            return tensor, None
        first, second = self._pair(tensor, kind)
        return (second, first) if first.is_constant else (first, second)

    def _unfloat(self, tensor: Tensor) -> Tensor:
        """Return what a tensor was before it was brought to floats, or from there."""
        node = self._writers.get(tensor.index)
        is_between = node is not None and node.kind in ("QUANTIZE", "DEQUANTIZE")
        return self._single(tensor, node.kind) if is_between else tensor

    def _is_negated(self, tensor: Tensor) -> bool:
        node = self._writers.get(tensor.index)
        if node is not None and node.kind == "QUANTIZE":
            node = self._writers.get(node.inputs[0].index)
        return node is not None and node.kind == "NEG"

    def _mean_of(self, tensor: Tensor) -> Tensor:
        """Return what a tensor is the mean of, along the last dimension, which is kept."""
        node = self._writer(tensor, "MEAN")
        axes = node.constant(1)
        data = node.inputs[0]
        _need(axes is not None and axes.size == 1 and bool(node.option("keep_dims")))
        _need(int(axes.reshape(())) % len(data.shape) == len(data.shape) - 1)
        return data


def _need(condition: bool) -> None:
    """Raise `_MismatchError` unless a condition holds."""
    if not condition:
        raise _MismatchError


def _reals(tensor: Tensor, channels: int) -> np.ndarray:
    """Return a number for each channel from a stored constant that has one, or one for all."""
    _need(tensor.data.size in (1, channels) and tensor.is_quantised)
    real = tensor.scale * (tensor.data.astype(np.float64).reshape(-1) - tensor.zero_point)
    return np.broadcast_to(real, [channels])
