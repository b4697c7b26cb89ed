# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""The numeric units on Bitfold's operations: whole numbers in, whole numbers out.

A site's input is divided by a scale, rounded and clipped; the unit computes; its results are
multiplied by the scale of the output. Scales come from the site's inputs on the training images.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import numpy as np
import tensorflow as tf

import bitfold
from bitfold import tables
from encoder import EPSILON, WIDTH, FloatUnits

KINDS = ("softmax", "norm", "gelu")
BREAKPOINTS = 15
HEADROOM = 1.1
"""Ranges reach this much beyond what the training images need."""


class Recorder(FloatUnits):
    """Float units that keep every site's input."""

    def __init__(self) -> None:
        """Start with nothing recorded."""
        self.inputs: dict[str, np.ndarray] = {}

    def softmax(self, site: str, x: tf.Tensor) -> tf.Tensor:
        """See `encoder.Units`."""
        self.inputs[site] = x.numpy()
        return super().softmax(site, x)

    def norm(self, site: str, x: tf.Tensor) -> tf.Tensor:
        """See `encoder.Units`."""
        self.inputs[site] = x.numpy()
        return super().norm(site, x)

    def gelu(self, site: str, x: tf.Tensor) -> tf.Tensor:
        """See `encoder.Units`."""
        self.inputs[site] = x.numpy()
        return super().gelu(site, x)


@dataclass(frozen=True)
class Site:
    """One place of the encoder on a unit.

    table: what a builder of ``bitfold.tables`` made for it.
    input_scale: real value of one step of the input.
    limit: largest magnitude of the input, in steps.
    """

    kind: str
    table: Any
    input_scale: float
    limit: int

    def quantise(self, x: np.ndarray) -> np.ndarray:
        """Steps of the input for real numbers."""
        steps = np.rint(np.asarray(x, np.float64) / self.input_scale)
        return np.clip(steps, -self.limit, self.limit)

    def run(self, x: np.ndarray) -> np.ndarray:
        """Real results of the unit for inputs in steps, along the last axis."""
        rows = x.reshape(-1, x.shape[-1])
        if self.kind == "softmax":
            result = bitfold.ops.softmax(rows.astype(np.float32), **self.table.keywords)
        elif self.kind == "norm":
            value = rows.astype(np.float32)[np.newaxis, np.newaxis]
            result = bitfold.ops.layer_norm(value, **self.table.keywords)
        else:
            value = rows.astype(np.int64)[np.newaxis, np.newaxis]
            result = bitfold.ops.activation(value, **self.table.keywords)
        return self.table.dequantise(result).reshape(x.shape)

    def bound(self, x: np.ndarray) -> float:
        """The table's stated error for inputs in steps, the largest of all vectors."""
        if self.kind == "softmax":
            return self.table.max_error(x.shape[-1])
        if self.kind == "norm":
            spreads = zip(x.std(axis=-1).ravel(), x.mean(axis=-1).ravel(), strict=True)
            return max(self.table.max_error(*spread) for spread in spreads)
        return self.table.max_error


class BitfoldUnits(FloatUnits):
    """Units of some kinds on Bitfold, the others in float."""

    def __init__(self, sites: dict[str, Site], kinds: tuple[str, ...] = KINDS) -> None:
        """Take prepared sites and which kinds to emulate."""
        self.sites, self.kinds = sites, kinds

    def softmax(self, site: str, x: tf.Tensor) -> tf.Tensor:
        """See `encoder.Units`."""
        return self._emulate(site, x) if "softmax" in self.kinds else super().softmax(site, x)

    def norm(self, site: str, x: tf.Tensor) -> tf.Tensor:
        """See `encoder.Units`."""
        return self._emulate(site, x) if "norm" in self.kinds else super().norm(site, x)

    def gelu(self, site: str, x: tf.Tensor) -> tf.Tensor:
        """See `encoder.Units`."""
        return self._emulate(site, x) if "gelu" in self.kinds else super().gelu(site, x)

    def _emulate(self, site: str, x: tf.Tensor) -> tf.Tensor:
        unit = self.sites[site]
        return tf.constant(unit.run(unit.quantise(x.numpy())), tf.float32)


def prepare(inputs: dict[str, np.ndarray], bits: int) -> dict[str, Site]:
    """Build the tables of every site from its recorded inputs, for units of 8 or 16 bits.

    The softmax unit always takes 8 bits: its table has an exponential for 256 distances.
    """
    return {site: _prepare(site.split()[0], x, bits) for site, x in inputs.items()}


def _prepare(kind: str, x: np.ndarray, bits: int) -> Site:
    limit = 127 if kind == "softmax" else 2 ** (bits - 1) - 1
    scale = HEADROOM * float(np.abs(x).max()) / limit
    if kind == "softmax":
        return Site(kind, tables.softmax(scale), scale, limit)
    if kind == "norm":
        largest = HEADROOM * float(np.abs(FloatUnits().norm("", x)).max())
        table = tables.layer_norm(
            WIDTH, input_scale=scale, input_range=(-limit, limit), epsilon=EPSILON,
            output_scale=largest / (127 if bits == 8 else 16383), is_16bit_output=bits == 16,
        )  # fmt: skip
        return Site(kind, table, scale, limit)
    signed = (-limit - 1, limit)
    table = tables.activation(
        "gelu", input_scale=scale, output_scale=scale, output_zero_point=0,
        breakpoints=BREAKPOINTS, input_range=signed, output_range=signed,
    )  # fmt: skip
    return Site(kind, table, scale, limit)
