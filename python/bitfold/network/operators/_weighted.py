# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the layers with stored weights share: convolutions and dense layers."""

from __future__ import annotations

import abc
from collections.abc import Iterator, Sequence

import numpy as np
import tensorflow as tf

from bitfold.network.arithmetic import Arithmetic
from bitfold.network.graph import Node, Tensor
from bitfold.network.operators import _checks, _partial_sums
from bitfold.network.operators._accumulator import Accumulator, exact_groups
from bitfold.network.operators._partial_sums import Part
from bitfold.network.operators._prepared import (
    GroupedLayer,
    Placement,
    PreparedLayer,
    can_be_prepared,
)
from bitfold.network.operators._requantisation import FUSED, Requantiser, multipliers, stored_range
from bitfold.network.operators._step import SummingStep, Watched
from bitfold.ops._partial_sums import PartialSums


def need_weights(what: str, filter: Tensor | None, outputs_axis: int, rank: int) -> Iterator[str]:
    """Yield unless a filter is a constant of int8, symmetric, scaled for all or each output."""
    before = list(_checks.need_constant(what, filter, ("int8",), rank))
    yield from before
    if filter is None or before:
        return
    if not filter.is_quantised:
        yield f"need {what} quantised, got {filter} without a scale"
        return
    quantisation = filter.quantisation
    outputs = filter.shape[outputs_axis]
    if quantisation.scales.size not in (1, outputs):
        yield f"need 1 or {outputs} scales for {what}, got {quantisation.scales.size}"
    elif quantisation.scales.size > 1 and quantisation.axis != outputs_axis:
        yield f"need the scales of {what} along axis {outputs_axis}, got {quantisation.axis}"
    if quantisation.zero_points.any():
        yield f"need the zero point 0 for {what}, got {filter}"


def need_bias(bias: Tensor | None, dtype: str, outputs: int) -> Iterator[str]:
    """Yield unless there is no bias, or a constant one with a number for each output."""
    if bias is None:
        return
    yield from _checks.need_constant("the bias", bias, (dtype,))
    if bias.is_constant and bias.data.size != outputs:
        yield f"need a bias of {outputs} elements, got {bias}"


def has_wide_sums(node: Node, data: Tensor) -> bool:
    """Return whether sums have 64 bits: those of int16, unless the options say that they have 32.

    Only some operators have that option.
    """
    return data.dtype == np.int16 and node.option("quantized_bias_type") != "int32"


