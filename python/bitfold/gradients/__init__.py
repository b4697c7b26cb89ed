# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Gradients of the ops on float data, registered with the runtime when this package is imported.

A gradient is that of the real function that an op approximates: wraps, roundings and half precision
are passed straight through, products are divided by the shift's value, the pieces of a unit have
their slopes. Each module states the function of its ops. All of them compute in stock ops, so that
they run wherever these run, in graphs whose sizes are unknown, and have gradients themselves.
docs/gradients.md is for those who train.
"""

from bitfold.gradients import (
    activation,
    additions,
    convolutions,
    layer_norm,
    products,
    refusals,
    softmax,
)

__all__ = [
    "activation",
    "additions",
    "convolutions",
    "layer_norm",
    "products",
    "refusals",
    "softmax",
]
