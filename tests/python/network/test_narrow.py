# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Sums at any arithmetic: those of the public ops one after the other, and of the oracle."""

from __future__ import annotations

import re

import generated
import numpy as np
import packed
import plain_sums
import pytest
import sum_cases
from comparing import stored_values
from support import assert_bits
from witness import Witness

import bitfold

WIDTHS = (8, 11, 14, 16, 18, 20, 24, 32)
# Widths and shifts in turn; halves at the ends of their shifts.
ARITHMETICS = [
    *(bitfold.Arithmetic(accumulator_size=w, mult_shift=i % 7) for i, w in enumerate(WIDTHS)),
    *(bitfold.Arithmetic(accumulator_size=w) for w in (8, 16, 22)),
    *(bitfold.Arithmetic(use_fp16_acc=True, mult_shift=s) for s in (0, 1, 3, 6)),
    bitfold.Arithmetic(),
    bitfold.Arithmetic(mult_shift=2),
]


def _ops(arithmetic: bitfold.Arithmetic) -> plain_sums.Ops:
    """Return who sums exactly, or the public ops."""
    if arithmetic.accumulator_size is None and not arithmetic.use_fp16_acc:
        return plain_sums.ExactOps(arithmetic.mult_shift)
    return plain_sums.PublicOps(arithmetic)


def _compare(actual: np.ndarray, expected: np.ndarray, arithmetic, what: str) -> None:
    if isinstance(_ops(arithmetic), plain_sums.ExactOps):  # 32 bits where they suffice
        expected = expected.astype(actual.dtype)
    assert_bits(actual, expected, arithmetic=arithmetic, what=what)


def _cases(kind: str, dtype: str) -> list[packed.Case]:
    return list(sum_cases.CASES[kind](dtype, np.random.default_rng(2)))


def _outgrows(case: packed.Case, arithmetic: bitfold.Arithmetic) -> bool:
    """Return whether a shift lifts a multiplier beyond what sums of 64 bits allow."""
    ((kind, inputs, (output,), *_),) = case.operators
    if output.dtype != "int16" or kind == "FULLY_CONNECTED":
        return False
    x, filter = inputs[:2] if kind != "TRANSPOSE_CONV" else (inputs[2], inputs[1])
    largest = np.float64(np.float32(x.scales[0])) * np.max(np.float32(filter.scales))
    return largest / np.float32(output.scales[0]) * 2.0**arithmetic.mult_shift >= 2**7


@pytest.mark.parametrize("dtype", ["int8", "int16"])
@pytest.mark.parametrize("kind", sum_cases.CASES)
def test_sums_are_those_of_the_ops(kind, dtype, reference):
    """Of one operator: the public ops, and the oracle."""
    for turn, case in enumerate(_cases(kind, dtype)):
        arithmetic = ARITHMETICS[turn % len(ARITHMETICS)]
        file, data = Witness(case.content), packed.stored_values(case, 2)
        known = dict(zip(file.inputs, data, strict=True))
        network = bitfold.Network.from_tflite(case.content)
        if _outgrows(case, arithmetic):
            with pytest.raises(ValueError, match=re.escape(network.layers[0].name)):
                network.with_arithmetic(arithmetic)
            continue
        network = network.with_arithmetic(arithmetic)
        sums = network.accumulators(data if len(data) > 1 else data[0])
        assert set(sums) == {0}
        _compare(
            sums[0], plain_sums.plain_sums(file, 0, known, _ops(arithmetic)), arithmetic, case.label
        )
        if isinstance(_ops(arithmetic), plain_sums.PublicOps):
            oracle = plain_sums.OracleOps(arithmetic, reference)
            expected = plain_sums.plain_sums(file, 0, known, oracle)
            _compare(sums[0], expected, arithmetic, f"the oracle; {case.label}")


@pytest.mark.slow
@pytest.mark.parametrize("seed", range(8))
def test_sums_of_networks(seed):
    """Layer by layer, with what the network itself gives each layer."""
    made = generated.network(seed)
    file = Witness(made.content)
    rng = np.random.default_rng(seed)
    inputs = [stored_values(rng, file.dtype(i), (2, *file.shape(i)[1:])) for i in file.inputs]
    given = inputs if len(inputs) > 1 else inputs[0]
    exact = bitfold.Network.from_tflite(made.content)
    for arithmetic in (ARITHMETICS[seed], ARITHMETICS[-6 + seed % 4]):
        network = exact.with_arithmetic(arithmetic)
        known = dict(zip(file.inputs, inputs, strict=True)) | network.trace(given)
        for position, actual in network.accumulators(given).items():
            kind, read, _ = file.operators[position]
            assert kind in plain_sums.KINDS
            if any(i >= 0 and i not in known and file.constant(i) is None for i in read):
                continue  # of images that an operator before it put into other rows
            expected = plain_sums.plain_sums(file, position, known, _ops(arithmetic))
            what = f"seed {seed}, operator {position}, {kind}"
            _compare(actual, expected, arithmetic, what)
