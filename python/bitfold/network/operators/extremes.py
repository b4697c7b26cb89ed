# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""MAXIMUM and MINIMUM: of stored elements, whatever their scales are."""

from __future__ import annotations

from collections.abc import Iterator

import tensorflow as tf

from bitfold.network.graph import Node
from bitfold.network.operators._pairs import PairStep, pair_problems

_FUNCTIONS = {"MAXIMUM": tf.maximum, "MINIMUM": tf.minimum}


class ElementExtreme(PairStep):
    """MAXIMUM and MINIMUM."""

    @classmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported."""
        yield from pair_problems(node, quantised=False)

    def prepare(self, i: int, stored: tf.Tensor) -> tf.Tensor:
        """Return the elements as they are."""
        return stored

    def combine(self, first: tf.Tensor, second: tf.Tensor) -> tf.Tensor:
        """Compare stored elements."""
        return _FUNCTIONS[self.node.kind](first, second)
