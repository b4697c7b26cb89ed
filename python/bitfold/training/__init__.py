# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Training through the accelerator's arithmetic.

`emulate` makes of a Keras model one with the same variables whose layers compute in quantised
integers (``emulating``, ``patterns``), at scales that are calibrated and trained along (``ranges``,
``quantising``), with sums in the accelerator's accumulator (``sums``) and gradients of the real
functions that the integers stand for (``clamping``). `bitfold.Network.from_keras` of that model
computes with the integers that training saw.
"""

from bitfold.training.emulating import emulate, emulated_layers
from bitfold.training.hooks import FilterRule, LayerIntegers, RealLayer
from bitfold.training.proven import ExcessPenalty, ProvenWidth
from bitfold.training.summary import LayerSummary, print_summary, summarise

__all__ = [
    "ExcessPenalty",
    "FilterRule",
    "LayerIntegers",
    "LayerSummary",
    "ProvenWidth",
    "RealLayer",
    "emulate",
    "emulated_layers",
    "print_summary",
    "summarise",
]
