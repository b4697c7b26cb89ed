# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Networks against the witness: every quantised tensor, on bits."""

from __future__ import annotations

import dataclasses
from collections.abc import Sequence

import numpy as np
from witness import Witness

import bitfold


@dataclasses.dataclass
class Tally:
    """What was compared.

    Attributes:
        networks: files.
        tensors: tensors, of all batches.
        values: elements of these.
        kinds: of the operators that wrote them.
    """

    networks: int = 0
    tensors: int = 0
    values: int = 0
    kinds: set[str] = dataclasses.field(default_factory=set)

    def __str__(self) -> str:
        """Return the sums in words."""
        return f"{self.networks} networks, {self.tensors} tensors, {self.values} values compared"


TOTAL = Tally()


def stored_values(
    rng: np.random.Generator, dtype: np.dtype, shape: Sequence[int], is_near: bool = False
) -> np.ndarray:
    """Return integers over the whole range of a type, its ends among them.

    Args:
        rng: where they come from.
        dtype: their type.
        shape: theirs.
        is_near: rather from a normal distribution than all equally likely.
    """
    ends = np.iinfo(dtype)
    if is_near:
        values = np.rint(rng.normal(0, ends.max / 3, shape)).clip(ends.min, ends.max)
        return values.astype(dtype)
    values = rng.integers(ends.min, ends.max, shape, endpoint=True, dtype=dtype)
    # Every stored value where they fit, else the ends and what lies beside them and around zero.
    few = [ends.min, ends.max, 0, ends.min + 1, ends.max - 1, 1]
    every = range(ends.min, ends.max + 1) if ends.bits == 8 else few
    chosen = np.array(every if len(every) <= values.size else few[: values.size], dtype)
    return np.concatenate([chosen, values.reshape(-1)[chosen.size :]]).reshape(shape)


def assert_equals_witness(
    content: bytes, inputs: Sequence[np.ndarray], reproducer: str, *, with_calls: bool = True
) -> None:
    """Fail unless a network computes what the interpreter does.

    Each quantised tensor that an operator writes for each image is compared, and the outputs, for
    all images at once and for the first one alone.

    Args:
        content: the model file.
        inputs: stored values in the order of the file, some images stacked.
        reproducer: what to call to see it again.
        with_calls: whether to compare what calls return, too, and not only traces; done in any case
            where an output is not traced.
    """
    network = bitfold.Network.from_tflite(content)
    reference = Witness(content)
    with_calls |= not all(map(reference.is_traced, reference.outputs))
    expected = reference(inputs)
    alone = [x[: reference.rows(i)] for i, x in zip(reference.inputs, inputs, strict=True)]
    _compare_trace(network, reference, inputs, expected, f"{reproducer}; all images")
    if with_calls:
        _compare_outputs(network, reference, inputs, expected, reproducer)
    count = inputs[0].shape[0] // reference.rows(reference.inputs[0])
    if count > 1:
        first = {i: x[: x.shape[0] // count] if x.ndim else x for i, x in expected.items()}
        _compare_trace(network, reference, alone, first, f"{reproducer}; the first image")
    TOTAL.networks += 1
    TOTAL.kinds.update(reference.kinds)


def _compare_trace(network, reference: Witness, inputs, expected, what: str) -> None:
    given = list(inputs) if len(inputs) > 1 else inputs[0]
    traced = {i: np.asarray(x) for i, x in network.trace(given).items()}
    wanted = [i for i in expected if reference.is_traced(i)]
    assert set(traced) == set(wanted), (
        f"{what}: trace lacks {sorted(set(wanted) - set(traced))} and has beyond it "
        f"{sorted(set(traced) - set(wanted))}; {reference.describe()}"
    )
    wrong = {i for i in wanted if not _equal(traced[i], expected[i])}
    if wrong:
        raise AssertionError(f"{what}:\n{_report(reference, traced, expected, wrong)}")
    TOTAL.tensors += len(wanted)
    TOTAL.values += sum(expected[i].size for i in wanted)


def _compare_outputs(network, reference: Witness, inputs, expected, what: str) -> None:
    results = network(list(inputs) if len(inputs) > 1 else inputs[0])
    results = results if isinstance(results, list) else [results]
    assert len(results) == len(reference.outputs), f"{what}: {len(results)} outputs"
    for i, result in zip(reference.outputs, results, strict=True):
        if i in expected:  # an output may be an input
            shown = _difference(np.asarray(result), expected[i])
            assert not shown, f"{what}: output, tensor {i}: {shown}"


def _equal(actual: np.ndarray, expected: np.ndarray) -> bool:
    return actual.dtype == expected.dtype and np.array_equal(actual, expected)


def _report(reference: Witness, traced, expected, wrong: set[int]) -> str:
    """Name the operators that went wrong from right inputs, the first of them in full."""
    lines = []
    for position, (kind, inputs, outputs) in enumerate(reference.operators):
        mine = [i for i in outputs if i in wrong]
        if not mine or wrong & set(inputs):
            continue
        shown = _difference(traced[mine[0]], expected[mine[0]])
        lines.append(f"  operator {position}, {kind}, tensor {mine[0]}: {shown}")
    return "\n".join([*lines, f"  {len(wrong)} tensors differ in all; {reference.describe()}"])


def _difference(actual: np.ndarray, expected: np.ndarray) -> str:
    """Return where two arrays first differ and how often, "" where they do not."""
    if actual.dtype != expected.dtype or actual.shape != expected.shape:
        got, want = (f"{x.dtype.name}{list(x.shape)}" for x in (actual, expected))
        return f"got {got}, expected {want}"
    differ = actual != expected
    if not differ.any():
        return ""
    at = tuple(int(c[0]) for c in np.nonzero(differ))
    return (
        f"{int(differ.sum())} of {differ.size} differ, first at {list(at)}: "
        f"got {actual[at]}, expected {expected[at]}"
    )
