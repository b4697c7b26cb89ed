# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The work of a study: a network in a setting over a shard of the data, counted.

The full-width pass finds what sums need, and what would become of them in every arithmetic that was
asked for, with the inputs of full width: partial sums of one shift are compared with all widths at
once. The pass of a setting computes end to end, and looks at sums only where something can be
wrong. Tasks do not depend on one another, and what they count adds up in any order, so that they
can be computed anywhere.
"""

from __future__ import annotations

import dataclasses
import time
from collections.abc import Callable, Mapping, Sequence
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.network import Arithmetic, Network
from bitfold.network.operators import SummingStep
from bitfold.ops._partial_sums import PartialSums
from bitfold.studies.data import Shard, count_of
from bitfold.studies.metrics import Metric
from bitfold.studies.records import Counts
from bitfold.studies.settings import Setting, exact, full_width
from bitfold.studies.tallies import NO_RANGE, LayerTally, Tally, no_extremes
from bitfold.studies.wraps import Method, Wraps, harmless_from, wraps_of

# The name of the only counts of a pass end to end.
END_TO_END = "end to end"
Inputs = Sequence[tf.Tensor | None]


@dataclasses.dataclass(frozen=True)
class Plan:
    """What every task of a study is told.

    Attributes:
        network: the one that is studied.
        settings: its arithmetics.
        metric: how results are measured; None without labels. What `Network.evaluate` takes.
        has_metric: whether there are labels.
    """

    network: Network
    settings: tuple[Setting, ...]
    metric: Any
    has_metric: bool


@dataclasses.dataclass(frozen=True)
class Task:
    """A part of a study.

    Attributes:
        setting: its index; None for the full-width pass.
        shard: of the data.
    """

    setting: int | None
    shard: int


def key_of(arithmetic: Arithmetic) -> str:
    """Return a name of what sums are formed in, the same for arithmetics with the same sums."""
    width = "exact" if arithmetic.accumulator_size is None else arithmetic.accumulator_size
    return f"{width}/{arithmetic.mult_shift}{'/half' if arithmetic.use_fp16_acc else ''}"


def summing_steps(network: Network) -> dict[int, SummingStep]:
    """Return the steps with an accumulator by position."""
    return {
        step.node.operator.position: step for step in network.steps if isinstance(step, SummingStep)
    }


class Runner:
    """Computes the tasks of one setting."""

    def __init__(self, plan: Plan, setting: int | None) -> None:
        """Make the network and what looks on; graphs are made when the first batch comes."""
        network = full_width(plan.network)
        if setting is None:
            self._pass: FullWidthPass | SettingPass = FullWidthPass(network, plan.settings)
        else:
            given = plan.network.with_arithmetic(plan.settings[setting].arithmetic)
            self._pass = SettingPass(given)
        self._call = self._pass.network.observed(self._pass.observe)
        self._metric = Metric(plan.metric) if plan.has_metric else None

    def run(self, shard: Shard, advance: Callable[[int], None] = lambda _: None) -> Tally:
        """Return what is counted over a shard.

        Raises:
            ValueError: for labels that do not fit, and where a metric meets several outputs.
        """
        begin = time.perf_counter()
        metric = None if self._metric is None else self._metric.start()
        lines_before = self._pass.lines()
        tally = Tally()
        for images, labels in shard.batches:
            outputs, seen = self._call(images, self._pass.states())
            if metric is not None:
                if not tf.is_tensor(outputs):
                    raise ValueError("Need a network of one output for a metric; leave y out")
                metric.update_state(labels, outputs)
            tally += Tally(count_of(images), self._pass.tallied(seen))
            advance(count_of(images))
        states = {} if metric is None else {shard.index: self._metric.state(metric)}
        lines = {
            name: count - lines_before.get(name, 0) for name, count in self._pass.lines().items()
        }
        lines = {name: count for name, count in lines.items() if count}
        return tally + Tally(0, {}, states, lines, time.perf_counter() - begin)


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
        self._known: dict[str, dict[str, np.ndarray]] = {}
        asked: dict[int, dict[str, SummingStep]] = {}
        for setting in settings:
            for position, step in summing_steps(
                network.with_arithmetic(setting.arithmetic)
            ).items():
                asked.setdefault(position, {}).setdefault(key_of(step.arithmetic), step)
        for position, step in summing_steps(network).items():
            self._groups[position] = _groups(step, list(asked.get(position, {}).values()))
            extremes = no_extremes(step.products.least.shape[-1])
            self._known[str(position)] = {"extremes": extremes, "range": NO_RANGE}

    def states(self) -> dict[str, dict[str, np.ndarray]]:
        """Return the extremes until now: the more they span, the sooner new ones are found."""
        return self._known

    def observe(self, step: SummingStep, inputs: Inputs, known: Mapping) -> tuple[list, dict]:
        """Compute a layer, what its sums reach, and what becomes of them in other arithmetics."""
        outputs = step.run(inputs)
        data = inputs[step.node.inputs.index(step.data)]
        data_range = _range_with(data, known["range"])
        seen = {"sums": tf.size(outputs[0], tf.int64), "range": data_range}
        for group in self._groups[step.node.operator.position]:
            reached = known["extremes"] if group.shift == 0 else group.limits
            found = group.reference.partial_sums(inputs, group.widths, reached)
            if group.shift == 0:
                seen["extremes"] = found.extremes
            seen |= group.counts(inputs, found)
        return outputs, seen

    def tallied(self, seen: Mapping[str, Mapping[str, tf.Tensor]]) -> dict[int, LayerTally]:
        """Return what was seen of a batch."""
        found = {}
        for place, values in seen.items():
            position, values = int(place), {key: value.numpy() for key, value in values.items()}
            sums, extremes = int(values.pop("sums")), values.pop("extremes")
            low, high = map(int, values.pop("range"))
            self._known[place] = {"extremes": extremes, "range": np.array([low, high])}
            counts = {key: _counts(sums, value) for key, value in values.items()}
            data_range = (low, high) if low <= high else None
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
            seen[END_TO_END] = wraps.counts(
                inputs, found, 0, lambda: _differ(sums, wraps.reference.sums(inputs))
            )
        return outputs, seen

    def tallied(self, seen: Mapping[str, Mapping[str, tf.Tensor]]) -> dict[int, LayerTally]:
        """Return what was seen of a batch."""
        found = {}
        for place, values in seen.items():
            sums = int(values["sums"])
            counts = {}
            if END_TO_END in values:
                counts[END_TO_END] = _counts(sums, values[END_TO_END].numpy())
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

    def counts(self, inputs: Inputs, found: PartialSums) -> dict[str, tf.Tensor]:
        """Return what becomes of the sums, by arithmetic."""
        exact = None
        if any(wraps.needs_sums for wraps in self.wraps.values()):
            exact = self.reference.sums(inputs)
        seen = {}
        for key, wraps in self.wraps.items():

            def differs(step: SummingStep = wraps.step) -> tf.Tensor:
                return _differ(step.sums(inputs), exact)

            place = self.widths.index(wraps.width)
            seen[key] = wraps.counts(inputs, found, place, differs)
        return seen


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


def _range_with(data: tf.Tensor, known: tf.Tensor) -> tf.Tensor:
    """Return the least and the greatest of stored numbers and of a range, int64 [2]."""
    ends = tf.constant([data.dtype.min, data.dtype.max], tf.int64)

    def widened() -> tf.Tensor:
        found = (tf.reduce_min(data), tf.reduce_max(data))
        low, high = (tf.cast(number, tf.int64) for number in found)
        return tf.stack([tf.minimum(low, known[0]), tf.maximum(high, known[1])])

    # Nothing is beyond the ends of the type; most tensors of 8 bits soon reach them.
    return tf.cond(tf.reduce_all(known == ends), lambda: known, widened)


def _counts(sums: int, values: np.ndarray) -> Counts:
    wrong, right_again, outside, first = map(int, values)
    return Counts(sums, wrong, right_again, outside, first)
