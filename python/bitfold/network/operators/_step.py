# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What an operator of a network is to the rest: a step from stored tensors to stored tensors.

A batch of B images is stacked along the first dimension: a tensor that the file gives as
[d0, d1, ...] arrives as [B * d0, d1, ...], the d0 rows of an image side by side. Constants arrive
as they are.
"""

from __future__ import annotations

import abc
from collections.abc import Iterator, Sequence
from typing import TYPE_CHECKING, NamedTuple

import tensorflow as tf

if TYPE_CHECKING:
    from bitfold.network.arithmetic import Arithmetic
    from bitfold.network.graph import Node, Tensor
    from bitfold.network.operators._products import Products
    from bitfold.ops._partial_sums import PartialSums


class Step(abc.ABC):
    """An operator, ready to run. A subclass is the one place that knows its operator.

    Attributes:
        node: the operator and its tensors, constants folded, shapes those of one image.
        arithmetic: what the operator computes in.
    """

    # Whether the operator computes in floats, by the stock op.
    is_float = False
    # Whether images stacked along the first dimension give the results stacked in the same way.
    # Where not, images run one by one. May be a property.
    stacks = False

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Make what does not depend on the data. Called only where `problems` yields nothing."""
        self.node = node
        self.arithmetic = arithmetic

    @classmethod
    @abc.abstractmethod
    def problems(cls, node: Node) -> Iterator[str]:
        """Yield what keeps the operator from being imported, one sentence each, no full stop.

        The number of inputs and outputs and every type, quantisation, shape and option that the
        other methods rely on is checked here: a file may hold anything.
        """

    @abc.abstractmethod
    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Compute the outputs, in their stored types, from the inputs in theirs."""


class Watched(NamedTuple):
    """What a step with an accumulator stores, and what its final sums reach at full width.

    Attributes:
        outputs: stored.
        extremes: int64 [2, channels], the least and the greatest sum.
        outside: int64 [widths, channels], sums outside of each width.
    """

    outputs: list[tf.Tensor]
    extremes: tf.Tensor
    outside: tf.Tensor


class SummingStep(Step):
    """An operator with an accumulator: sums, then their requantisation.

    Such a step always stacks.

    Attributes:
        multiply_adds: products for one image.
        data: the tensor that is multiplied.
        weights_tensor: the stored weights; None where these are data, too.
        bias_tensor: the stored bias; None where there is none.
    """

    stacks = True
    multiply_adds: int
    data: Tensor
    weights_tensor: Tensor | None = None
    bias_tensor: Tensor | None = None

    @property
    @abc.abstractmethod
    def products(self) -> Products:
        """What the sums are sums of, beside the bias."""

    @abc.abstractmethod
    def sums(self, inputs: Sequence[tf.Tensor | None]) -> tf.Tensor:
        """Return the sums with their bias, as the accumulator holds them at the end."""

    @abc.abstractmethod
    def partial_sums(
        self,
        inputs: Sequence[tf.Tensor | None],
        accumulator_sizes: Sequence[int],
        known_extremes: tf.Tensor | None = None,
        channels: Sequence[int] | None = None,
    ) -> PartialSums:
        """Return what the partial sums of full width reach, with the arithmetic's shift.

        Args:
            inputs: of the step.
            accumulator_sizes: the widths that they are compared with, 1 to 32.
            known_extremes: int64 [4, channels] that the result's include, or None.
            channels: of the output, in rising order, of which alone sums are looked at; None for
                all.
        """

    def watched(
        self, inputs: Sequence[tf.Tensor | None], accumulator_sizes: Sequence[int]
    ) -> Watched | None:
        """Return the stored output, and what the final sums of full width reach.

        Args:
            inputs: of the step.
            accumulator_sizes: the widths that they are compared with, 1 to 32.

        Returns:
            What was found; None where that takes the sums themselves.
        """
        return None

    @abc.abstractmethod
    def was_outside(self, inputs: Sequence[tf.Tensor | None], accumulator_size: int) -> tf.Tensor:
        """Return for each of the sums whether one of its partial sums was outside of a width.

        Partial sums are those of full width, with the arithmetic's shift.
        """

    @abc.abstractmethod
    def finish(self, sums: tf.Tensor) -> list[tf.Tensor]:
        """Requantise sums into the stored output."""

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Compute the stored output."""
        return self.finish(self.sums(inputs))
