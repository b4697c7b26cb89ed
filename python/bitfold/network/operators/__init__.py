# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The operators of networks, a file for each family. The tables say who handles what."""

from __future__ import annotations

from bitfold.network.graph import Node
from bitfold.network.operators._step import Step, SummingStep
from bitfold.network.operators.convolution import Convolution
from bitfold.network.operators.depthwise import DepthwiseConvolution
from bitfold.network.operators.fully_connected import FullyConnected
from bitfold.network.operators.reshape import Reshape

__all__ = ["STEPS", "Step", "SummingStep", "step_of"]

STEPS: dict[str, type[Step]] = {
    "CONV_2D": Convolution,
    "DEPTHWISE_CONV_2D": DepthwiseConvolution,
    "EXPAND_DIMS": Reshape,
    "FULLY_CONNECTED": FullyConnected,
    "RESHAPE": Reshape,
    "SQUEEZE": Reshape,
}


def step_of(node: Node) -> type[Step] | None:
    """Return who handles an operator on data, None where nobody does."""
    return STEPS.get(node.kind)
