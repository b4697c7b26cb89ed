# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Which layers of a model in training compute in integers, and which in floats."""

from __future__ import annotations

import dataclasses
import sys
from typing import TextIO

import keras

from bitfold.network.arithmetic import Arithmetic
from bitfold.training.edges import Dequantised, Quantised
from bitfold.training.layers import Emulated
from bitfold.training.weighted import EmulatedLayer


@dataclasses.dataclass(frozen=True)
class LayerSummary:
    """A layer of a model in training.

    Attributes:
        name: of the layer.
        computes: what it is, as "CONV_2D", or the Keras layer's class.
        is_float: whether it computes in floats.
        arithmetic: what its sums are added up in; None where there are none, and in floats.
    """

    name: str
    computes: str
    is_float: bool
    arithmetic: Arithmetic | None


def summarise(model: keras.Model) -> list[LayerSummary]:
    """Return a record for each layer of a model that `emulate` made, in their order.

    Example:
        >>> import bitfold, keras, numpy as np
        >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
        >>> trained = bitfold.training.emulate(model, calibration=np.ones((5, 4), np.float32))
        >>> [(row.name, row.computes) for row in bitfold.training.summarise(trained)]
        [('dense', 'FULLY_CONNECTED')]
    """
    shown = [
        layer
        for layer in model.layers
        if not isinstance(layer, keras.layers.InputLayer | Quantised | Dequantised)
    ]
    return [_row(layer) for layer in shown]


def _row(layer: keras.layers.Layer) -> LayerSummary:
    inner = getattr(layer, "layer", layer)
    computes = getattr(layer, "kind", type(inner).__name__)
    arithmetic = layer.arithmetic if isinstance(layer, EmulatedLayer) else None
    return LayerSummary(layer.name, computes, not isinstance(layer, Emulated), arithmetic)


def print_summary(model: keras.Model, file: TextIO | None = None) -> None:
    """Print a line for each layer of a model that `emulate` made: integers or floats, and its sums.

    Args:
        model: what `emulate` returned.
        file: where to; by default the console.

    Example:
        >>> import bitfold, keras, numpy as np
        >>> model = keras.Sequential([keras.Input((4,)), keras.layers.Dense(2, name="dense")])
        >>> trained = bitfold.training.emulate(model, calibration=np.ones((5, 4), np.float32))
        >>> bitfold.training.print_summary(trained)
        dense  FULLY_CONNECTED  integers  Arithmetic()
    """
    rows = [
        (
            row.name,
            row.computes,
            "floats" if row.is_float else "integers",
            "" if row.arithmetic is None else repr(row.arithmetic),
        )
        for row in summarise(model)
    ]
    widths = [max((len(row[i]) for row in rows), default=0) for i in range(4)]
    for row in rows:
        line = "  ".join(text.ljust(width) for text, width in zip(row, widths, strict=True))
        print(line.rstrip(), file=file or sys.stdout)
