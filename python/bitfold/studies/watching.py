# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What looks on while a network computes: which sums are looked at, and what is counted of them."""

from __future__ import annotations

import dataclasses
import math
from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.network import Arithmetic, Network
from bitfold.network.operators import SummingStep
from bitfold.studies.records import Counts
from bitfold.studies.settings import Setting, exact
from bitfold.studies.tallies import LayerTally, no_extremes, within_bits
from bitfold.studies.wraps import Method, Wraps, counts_of, harmless_from, wraps_of

# The name of the only counts of a pass end to end.
END_TO_END = "end to end"
Inputs = Sequence[tf.Tensor | None]


def key_of(arithmetic: Arithmetic) -> str:
    """Return a name of what sums are formed in, the same for arithmetics with the same sums."""
    width = "exact" if arithmetic.accumulator_size is None else arithmetic.accumulator_size
    return f"{width}/{arithmetic.mult_shift}{'/half' if arithmetic.use_fp16_acc else ''}"


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
        self._groups: dict[int, list[_Group]] = {}
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
            self._groups[position] = _groups(step, list(asked.get(position, {}).values()))
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

    def observe(self, step: SummingStep, inputs: Inputs, known: tf.Tensor) -> tuple[list, dict]:
        """Compute a layer, what its sums reach, and what becomes of them in other arithmetics."""
        outputs = step.run(inputs)
        data = inputs[step.node.inputs.index(step.data)]
        seen = {"low": tf.reduce_min(data), "high": tf.reduce_max(data)}
        for group in self._groups[step.node.operator.position]:
            if group.shift == 0:
                found = group.reference.partial_sums(inputs, group.widths, known)
                seen["extremes"], *outside = found
            else:
                outside = _outside(group.reference, inputs, group.widths, group.channels)
            seen |= group.seen(inputs, *outside)
        return outputs, seen

    def tallied(
        self, seen: Mapping[str, Mapping[str, tf.Tensor]], images: int
    ) -> dict[int, LayerTally]:
        """Return what was seen of a batch of so many images."""
        found = {}
        for place, values in seen.items():
            position, values = int(place), {key: value.numpy() for key, value in values.items()}
            # Whatever was known: tallies must not depend on the order of batches.
            sums, extremes = images * self._sums[position], within_bits(values["extremes"])
            low, high = int(values["low"]), int(values["high"])
            self._known[place] = extremes
            counts = {}
            for group in self._groups[position]:
                counts |= group.counts(sums, values)
            data_range = (low, high) if low <= high else None  # of no images
            found[position] = LayerTally(sums, counts, extremes, data_range)
        return found

    def learn(self, seen: Mapping[str, Mapping[str, tf.Tensor]]) -> None:
        """Take what was seen of some images for known, and count nothing."""
        for place, values in seen.items():
            self._known[place] = within_bits(values["extremes"].numpy())
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
            reference = _at_full_width(step, step.arithmetic.mult_shift)
            self._wraps[position] = wraps_of(step, reference, harmless_from(reference))

    # No batch depends on those before.
    knows_nothing = False

    def states(self) -> dict[str, np.ndarray]:
        """Return nothing."""
        return {}

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
                    inputs, counts[0], lambda: _differ(sums, wraps.reference.sums(inputs))
                )
        return outputs, seen

    def tallied(
        self, seen: Mapping[str, Mapping[str, tf.Tensor]], images: int
    ) -> dict[int, LayerTally]:
        """Return what was seen of a batch of so many images."""
        found = {}
        for place, tensors in seen.items():
            values = {key: value.numpy() for key, value in tensors.items()}
            sums, counts = images * self._sums[int(place)], {}
            if "counts" in values:
                counts[END_TO_END] = counts_of(
                    sums, values["counts"][0], values["first"][0], values.get("compared")
                )
            found[int(place)] = LayerTally(sums, counts)
        return found

    def lines(self) -> dict[str, int]:
        """Return how many lines of sums outside of 24 bits would have been printed until now."""
        found = self.network.warnings().items()
        return {name: kinds["out_of_bounds"] for name, kinds in found if kinds.get("out_of_bounds")}


@dataclasses.dataclass(frozen=True, eq=False)
class _Group:
    """What a layer's sums of one shift are compared with.

    Attributes:
        shift: of every addend.
        reference: the layer at full width with this shift.
        wraps: by the name of the arithmetic of the sums.
    """

    shift: int
    reference: SummingStep
    wraps: Mapping[str, Wraps]

    @property
    def widths(self) -> list[int]:
        """The widths, each once."""
        return sorted({wraps.width for wraps in self.wraps.values()})

    @property
    def channels(self) -> list[int]:
        """The output channels of which a partial sum may be outside of one of the widths."""
        return sorted({c for wraps in self.wraps.values() for c in wraps.channels})

    def seen(self, inputs: Inputs, counts: tf.Tensor, first: tf.Tensor) -> dict[str, tf.Tensor]:
        """Return what `counts` needs of a batch."""
        if not self.wraps:
            return {}
        seen = {f"counts/{self.shift}": counts, f"first/{self.shift}": first}
        exact = None
        if any(wraps.needs_sums for wraps in self.wraps.values()):
            exact = self.reference.sums(inputs)
        for key, wraps in self.wraps.items():
            if wraps.needs_sums:

                def differs(step: SummingStep = wraps.step) -> tf.Tensor:
                    return _differ(step.sums(inputs), exact)

                of_width = counts[self.widths.index(wraps.width)]
                seen[f"compared/{key}"] = wraps.compared(inputs, of_width, differs)
        return seen

    def counts(self, sums: int, values: Mapping[str, np.ndarray]) -> dict[str, Counts]:
        """Return what became of a batch's sums, by arithmetic."""
        found = {}
        for key, wraps in self.wraps.items():
            place = self.widths.index(wraps.width)
            found[key] = counts_of(
                sums,
                values[f"counts/{self.shift}"][place],
                values[f"first/{self.shift}"][place],
                values.get(f"compared/{key}"),
            )
        return found


def _groups(step: SummingStep, asked: Sequence[SummingStep]) -> list[_Group]:
    """Return what a layer's sums are compared with by shift; always those without a shift."""
    groups = []
    for shift in sorted({0} | {other.arithmetic.mult_shift for other in asked}):
        reference = _at_full_width(step, shift)
        harmless = harmless_from(reference)
        chosen = {
            key_of(other.arithmetic): wraps_of(other, reference, harmless)
            for other in asked
            if other.arithmetic.mult_shift == shift
        }
        wraps = {key: wraps for key, wraps in chosen.items() if wraps.method is not Method.NOTHING}
        if wraps or shift == 0:
            groups.append(_Group(shift, reference, wraps))
    return groups


def _at_full_width(step: SummingStep, shift: int) -> SummingStep:
    """Return a step that has exact sums of shifted addends."""
    if step.arithmetic == exact(step.arithmetic, shift):
        return step
    return type(step)(step.node, exact(step.arithmetic, shift))


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


def _differ(sums: tf.Tensor, exact: tf.Tensor) -> tf.Tensor:
    """Return which sums are wrong; floats hold whole numbers."""
    return tf.cast(sums, tf.int64) != tf.cast(exact, tf.int64)
