# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The causes of an error, in the order in which an attribution switches them on."""

from __future__ import annotations

from collections.abc import Mapping

from bitfold.network import Arithmetic, Network

QUANTISATION = "quantisation"
SHIFT = "shift"
ACCUMULATOR = "accumulator"
UNITS = "unit requantisation"


def causes_of(
    network: Network, asked: Arithmetic | Mapping[str, Arithmetic]
) -> list[tuple[str, tuple[Arithmetic, ...]]]:
    """Return the steps towards an arithmetic: each cause, and what every layer computes in then.

    A cause that changes nothing is left out. Whatever units an arithmetic asks for come last,
    together.
    """
    layers = network.with_arithmetic(asked).layers
    ends = [layer.arithmetic for layer in layers]
    steps = [(QUANTISATION, tuple(Arithmetic() for _ in ends))]
    sums = [layer.arithmetic if layer.has_accumulator else Arithmetic() for layer in layers]
    shifted = tuple(Arithmetic(mult_shift=end.mult_shift) for end in sums)
    wrapped = tuple(
        Arithmetic(
            accumulator_size=end.accumulator_size,
            mult_shift=end.mult_shift,
            use_fp16_acc=end.use_fp16_acc,
        )
        for end in sums
    )
    last = tuple(ends) if any(end.units for end in ends) else wrapped
    for name, state in ((SHIFT, shifted), (ACCUMULATOR, wrapped), (UNITS, last)):
        if state != steps[-1][1]:
            steps.append((name, state))
    return steps
