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
from collections import Counter
from collections.abc import Callable, Mapping
from typing import Any

import numpy as np
import tensorflow as tf

from bitfold.network import Network, evaluation
from bitfold.network.shards.data import Shard
from bitfold.network.shards.metrics import Metric
from bitfold.network.shards.work import Run
from bitfold.studies.sampling import Sample
from bitfold.studies.settings import Setting, full_width
from bitfold.studies.tallies import LayerTally, Tally
from bitfold.studies.watching import FullWidthPass, SettingPass

# That `bitfold.ops.partial_sums` takes.
_WIDEST_BIAS = 1 << 62


@dataclasses.dataclass(frozen=True)
class Plan:
    """What every task of a study is told.

    Attributes:
        network: the one that is studied.
        settings: its arithmetics.
        metric: how results are measured; None without labels. What `Network.evaluate` takes.
        has_metric: whether there are labels.
        sample: the images whose partial sums are looked at.
    """

    network: Network
    settings: tuple[Setting, ...]
    metric: Any
    has_metric: bool
    sample: Sample = dataclasses.field(default_factory=Sample)

    def runner(self, key: int | None) -> Run:
        """Return what computes shards in a setting, by its index; None for the full-width pass."""
        return Runner(self, key).run

    def called(self, key: int | None) -> str:
        """Return the name of a setting."""
        return "full width" if key is None else self.settings[key].name


def check_biases(network: Network) -> None:
    """Raise ValueError for a bias whose partial sums 64 bits do not hold."""
    for layer in network.layers:
        if layer.has_accumulator and layer.bias is not None and layer.bias.size:
            widest = max(int(layer.bias.max()), -int(layer.bias.min()))
            if widest > _WIDEST_BIAS:
                raise ValueError(
                    f"Need biases of at most 2^62 in a study, got one of {widest} in layer "
                    f"{layer.name!r}"
                )


def _need_numbers(images: Any, first: int) -> None:
    """Raise ValueError for NaN, which is stored as some number or other, and seen nowhere after."""
    for value in map(np.asarray, tf.nest.flatten(images)):
        if value.dtype.kind == "f" and np.isnan(value).any():
            raise ValueError(
                f"Need images of numbers, got {int(np.isnan(value).sum())} elements of NaN in the "
                f"{len(value)} images from image {first} on"
            )


class Finals:
    """Adds up what final sums tell of batches, as late as can be."""

    def __init__(self, watching: FullWidthPass | SettingPass) -> None:
        """Take who says what it tells."""
        self._pass = watching
        self._tally = Tally()
        self._seen: Any = None
        self._count = 0

    def add(self, seen: Any, count: int) -> None:
        """Take what was seen of so many images."""
        self._seen = seen if self._seen is None else self._seen + seen
        self._count += count
        if not self._pass.adds_up:
            self._take()

    def tally(self) -> Tally:
        """Return what it told of all batches."""
        if self._seen is not None:
            self._take()
        return self._tally

    def _take(self) -> None:
        layers = self._pass.tallied_finals(self._seen, self._count)
        self._tally += Tally(self._count, layers)
        self._seen, self._count = None, 0


class Runner:
    """Computes the shards of one setting."""

    def __init__(self, plan: Plan, setting: int | None) -> None:
        """Make the network and what looks on; graphs are made when the first batch comes."""
        network = full_width(plan.network)
        if setting is None:
            self._pass: FullWidthPass | SettingPass = FullWidthPass(network, plan.settings)
        else:
            given = plan.network.with_arithmetic(plan.settings[setting].arithmetic)
            self._pass = SettingPass(given)
        self._call = self._pass.network.observed(self._pass.observe_finals)
        self._call_to_look = self._pass.network.observed(self._pass.observe)
        self._is_first = setting is None
        self._sample = plan.sample
        self._metric = Metric(plan.metric) if plan.has_metric else None

    def run(self, shard: Shard, advance: Callable[[int], None] = lambda _: None) -> Tally:
        """Return what is counted over a shard.

        Raises:
            ValueError: for images with elements that are not a number, for labels that do not fit,
                and where a metric meets several outputs.
        """
        begin, before = time.perf_counter(), self._pass.lines()
        metric = None if self._metric is None else self._metric.start()
        finals, place, most, sample = Finals(self._pass), shard.first // self._rows, 1, []
        tally = Tally()
        for images, labels in shard.batches:
            count = self._count(images)
            if self._is_first:
                _need_numbers(images, place)
            looked = self._sample.places(place, count)
            if looked.size == count:
                outputs, layers = self._look(images)
                tally += Tally(count, layers, looked=count)
            else:
                outputs, seen = self._call(images, {})
                finals.add(seen, count)
            if metric is not None:
                if not tf.is_tensor(outputs):
                    raise ValueError("Need a network of one output for a metric; leave y out")
                evaluation.update(metric, labels, outputs)
            if 0 < looked.size < count:
                sample.append(self._some(images, looked))
            place, most = place + count, max(most, count)
            advance(count)
        tally += finals.tally()
        lines = Counter(self._pass.lines())
        lines.subtract(before)
        lines = {name: number for name, number in lines.items() if number}
        if sample:
            tally += self._look_at_sample(sample, most)
        states = {} if metric is None else {shard.index: self._metric.state(metric)}
        return tally + Tally(0, {}, states, lines, seconds=time.perf_counter() - begin)

    def _look_at_sample(self, parts: list[Any], most: int) -> Tally:
        """Return what partial sums tell of images that were counted; so many are looked at once.

        Their lines were counted, too.
        """
        tally = Tally()
        sample = tf.nest.map_structure(lambda *values: np.concatenate(values), *parts)
        for images in evaluation.batches(sample, most * self._rows):
            layers = {place: layer.of_sample() for place, layer in self._look(images)[1].items()}
            tally += Tally(0, layers, looked=self._count(images))
        return tally

    def _look(self, images: Any) -> tuple[Any, dict[int, LayerTally]]:
        """Return the outputs of images, and what was seen of all their sums."""
        if self._pass.knows_nothing and self._count(images) > 1:
            # One image alone has most of the bits, and finds them at less cost than a batch.
            first = next(evaluation.batches(images, self._rows))
            self._pass.learn(self._call_to_look(first, self._pass.states())[1])
        outputs, seen = self._call_to_look(images, self._pass.states())
        return outputs, self._pass.tallied(seen, self._count(images))

    def _some(self, images: Any, places: np.ndarray) -> Any:
        """Return some images of a batch."""
        rows = (places[:, None] * self._rows + np.arange(self._rows)).reshape(-1)
        return tf.nest.map_structure(lambda value: np.asarray(value)[rows], images)

    @property
    def _rows(self) -> int:
        """Of an input for one image: 1, but for networks whose file has more."""
        return self._pass.network.inputs[0].shape[0]

    def _count(self, images: Any) -> int:
        """Return how many images a batch holds."""
        if isinstance(images, Mapping):
            images = images[self._pass.network.inputs[0].name]
        elif isinstance(images, list | tuple):
            images = images[0]
        return len(images) // self._rows
