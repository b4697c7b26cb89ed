# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What looks on while a network computes: which sums are looked at, and what is counted of them.

There are two ways to look on. Final sums say which are wrong and which bits they need; they are
looked at while they are made. Partial sums say what happens on the way, and are made for that
alone: of a sample of the images (`bitfold.studies.sampling`), or of all.
"""

from __future__ import annotations

import math
from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.network import Network
from bitfold.network.operators import SummingStep
from bitfold.studies.finals import Inputs, watch
from bitfold.studies.groups import (
    Group,
    at_full_width,
    differ,
    groups_of,
    key_of,
    number_of_differences,
)
from bitfold.studies.records import Counts
from bitfold.studies.settings import Setting
from bitfold.studies.tallies import LayerTally, no_extremes, within_bits
from bitfold.studies.wraps import Method, Wraps, counts_of, harmless_from, wraps_of

# The name of the only counts of a pass end to end.
END_TO_END = "end to end"


def summing_steps(network: Network) -> dict[int, SummingStep]:
    """Return the steps with an accumulator by position."""
    return {
        step.node.operator.position: step for step in network.steps if isinstance(step, SummingStep)
    }


class FullWidthPass:
    """Looks on while a network computes at full width.

    Attributes:
        network: at full width.
    """

    def __init__(self, network: Network, settings: Sequence[Setting]) -> None:
        """Find what is asked of each layer.

        Args:
            network: at full width.
            settings: the arithmetics whose counts are wanted.
        """
        self.network = network
        self._groups: dict[int, list[Group]] = {}
        self._known: dict[str, np.ndarray] = {}
        self._has_seen = False
        self._sums: dict[int, int] = {}
        asked: dict[int, dict[str, SummingStep]] = {}
        for setting in settings:
            for position, step in summing_steps(
                network.with_arithmetic(setting.arithmetic)
            ).items():
                asked.setdefault(position, {}).setdefault(key_of(step.arithmetic), step)
        for position, step in summing_steps(network).items():
            self._sums[position] = _sums_of_an_image(step)
            self._groups[position] = groups_of(step, list(asked.get(position, {}).values()))
            self._known[str(position)] = no_extremes(step.products.least.shape[-1])

    def states(self) -> dict[str, np.ndarray]:
        """Return the extremes until now, of partial sums what their bits hold.

        What lies between is not looked for.
        """
        return self._known

    @property
    def knows_nothing(self) -> bool:
        """Whether no batch has come, so that everything would have to be looked for."""
        return not self._has_seen

    def observe_finals(self, step: SummingStep, inputs: Inputs, _: Any) -> tuple[list, dict]:
        """Compute a layer, what its final sums reach, and which are wrong in other arithmetics."""
        seen, outputs = _data_range(step, inputs), None
        for group in self._groups[step.node.operator.position]:
            outside = None
            if group.shift == 0:
                outputs, extremes, outside = watch(step, group.reference, inputs, group.ends)
                seen["finals"] = extremes
            elif group.ends:
                outside = watch(group.reference, group.reference, inputs, group.ends).outside
            seen |= group.ended(inputs, outside)
        return outputs, seen

    def tallied_finals(
        self, seen: Mapping[str, Mapping[str, np.ndarray]], images: int
    ) -> dict[int, LayerTally]:
        """Return what was seen of the final sums of a batch of so many images."""
        found = {}
        for place, values in seen.items():
            position = int(place)
            sums = images * self._sums[position]
            counts = {}
            for group in self._groups[position]:
                counts |= group.wrong(sums, values)
            # Final sums are partial ones, too.
            extremes = within_bits(np.concatenate([values["finals"]] * 2))
            found[position] = LayerTally(sums, counts, extremes, _range_of(values))
        return found

    def observe(self, step: SummingStep, inputs: Inputs, known: tf.Tensor) -> tuple[list, dict]:
        """Compute a layer, what its sums reach, and what becomes of them in other arithmetics."""
        outputs = step.run(inputs)
        seen = _data_range(step, inputs)
        for group in self._groups[step.node.operator.position]:
            if group.shift == 0:
                found = group.reference.partial_sums(inputs, group.widths, known)
                seen["extremes"], *outside = found
            else:
                outside = _outside(group.reference, inputs, group.widths, group.channels)
            seen |= group.seen(inputs, *outside)
        return outputs, seen

    def tallied(
        self, seen: Mapping[str, Mapping[str, np.ndarray]], images: int
    ) -> dict[int, LayerTally]:
        """Return what was seen of all sums of a batch of so many images."""
        found = {}
        for place, values in seen.items():
            position = int(place)
            # Whatever was known: tallies must not depend on the order of batches.
            sums, extremes = images * self._sums[position], within_bits(values["extremes"])
            self._known[place] = extremes
            counts = {}
            for group in self._groups[position]:
                counts |= group.counts(sums, values)
            found[position] = LayerTally(sums, counts, extremes, _range_of(values), sums)
        return found

    def learn(self, seen: Mapping[str, Mapping[str, np.ndarray]]) -> None:
        """Take what was seen of some images for known, and count nothing."""
        for place, values in seen.items():
            self._known[place] = within_bits(values["extremes"])
        self._has_seen = True

    def lines(self) -> dict[str, int]:
        """Return how many lines the pass would have printed: exact sums print none."""
        return {}


class SettingPass:
    """Looks on while a network computes end to end in an arithmetic.

    Attributes:
        network: in the arithmetic.
    """

    def __init__(self, network: Network) -> None:
        """Choose how to judge each layer's sums."""
        self.network = network
        self._wraps: dict[int, Wraps] = {}
        self._sums: dict[int, int] = {}
        for position, step in summing_steps(network).items():
            self._sums[position] = _sums_of_an_image(step)
            reference = at_full_width(step, step.arithmetic.mult_shift)
            self._wraps[position] = wraps_of(step, reference, harmless_from(reference))

    # No batch depends on those before.
    knows_nothing = False

    def states(self) -> dict[str, np.ndarray]:
        """Return nothing."""
        return {}

    def observe_finals(self, step: SummingStep, inputs: Inputs, _: Any) -> tuple[list, dict]:
        """Compute a layer, and how many of its sums are wrong."""
        wraps = self._wraps[step.node.operator.position]
        if wraps.needs_sums:
            sums = step.sums(inputs)
            wrong = number_of_differences(sums, wraps.reference.sums(inputs))
            return step.finish(sums), {"wrong": wrong}
        if wraps.method is Method.COUNT:
            found = watch(step, wraps.reference, inputs, [wraps.width])
            return found.outputs, {"wrong": tf.reduce_sum(found.outside)}
        return step.run(inputs), {}

    def tallied_finals(
        self, seen: Mapping[str, Mapping[str, np.ndarray]], images: int
    ) -> dict[int, LayerTally]:
        """Return what was seen of the final sums of a batch of so many images."""
        found = {}
        for place, values in seen.items():
            position = int(place)
            sums, counts = images * self._sums[position], {}
            if "wrong" in values:
                counts[END_TO_END] = Counts(sums, int(values["wrong"]), looked_at=0)
            found[position] = LayerTally(sums, counts)
        return found

    def observe(self, step: SummingStep, inputs: Inputs, _: Any) -> tuple[list, dict]:
        """Compute a layer, and what became of its sums."""
        wraps = self._wraps[step.node.operator.position]
        sums = step.sums(inputs) if wraps.needs_sums else None
        outputs = step.run(inputs) if sums is None else step.finish(sums)
        seen = {}
        if wraps.method is not Method.NOTHING:
            counts, first = _outside(wraps.reference, inputs, [wraps.width], wraps.channels)
            seen = {"counts": counts, "first": first}
            if wraps.needs_sums:
                seen["compared"] = wraps.compared(
                    inputs, counts[0], lambda: differ(sums, wraps.reference.sums(inputs))
                )
        return outputs, seen

    def tallied(
        self, seen: Mapping[str, Mapping[str, np.ndarray]], images: int
    ) -> dict[int, LayerTally]:
        """Return what was seen of all sums of a batch of so many images."""
        found = {}
        for place, values in seen.items():
            position = int(place)
            sums, counts = images * self._sums[position], {}
            if "counts" in values:
                counts[END_TO_END] = counts_of(
                    sums, values["counts"][0], values["first"][0], values.get("compared")
                )
            found[position] = LayerTally(sums, counts, looked=sums)
        return found

    def lines(self) -> dict[str, int]:
        """Return how many lines of sums outside of 24 bits would have been printed until now."""
        found = self.network.warnings().items()
        return {name: kinds["out_of_bounds"] for name, kinds in found if kinds.get("out_of_bounds")}


