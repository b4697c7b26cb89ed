# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What a network tells of itself: its inputs and outputs, its layers."""

from __future__ import annotations

import dataclasses

import numpy as np

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Tensor
from bitfold.network.operators import Step, SummingStep


@dataclasses.dataclass(frozen=True)
class Port:
    """An input or an output of a network.

    Attributes:
        name: what dictionaries call it.
        index: of its tensor in the file.
        shape: the batch first, as the file has it: 1 where it is open.
        dtype: numpy's type of the stored elements.
        scale: real = scale * (stored - zero point); None where elements are not quantised.
        zero_point: the same.
    """

    name: str
    index: int
    shape: tuple[int, ...]
    dtype: np.dtype
    scale: float | None
    zero_point: int | None

    @classmethod
    def of(cls, name: str, tensor: Tensor) -> Port:
        """Describe a tensor."""
        scale, zero_point = None, None
        if tensor.is_quantised:
            scale, zero_point = tensor.scale, tensor.zero_point
        return cls(name, tensor.index, tensor.shape, tensor.dtype, scale, zero_point)


@dataclasses.dataclass(frozen=True, eq=False)
class Layer:
    """An operator of a network.

    Attributes:
        position: in the file.
        name: what `Network.with_arithmetic` calls it.
        operator: its name in the file's schema, as CONV_2D.
        input_shapes: of its inputs for one image; None for one that is left out.
        output_shapes: of its outputs for one image.
        input_indices: of its inputs in the file; -1 for one that is left out.
        output_indices: of its outputs in the file, as `Network.trace` has them.
        multiply_adds: products for one image, 0 for an operator without an accumulator.
        arithmetic: what it computes in.
        is_float: whether it computes in floats, by the stock op.
        filter: the stored weights in the file's layout, or None.
        bias: the stored bias, or None.
        filter_scales: float32, one or one for each output, or None.
        input_scale: of the data; None where it is not quantised.
        input_zero_point: the same.
        output_scale: the same of the first output.
        output_zero_point: the same.
    """

    position: int
    name: str
    operator: str
    input_shapes: tuple[tuple[int, ...] | None, ...]
    output_shapes: tuple[tuple[int, ...], ...]
    input_indices: tuple[int, ...]
    output_indices: tuple[int, ...]
    multiply_adds: int
    arithmetic: Arithmetic
    is_float: bool
    filter: np.ndarray | None = None
    bias: np.ndarray | None = None
    filter_scales: np.ndarray | None = None
    input_scale: float | None = None
    input_zero_point: int | None = None
    output_scale: float | None = None
    output_zero_point: int | None = None

    @property
    def has_accumulator(self) -> bool:
        """Whether it adds up products."""
        return self.multiply_adds > 0

    @classmethod
    def of(cls, name: str, step: Step) -> Layer:
        """Describe a step."""
        node = step.node
        is_summing = isinstance(step, SummingStep)
        data = _port(step.data if is_summing else node.input(0))
        output = _port(node.outputs[0])
        weights = step.weights_tensor if is_summing else None
        bias = step.bias_tensor if is_summing else None
        return cls(
            position=node.operator.position,
            name=name,
            operator=node.kind,
            input_shapes=tuple(None if t is None else t.shape for t in node.inputs),
            output_shapes=tuple(tensor.shape for tensor in node.outputs),
            input_indices=node.operator.inputs,
            output_indices=node.operator.outputs,
            multiply_adds=step.multiply_adds if is_summing else 0,
            arithmetic=step.arithmetic,
            is_float=step.is_float,
            filter=None if weights is None else weights.data,
            bias=None if bias is None else bias.data,
            filter_scales=None if weights is None else weights.quantisation.scales,
            input_scale=data.scale,
            input_zero_point=data.zero_point,
            output_scale=output.scale,
            output_zero_point=output.zero_point,
        )


def _port(tensor: Tensor | None) -> Port:
    """Describe a tensor that may be none or have many scales."""
    if tensor is None or not tensor.is_quantised or tensor.quantisation.scales.size != 1:
        return Port("", -1, (), np.dtype(object), None, None)
    return Port.of("", tensor)
