# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What operators ask of their tensors and options, as sentences where it does not hold."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Sequence
from typing import Any

import numpy as np

from bitfold.network.graph import Node, Tensor

STORED = ("int8", "int16")


def need_counts(node: Node, inputs: Iterable[int], outputs: Iterable[int] = (1,)) -> Iterator[str]:
    """Yield unless the numbers of inputs and outputs are among those given.

    The inputs that an operator needs are there: none of the first min(inputs) is left out.
    """
    inputs, outputs = tuple(inputs), tuple(outputs)
    for what, allowed, found in (
        ("inputs", inputs, len(node.inputs)),
        ("outputs", outputs, len(node.outputs)),
    ):
        if found not in allowed:
            yield f"need {_either(allowed)} {what}, got {found}"
    for i in range(min(*inputs, len(node.inputs)) if inputs else 0):
        if node.inputs[i] is None:
            yield f"need input {i}, which is left out"


def need_stored(
    what: str, tensor: Tensor | None, dtypes: Sequence[str] = STORED, rank: int | None = None
) -> Iterator[str]:
    """Yield unless a tensor holds stored integers of one of the types with one scale for all.

    int16 is symmetric: its zero point is 0.
    """
    if tensor is None:
        yield f"need {what}, which is left out"
        return
    yield from need_type(what, tensor, dtypes, rank)
    if not tensor.is_quantised:
        yield f"need {what} quantised, got {tensor} without a scale"
    elif tensor.quantisation.scales.size != 1:
        scales = tensor.quantisation.scales.size
        yield f"need one scale for {what}, got {scales} for {tensor}"
    elif not 0 < tensor.scale < np.inf:
        yield f"need a finite scale above 0 for {what}, got {tensor.scale} for {tensor}"
    elif tensor.dtype == np.int16 and tensor.zero_point:
        yield f"need the zero point 0 for {what} in int16, got {tensor.zero_point} for {tensor}"


def need_type(
    what: str, tensor: Tensor, dtypes: Sequence[str], rank: int | None = None
) -> Iterator[str]:
    """Yield unless a tensor has one of the types, and the rank where one is given."""
    if tensor.dtype.name not in dtypes:
        yield f"need {what} of {_either(dtypes)}, got {tensor}"
    if rank is not None and len(tensor.shape) != rank:
        yield f"need {what} of rank {rank}, got {tensor}"


def need_constant(
    what: str, tensor: Tensor | None, dtypes: Sequence[str], rank: int | None = None
) -> Iterator[str]:
    """Yield unless a tensor is a constant of one of the types."""
    if tensor is None:
        yield f"need {what}, which is left out"
        return
    yield from need_type(what, tensor, dtypes, rank)
    if not tensor.is_constant:
        yield f"need {what} to be a constant, got {tensor}"


def need_same_type(node: Node, *tensors: Tensor) -> Iterator[str]:
    """Yield unless tensors have one type."""
    names = {tensor.dtype.name for tensor in tensors}
    if len(names) > 1:
        yield f"need one type for {', '.join(map(str, tensors))}"


def need_same_quantisation(*tensors: Tensor) -> Iterator[str]:
    """Yield unless tensors, each with one scale, have the same scale and zero point."""
    if len({(tensor.scale, tensor.zero_point) for tensor in tensors}) > 1:
        yield f"need one scale and zero point for {', '.join(map(str, tensors))}"


def need_option(node: Node, name: str, *allowed: Any) -> Iterator[str]:
    """Yield unless an option has one of the values."""
    if node.option(name) not in allowed:
        yield f"need {name} {_either(allowed)}, got {node.option(name)!r}"


def need_positive(node: Node, *names: str) -> Iterator[str]:
    """Yield unless options are numbers above 0."""
    for name in names:
        value = node.option(name, 1)
        if not value >= 1:
            yield f"need {name} >= 1, got {value}"


def _either(values: Iterable[Any]) -> str:
    """Return "a, b or c"."""
    *front, last = map(str, values)
    return f"{', '.join(front)} or {last}" if front else last