def _outside(
    reference: SummingStep, inputs: Inputs, widths: Sequence[int], channels: Sequence[int]
) -> tuple[tf.Tensor, tf.Tensor]:
    """Return the counts and first steps of `bitfold.ops.partial_sums` for some channels."""
    if not channels:
        return tf.zeros([len(widths), 0, 3], tf.int64), tf.zeros([len(widths), 0], tf.int64)
    # Nobody asks for extremes here: none is beyond those of the widest accumulator.
    limit = 1 << (max(widths) - 1)
    known = np.repeat(np.array([[-limit], [limit - 1]] * 2, np.int64), len(channels), 1)
    found = reference.partial_sums(inputs, widths, known, channels)
    return found.counts, found.first


def _sums_of_an_image(step: SummingStep) -> int:
    return math.prod(step.node.outputs[0].shape)


def _data_range(step: SummingStep, inputs: Inputs) -> dict[str, tf.Tensor]:
    """Return the ends of the stored data."""
    data = inputs[step.node.inputs.index(step.data)]
    return {"low": tf.reduce_min(data), "high": tf.reduce_max(data)}


def _range_of(values: Mapping[str, np.ndarray]) -> tuple[int, int] | None:
    """Return the range of data that was seen; None of no images."""
    low, high = int(values["low"]), int(values["high"])
    return (low, high) if low <= high else None
