# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What a model file holds, as records: tensors, operators, and the graph that they make.

Nothing here knows where a model came from. Whoever makes a ``Graph`` has checked what the methods
of ``Graph`` take for granted: indices in range, every tensor written at most once, and before it is
read.
"""

from __future__ import annotations

import dataclasses
from collections.abc import Mapping
from typing import Any

import numpy as np

# The runtime's kernels count the elements of a tensor in 32 bits.
MOST_ELEMENTS = 2**31 - 1


@dataclasses.dataclass(frozen=True, eq=False)
class Quantisation:
    """How stored integers stand for real numbers: scale * (stored - zero point).

    Attributes:
        scales: float32 [1], or one for each index along `axis`.
        zero_points: int64, as many as `scales`.
        axis: the dimension that several scales belong to.
    """

    scales: np.ndarray
    zero_points: np.ndarray
    axis: int = 0


@dataclasses.dataclass(frozen=True, eq=False)
class Tensor:
    """A tensor of a model file.

    Attributes:
        index: its place in the file.
        name: its name in the file.
        shape: its dimensions in the file, those that the file leaves unknown as 1; () for a scalar.
        dtype: numpy's type of the stored elements.
        quantisation: None for what is not quantised.
        data: the elements of a constant, of `shape` and `dtype` and not writable; else None.
        unknown: the dimensions whose size the file leaves open.
        unsupported: what of the tensor these records cannot express, as "is sparse". Whoever uses
            the tensor must refuse it; where it keeps the elements from being known, `data` is None.
    """

    index: int
    name: str
    shape: tuple[int, ...]
    dtype: np.dtype
    quantisation: Quantisation | None = None
    data: np.ndarray | None = None
    unknown: tuple[int, ...] = ()
    unsupported: tuple[str, ...] = ()

    @property
    def is_constant(self) -> bool:
        """Whether the tensor's elements are known before the network runs."""
        return self.data is not None

    @property
    def is_quantised(self) -> bool:
        """Whether the stored elements are integers that stand for real numbers."""
        return self.quantisation is not None

    @property
    def scale(self) -> float:
        """The one scale, a single-precision number held in double precision."""
        return float(self._only(self._quantisation.scales))

    @property
    def zero_point(self) -> int:
        """The one zero point."""
        return int(self._only(self._quantisation.zero_points))

    @property
    def _quantisation(self) -> Quantisation:
        if self.quantisation is None:
            raise ValueError(f"Need a quantised tensor, got {self}")
        return self.quantisation

    def _only(self, values: np.ndarray) -> Any:
        if values.size != 1:
            raise ValueError(f"Need one scale for the whole tensor, got {values.size} for {self}")
        return values.reshape(())

    def __str__(self) -> str:
        """Return what messages call the tensor."""
        return f"tensor {self.index} {self.name!r} ({self.dtype.name} {list(self.shape)})"


@dataclasses.dataclass(frozen=True, eq=False)
class Operator:
    """An operator of a model file.

    Attributes:
        position: its place in the file's order.
        kind: its name in the file's schema, as CONV_2D; of a custom one "CUSTOM <its code>", of one
            that the schema does not know "BUILTIN <its number>".
        inputs: indices of tensors; -1 for one that is left out.
        outputs: indices of tensors.
        options: its options by their names in the schema, as stride_w; enumerations by name, as
            "SAME". What the file leaves out has the schema's default.
        version: of its registration.
    """

    position: int
    kind: str
    inputs: tuple[int, ...]
    outputs: tuple[int, ...]
    options: Mapping[str, Any] = dataclasses.field(default_factory=dict)
    version: int = 1


@dataclasses.dataclass(frozen=True, eq=False)
class Graph:
    """A network: operators in an order in which they can run, over tensors by index.

    Attributes:
        tensors: by index.
        operators: in the file's order.
        inputs: indices of the tensors that the caller gives.
        outputs: indices of the tensors that the caller gets.
        input_names: what the caller calls the inputs: the names in the file's first signature, else
            those of the tensors.
        output_names: the same for the outputs.
        unsupported: what of the file these records leave out, as "holds 2 subgraphs".
    """

    tensors: tuple[Tensor, ...]
    operators: tuple[Operator, ...]
    inputs: tuple[int, ...]
    outputs: tuple[int, ...]
    input_names: tuple[str, ...] = ()
    output_names: tuple[str, ...] = ()
    unsupported: tuple[str, ...] = ()


@dataclasses.dataclass(frozen=True, eq=False)
class Node:
    """An operator together with its tensors, as the operators' steps take it.

    Attributes:
        operator: the operator.
        inputs: its tensors; None for one that is left out.
        outputs: its tensors.
    """

    operator: Operator
    inputs: tuple[Tensor | None, ...]
    outputs: tuple[Tensor, ...]

    @classmethod
    def of(cls, operator: Operator, tensors: Mapping[int, Tensor] | tuple[Tensor, ...]) -> Node:
        """Look up an operator's tensors."""
        return cls(
            operator,
            tuple(None if index < 0 else tensors[index] for index in operator.inputs),
            tuple(tensors[index] for index in operator.outputs),
        )

    @property
    def kind(self) -> str:
        """The operator's name in the schema."""
        return self.operator.kind

    def option(self, name: str, default: Any = None) -> Any:
        """Return an option of the operator."""
        return self.operator.options.get(name, default)

    def input(self, i: int) -> Tensor | None:
        """Return the i-th input, None where it is left out or the operator has fewer."""
        return self.inputs[i] if i < len(self.inputs) else None

    def constant(self, i: int) -> np.ndarray | None:
        """Return the elements of the i-th input where it is a constant."""
        tensor = self.input(i)
        return None if tensor is None else tensor.data
