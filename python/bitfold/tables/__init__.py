# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Builders of the tables that ``layer_norm``, ``softmax`` and ``activation`` take.

Each builder starts from the mathematical function and from the scales of the whole numbers around
the unit, and returns a record: ``keywords`` are arguments of the op, ``dequantise`` turns its
results into real numbers, and ``max_error`` bounds how far these lie from the real function. The
docstrings derive the tables and the bounds; the project's tests hold the units to them.
``requantise`` starts from the multipliers of a layer's sums and ends at whole numbers: its record
counts the steps by which results differ.

Example:
    >>> import bitfold, numpy as np
    >>> from bitfold import tables
    >>> table = tables.softmax(1 / 16)
    >>> result = bitfold.ops.softmax(np.float32([[32, 16, 0]]), **table.keywords)
    >>> table.dequantise(result).round(3)  # of 2.0, 1.0 and 0.0
    array([[0.667, 0.247, 0.09 ]])
"""

from bitfold.tables._activation import FUNCTIONS, ActivationTable, activation
from bitfold.tables._layer_norm import LayerNormTable, layer_norm
from bitfold.tables._requantise import RequantisationTable, requantise
from bitfold.tables._softmax import SoftmaxTable, softmax

__all__ = [
    "FUNCTIONS",
    "ActivationTable",
    "LayerNormTable",
    "RequantisationTable",
    "SoftmaxTable",
    "activation",
    "layer_norm",
    "requantise",
    "softmax",
]

# Whoever asks a function or a record where it lives hears the public address.
for _name in __all__:
    if _name != "FUNCTIONS":
        globals()[_name].__module__ = __name__
