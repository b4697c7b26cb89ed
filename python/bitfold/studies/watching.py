# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What looks on while a network computes: which sums are looked at, and what is counted of them."""

from __future__ import annotations

import dataclasses
from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.network import Arithmetic, Network
from bitfold.network.operators import SummingStep
from bitfold.ops._partial_sums import PartialSums
from bitfold.studies.records import Counts
from bitfold.studies.settings import Setting, exact
from bitfold.studies.tallies import LayerTally, no_extremes
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
        asked: dict[int, dict[str, SummingStep]] = {}
        for setting in settings:
            for position, step in summing_steps(
                network.with_arithmetic(setting.arithmetic)
            ).items():
                asked.setdefault(position, {}).setdefault(key_of(step.arithmetic), step)
        for position, step in summing_steps(network).items():
            self._groups[position] = _groups(step, list(asked.get(position, {}).values()))
            self._known[str(position)] = no_extremes(step.products.least.shape[-1])

    def states(self) -> dict[str, np.ndarray]:
        """Return the extremes until now: the more they span, the sooner new ones are found."""
        return self._known

    def observe(self, step: SummingStep, inputs: Inputs, known: tf.Tensor) -> tuple[list, dict]:
        """Compute a layer, what its sums reach, and what becomes of them in other arithmetics."""
        outputs = step.run(inputs)
        data = inputs[step.node.inputs.index(step.data)]
        seen = {
            "sums": tf.size(outputs[0], tf.int64),
            "low": tf.reduce_min(data),
            "high": tf.reduce_max(data),
        }
        for group in self._groups[step.node.operator.position]:
            reached = known if group.shift == 0 else group.limits
            found = group.reference.partial_sums(inputs, group.widths, reached)
            if group.shift == 0:
                seen["extremes"] = found.extremes
            seen |= group.seen(inputs, found)
        return outputs, seen

    def tallied(self, seen: Mapping[str, Mapping[str, tf.Tensor]]) -> dict[int, LayerTally]:
        """Return what was seen of a batch."""
        found = {}
        for place, values in seen.items():
            position, values = int(place), {key: value.numpy() for key, value in values.items()}
            sums, extremes = int(values.pop("sums")), values.pop("extremes")
            low, high = int(values.pop("low")), int(values.pop("high"))
            self._known[place] = extremes
            counts = {}
            for group in self._groups[position]:
                counts |= group.counts(sums, values)
            data_range = (low, high) if low <= high else None  # of no images
            found[position] = LayerTally(sums, counts, extremes, data_range)
        return found

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
        for position, step in summing_steps(network).items():
            reference = _at_full_width(step, step.arithmetic.mult_shift)
            self._wraps[position] = wraps_of(step, reference, harmless_from(reference))

    def states(self) -> dict[str, np.ndarray]:
        """Return nothing: no batch depends on those before."""
        return {}

    def observe(self, step: SummingStep, inputs: Inputs, _: Any) -> tuple[list, dict]:
        """Compute a layer, and what became of its sums."""
        wraps = self._wraps[step.node.operator.position]
        sums = step.sums(inputs) if wraps.needs_sums else None
        outputs = step.run(inputs) if sums is None else step.finish(sums)
        seen = {"sums": tf.size(outputs[0], tf.int64)}
        if wraps.method is not Method.NOTHING:
            channels = wraps.reference.products.least.shape[-1]
            known = _limits(wraps.width, channels)
            found = wraps.reference.partial_sums(inputs, [wraps.width], known)
            seen |= {"counts": found.counts, "first": found.first}
            if wraps.needs_sums:
                seen["compared"] = wraps.compared(
                    inputs, found.counts[0], lambda: _differ(sums, wraps.reference.sums(inputs))
                )
        return outputs, seen

    def tallied(self, seen: Mapping[str, Mapping[str, tf.Tensor]]) -> dict[int, LayerTally]:
        """Return what was seen of a batch."""
        found = {}
        for place, tensors in seen.items():
            values = {key: value.numpy() for key, value in tensors.items()}
            sums, counts = int(values["sums"]), {}
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
    def limits(self) -> np.ndarray:
        """What sums reach that none of the widths excludes."""
        return _limits(max(self.widths), self.reference.products.least.shape[-1])

    def seen(self, inputs: Inputs, found: PartialSums) -> dict[str, tf.Tensor]:
        """Return what `counts` needs of a batch."""
        if not self.wraps:
            return {}
        seen = {f"counts/{self.shift}": found.counts, f"first/{self.shift}": found.first}
        exact = None
        if any(wraps.needs_sums for wraps in self.wraps.values()):
            exact = self.reference.sums(inputs)
        for key, wraps in self.wraps.items():
            if wraps.needs_sums:

                def differs(step: SummingStep = wraps.step) -> tf.Tensor:
                    return _differ(step.sums(inputs), exact)

                counts = found.counts[self.widths.index(wraps.width)]
                seen[f"compared/{key}"] = wraps.compared(inputs, counts, differs)
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


def _limits(width: int, channels: int) -> np.ndarray:
    """Return extremes that span an accumulator, int64 [4, channels]."""
    limit = 1 << (width - 1)
    return np.repeat(np.array([[-limit], [limit - 1]] * 2, np.int64), channels, 1)


def _differ(sums: tf.Tensor, exact: tf.Tensor) -> tf.Tensor:
    """Return which sums are wrong; floats hold whole numbers."""
    return tf.cast(sums, tf.int64) != tf.cast(exact, tf.int64)