class WeightedStep(SummingStep):
    """A layer whose sums are products of data with stored weights, plus a stored bias.

    Attributes:
        filter: the stored weights, in the file's layout.
        bias: the stored bias; None where there is none.
    """

    # The positions of data, weights and bias among the inputs.
    places = (0, 1, 2)
    # The dimension of the stored weights that counts outputs.
    outputs_axis = 0
    # What the model's rule rounds like where the sums have 32 bits, and where they have 64.
    roundings = ("two_roundings", "short_multiplier")

    def __init__(self, node: Node, arithmetic: Arithmetic) -> None:
        """Make the weights as the op takes them, and the requantiser."""
        super().__init__(node, arithmetic)
        data, filter, bias = (node.input(place) for place in self.places)
        self.data, self.weights_tensor, self.bias_tensor = data, filter, bias
        self.filter = filter.data
        self.bias = None if bias is None else bias.data
        self._zero_point = data.zero_point
        self._groups = self.groups(self.weights()) if self.adds_in_64_bits else None
        self._accumulator = self._make_accumulator()
        self._requantise = Requantiser(
            node.outputs[0],
            multipliers(data, filter, node.outputs[0]),
            node.option("fused_activation_function", "NONE"),
            arithmetic,
            self.roundings[self.is_wide],
        )
        self._prepared = self._prepare()

    @property
    def is_wide(self) -> bool:
        """Whether exact sums are those of 64 bits."""
        return has_wide_sums(self.node, self.node.inputs[self.places[0]])

    @property
    def adds_in_64_bits(self) -> bool:
        """Whether the layer's arithmetic is exact, in 64 bits."""
        exact = self.arithmetic.accumulator_size is None and not self.arithmetic.use_fp16_acc
        return exact and self.is_wide

    def _make_accumulator(self) -> Accumulator:
        return Accumulator(
            self.product,
            self.weights(),
            self.bias,
            self.arithmetic,
            self._groups,
            self.of_group,
        )

    def _prepare(self) -> PreparedLayer | GroupedLayer | None:
        """Return the whole layer as one op, or one for each part; None where it is several."""
        placement, output = self.placement, self.node.outputs[0]
        if placement is None:
            return None
        # Rounded products, so many that 32 bits may not hold them, the one op adds up one by one.
        if self.arithmetic.mult_shift and self._groups is not None and len(self._groups) > 1:
            return None
        if not can_be_prepared(self.arithmetic, self.data.dtype, output.dtype):
            return None
        keywords = dict(
            arithmetic=self.arithmetic,
            placement=placement,
            is_wide=self.adds_in_64_bits,
            input_zero_point=self._zero_point,
            **self._requantise.keywords,
        )
        if self.part_count > 1:
            return GroupedLayer(self.part_count, self.weights(), self.bias, **keywords)
        return PreparedLayer(self.weights(), self.bias, **keywords)

    @property
    def part_count(self) -> int:
        """In how many groups the data's channels come, each with outputs of its own."""
        return 1

    @property
    def placement(self) -> Placement | None:
        """Where the windows lie in what `arrange` makes of stored data; None where it takes more.

        A layer without one is computed by the public ops, one after the other.
        """
        return None

    def groups(self, weights: np.ndarray) -> list[slice]:
        """Return the groups of input channels whose sums fit 32 bits."""
        data = self.node.inputs[self.places[0]]
        magnitude = -stored_range(data.dtype)[0] + abs(data.zero_point)
        groups = exact_groups(weights, magnitude, self.arithmetic.mult_shift)
        if groups is None:
            raise ValueError(
                "need sums of 64 bits of at most 512 taps for exact arithmetic, got weights "
                f"{list(weights.shape)}"
            )
        return groups

    @abc.abstractmethod
    def weights(self) -> np.ndarray:
        """Return the stored weights as `product` takes them, [..., inputs, outputs]."""

    @abc.abstractmethod
    def product(self, data: tf.Tensor, weights: np.ndarray, **datapath) -> tf.Tensor:
        """Sum the products, [N, H, W, inputs] to [N, H', W', outputs]."""

    def of_group(self, data: tf.Tensor, group: slice) -> tf.Tensor:
        """Return the input channels of one of the `groups`."""
        return data[..., group]

    def arrange(self, data: tf.Tensor, zero: int) -> tf.Tensor:
        """Return data as `product` takes it; `zero` is the number of them that stands for 0."""
        return data

    def arrange_sums(self, sums: tf.Tensor) -> tf.Tensor:
        """Return sums, or what is stored of them, in the shape of the output."""
        return sums

    def sums(self, inputs: Sequence[tf.Tensor | None]) -> tf.Tensor:
        """Return the sums with their bias."""
        data = tf.cast(inputs[self.places[0]], tf.int32) - self._zero_point
        return self.arrange_sums(self._accumulator(self.arrange(data, 0)))

    @property
    def parts_placement(self) -> Placement:
        """Where the windows lie in what `parts` gives."""
        return self.placement or Placement()

    def parts(self, inputs: Sequence[tf.Tensor | None]) -> list[Part]:
        """Return convolutions whose sums, side by side, are those of the layer."""
        data = self.arrange(inputs[self.places[0]], self._zero_point)
        return [Part(data, self._zero_point, self.weights(), self.bias)]

    def partial_sums(
        self,
        inputs: Sequence[tf.Tensor | None],
        accumulator_sizes: Sequence[int],
        known_extremes: tf.Tensor | None = None,
        channels: Sequence[int] | None = None,
    ) -> PartialSums:
        """Return what the partial sums of full width reach."""
        parts = self.parts(inputs)
        if channels is not None:
            parts = _partial_sums.chosen(parts, channels, self.parts_placement.depthwise)
        return _partial_sums.partial_sums(
            parts,
            self.parts_placement,
            self.arithmetic.mult_shift,
            accumulator_sizes,
            known_extremes,
        )

    def was_outside(self, inputs: Sequence[tf.Tensor | None], accumulator_size: int) -> tf.Tensor:
        """Return for each of the sums whether one of its partial sums was outside of a width."""
        shift = self.arithmetic.mult_shift
        parts = self.parts(inputs)
        return self.arrange_sums(
            _partial_sums.was_outside(parts, self.parts_placement, shift, accumulator_size)
        )

    def finish(self, sums: tf.Tensor) -> list[tf.Tensor]:
        """Requantise."""
        return [self._requantise(sums)]

    def run(self, inputs: Sequence[tf.Tensor | None]) -> list[tf.Tensor]:
        """Compute the stored output."""
        if self._prepared is None:
            return super().run(inputs)
        data = self.arrange(inputs[self.places[0]], self._zero_point)
        return [self.arrange_sums(self._prepared(data))]

    def watched(
        self, inputs: Sequence[tf.Tensor | None], accumulator_sizes: Sequence[int]
    ) -> Watched | None:
        """Return the stored output, and what the final sums of full width reach."""
        if self._prepared is None or self._is_bias_narrowed:
            return None
        data = self.arrange(inputs[self.places[0]], self._zero_point)
        found = self._prepared.watched(data, accumulator_sizes)
        return Watched([self.arrange_sums(found.output)], found.extremes, found.outside)

    @property
    def _is_bias_narrowed(self) -> bool:
        """Whether the one op is given less than the bias of full width."""
        if self.bias is None or self.adds_in_64_bits:
            return False
        return bool((self.bias != self.bias.astype(np.int32)).any())

    @classmethod
    def layer_problems(cls, node: Node, rank: int, data_rank: int | None) -> Iterator[str]:
        """Yield what is wrong with data, weights, bias and output; nothing is read after that."""
        data, filter, bias = (node.input(place) for place in cls.places)
        output = node.outputs[0]
        yield from _checks.need_stored("the data", data, rank=data_rank)
        yield from need_weights("the filter", filter, cls.outputs_axis, rank)
        yield from _checks.need_stored("the output", output)
        if data is not None:
            yield from _checks.need_same_type(node, data, output)
        if None not in (data, filter) and len(filter.shape) == rank:
            bias_type = "int64" if has_wide_sums(node, data) else "int32"
            yield from need_bias(bias, bias_type, filter.shape[cls.outputs_axis])
        if node.option("fused_activation_function", "NONE") not in FUSED:
            yield from _checks.need_option(node, "fused_activation_function", *FUSED)
