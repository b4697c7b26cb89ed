# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What an arithmetic does to a network: the call that finds out, and what it gives."""

from __future__ import annotations

import dataclasses
import hashlib
import io
import json
import os
import platform
import time
from collections.abc import Callable, Iterator, Mapping
from typing import Any, TextIO

import keras
import numpy as np
import tensorflow as tf

from bitfold._frame.library import VERSION
from bitfold.network import Network, archive, evaluation
from bitfold.studies import document, page, search, tables, terminal
from bitfold.studies.attribution import attribute
from bitfold.studies.bounds import Bounds, layer_bounds
from bitfold.studies.data import Data, Shard
from bitfold.studies.layers import bits_of_layer
from bitfold.studies.metrics import Metric
from bitfold.studies.passes import END_TO_END, Plan, Runner, Task, key_of, summing_steps
from bitfold.studies.records import (
    Attribution,
    ChannelBits,
    Counts,
    Findings,
    LayerBits,
    LayerCounts,
    Narrowest,
    Result,
)
from bitfold.studies.resuming import Parts
from bitfold.studies.settings import Setting, full_width, settings_of
from bitfold.studies.tallies import LayerTally, Tally
from bitfold.studies.wraps import corrected_weights


def study(
    network: Network,
    x: Any,
    y: Any = None,
    *,
    arithmetics: Any = None,
    metric: Any = None,
    float_model: Any = None,
    batch_size: int | None = None,
    resume: str | os.PathLike[str] | None = None,
) -> Study:
    """Find out what accumulators do to a network, layer by layer.

    One pass at full width finds what the sums of every layer need, and what would become of them in
    each arithmetic if the layer alone computed in it. Then the network computes end to end in each.
    All counts are exact; memory does not grow with the data.

    Args:
        network: the network. What is full width of it has exact sums, its units stay.
        x: the data, as `Network.evaluate` takes them: an array, for several inputs a list or a
            dictionary, or a `tf.data.Dataset` of batches (of pairs with labels).
        y: labels, an element for each image; None for a study without a metric.
        arithmetics: what to compute in: a list of `bitfold.Arithmetic` or, for mixtures, of
            dictionaries by layer as `Network.with_arithmetic` takes them; or a dictionary from
            names of your own to these. By default the network's own, where that is not exact.
        metric: as in `Network.evaluate`: None for the share of right answers, a Keras metric whose
            variables are sums over images, its name, or a function of labels and outputs.
        float_model: the Keras model that the network was made of. With it the study finds what
            quantisation, shift, accumulator and unit add to the error of each layer.
        batch_size: images at once; by default what keeps memory modest. A dataset has its own.
        resume: a file where finished parts are kept. A study that was interrupted goes on from
            them; it must be the same in all but what it is called by.

    Returns:
        What was found.

    Raises:
        OSError: for a `resume` that cannot be read or written, before work begins.
        TypeError: for arithmetics that are none.
        ValueError: for labels that do not fit, arithmetics that a layer has not, and a `resume` of
            another study.

    Example:
        >>> import bitfold, keras, numpy as np
        >>> keras.utils.set_random_seed(1)
        >>> model = keras.Sequential([keras.Input((8,)), keras.layers.Dense(3, name="dense")])
        >>> x = np.random.default_rng(1).normal(size=(50, 8)).astype(np.float32)
        >>> network = bitfold.Network.from_keras(model, calibration=x)
        >>> study = bitfold.study(network, x, arithmetics=[bitfold.Arithmetic(12)])
        >>> [(layer.name, layer.sums) for layer in study.layers]
        [('dense', 150)]
        >>> study.results[0].name, study.results[0].layers[0].alone.sums
        ('12 bits', 150)
    """
    settings = settings_of(network, arithmetics)
    data = Data(x, y, network.batch_size(batch_size))
    plan = Plan(network, settings, metric, data.has_labels)
    parts = Parts(resume, _fingerprint(plan, data))
    example = _measure(plan, data, parts)
    findings = _found(plan, parts.tallies, example)
    if float_model is not None:
        findings = _attributed(findings, plan, data, float_model)
    return Study(findings, _Subject(network, x, y, metric, batch_size))


@dataclasses.dataclass(frozen=True)
class _Subject:
    """What a study was of; a search goes on with it."""

    network: Network
    x: Any
    y: Any
    metric: Any
    batch_size: int | None

    def evaluate(self, network: Network) -> float:
        """Return the metric of a network over all data."""
        return network.evaluate(self.x, self.y, metric=self.metric, batch_size=self.batch_size)

    def evaluation_of(self, images: int) -> Callable[[Network], float]:
        """Return the same over the first images.

        Raises:
            ValueError: for a number below 1, and of a dataset.
        """
        if images < 1 or evaluation.count_images(self.x) is None:
            raise ValueError(f"Need images >= 1 of arrays for a sample, got {images}")
        x = next(evaluation.batches(self.x, images))
        return dataclasses.replace(self, x=x, y=self.y[:images]).evaluate

    def bounds(self, name: str, shift: int) -> Bounds:
        """Return what is proven of a layer."""
        steps = summing_steps(self.network)
        layer = next(layer for layer in self.network.layers if layer.name == name)
        step = steps[layer.position]
        limits = np.iinfo(step.data.dtype)
        return layer_bounds(step, int(limits.min), int(limits.max), shift)


class Study:
    """What a study found: numbers, tables, a report.

    Made by `bitfold.study`, or of a file by `load`.
    """

    def __init__(self, findings: Findings, subject: _Subject | None = None) -> None:
        """Take what was found, and what it was found of where that is at hand."""
        self._findings = findings
        self._subject = subject

    @property
    def findings(self) -> Findings:
        """All that was found, as plain records."""
        return self._findings

    @property
    def layers(self) -> tuple[LayerBits, ...]:
        """The layers with an accumulator: what their sums need, and what is proven."""
        return self._findings.layers

    @property
    def results(self) -> tuple[Result, ...]:
        """What became of the sums, for each arithmetic."""
        return self._findings.results

    @property
    def attributions(self) -> tuple[Attribution, ...]:
        """What each cause adds on the way from the float model, with one."""
        return self._findings.attributions

    def channels(self, name: str) -> tuple[ChannelBits, ...]:
        """Return the channels of a layer.

        Raises:
            ValueError: for a name of none.
        """
        if name not in self._findings.channels:
            raise ValueError(f"Need a layer of {list(self._findings.channels)}, got {name!r}")
        return self._findings.channels[name]

    def narrowest(
        self, metric_loss: float = 0.005, *, images: int | None = None, **options: Any
    ) -> Narrowest:
        """Search the narrowest accumulators with which the metric stays within a bound.

        What is found joins the study's `findings`.

        Args:
            metric_loss: by how much the metric may be worse than at full width.
            images: of which a sample is taken, the first so many; it can only reject, and saves
                time where there are many. By default none.
            **options: as `widths`, `shifts`, `larger_is_better`, `most_evaluations`: see
                `bitfold.studies.search.narrowest`.

        Returns:
            A width, or a width and a shift, for each layer, measured together end to end.

        Raises:
            ValueError: without labels, for a study that was loaded from a file, for numbers that
                cannot be used, and where no width is enough.
        """
        if self._subject is None:
            raise ValueError(
                "Need the network and its data for a search, got findings from a file; make the "
                "study anew with bitfold.study"
            )
        if self._findings.metric is None:
            raise ValueError("Need labels for a search, got a study without; give bitfold.study y")
        found = search.narrowest(
            full_width(self._subject.network),
            self._findings.layers,
            self._subject.evaluate,
            metric_loss=metric_loss,
            channels=self._findings.channels,
            bounds=self._subject.bounds,
            images=self._findings.images,
            sample=None if images is None else self._subject.evaluation_of(images),
            **options,
        )
        searches = (*self._findings.searches, found)
        self._findings = dataclasses.replace(self._findings, searches=searches)
        return found

    def save(self, path: str | os.PathLike[str]) -> None:
        """Write a report for people (.html) or all numbers for machines (.json).

        Raises:
            OSError: for a path that cannot be written.
            ValueError: for another ending.
        """
        ending = os.path.splitext(path)[1].lower()
        if ending not in (".html", ".json"):
            raise ValueError(f"Need a path that ends in .html or .json, got {os.fspath(path)!r}")
        write = page.html if ending == ".html" else document.to_json
        archive.write(path, write(self._findings).encode())

    @classmethod
    def load(cls, path: str | os.PathLike[str]) -> Study:
        """Read what `save` wrote as .json. All is there but the network, so nothing is searched.

        Raises:
            OSError: for a path that cannot be read.
            ValueError: for a file that is damaged or of another kind.
        """
        with open(path, "rb") as file:
            content = file.read()
        try:
            return cls(document.from_json(content.decode()))
        except ValueError as error:
            raise ValueError(
                f"Need a .json file that Study.save wrote, got {os.fspath(path)}: {error}"
            ) from None

    def to_dataframe(self) -> Any:
        """Return a data frame of pandas, a row for each layer and arithmetic.

        Raises:
            ImportError: where pandas is not installed.
        """
        return tables.to_dataframe(self._findings)

    def print(self, file: TextIO | None = None) -> None:
        """Print tables.

        Args:
            file: where to; standard output by default.
        """
        terminal.print_findings(self._findings, file)

    def __repr__(self) -> str:
        """Return the tables as plain lines."""
        text = io.StringIO()
        self.print(text)
        return text.getvalue().rstrip()

    def _repr_html_(self) -> str:
        """Return the tables for a notebook."""
        return tables.html_tables(self._findings)


def _measure(plan: Plan, data: Data, parts: Parts) -> Any:
    """Compute all parts that are not finished; return a label and an output for the metric."""
    settings = [None, *range(len(plan.settings))]
    total = None if data.images is None else data.images * len(settings)
    example = None
    runners: dict[int | None, Runner] = {}
    with evaluation.progress("study", total) as advance:
        for setting, shard in _order(data, settings):
            if setting is None:
                if parts.needs_digests:
                    parts.check(shard.index, shard.digest())
                if plan.has_metric and example is None:
                    example = _example(plan.network, shard)
            task = Task(setting, shard.index)
            if parts.is_done(task):
                advance(shard.images)
                continue
            if setting not in runners:
                if data.is_indexed:
                    runners.clear()  # of other settings: their graphs are needed no more
                runners[setting] = Runner(plan, setting)
            parts.add(task, runners[setting].run(shard, advance))
    return example


def _order(data: Data, settings: list[int | None]) -> Iterator[tuple[int | None, Shard]]:
    """Yield settings with shards: arrays are gone through again and again, datasets once."""
    if data.is_indexed:
        yield from ((setting, shard) for setting in settings for shard in data.shards())
    else:
        yield from ((setting, shard) for shard in data.shards() for setting in settings)


def _example(network: Network, shard: Shard) -> tuple[Any, Any]:
    """Return a label and an output of a network's kind."""
    _, labels = shard.batches[0]
    output = network.outputs[0]
    return np.asarray(labels)[:1], np.zeros((1, *output.shape[1:]), np.float32)


def _fingerprint(plan: Plan, data: Data) -> dict[str, str]:
    """Return what tells a study from others, but for the data, which are told shard by shard."""
    own = {layer.name: repr(layer.arithmetic) for layer in plan.network.layers}
    settings = [(setting.name, repr(setting.arithmetic)) for setting in plan.settings]
    return {
        "the network": hashlib.sha256(plan.network.model_file).hexdigest(),
        "its own arithmetic": hashlib.sha256(json.dumps(own).encode()).hexdigest(),
        "the arithmetics": json.dumps(settings),
        "the metric": Metric(plan.metric).description if plan.has_metric else "none",
        "the number of images": str(data.images),
        "the batch size": str(data.batch_size),
        "the version": VERSION,
    }


def _found(plan: Plan, tallies: Mapping[int | None, Tally], example: Any) -> Findings:
    """Make records of what was counted."""
    network = full_width(plan.network)
    whole = tallies.get(None, Tally())
    metric = Metric(plan.metric) if plan.has_metric else None
    steps = summing_steps(network)
    layers, channels = [], {}
    for layer in network.layers:
        if layer.position in steps:
            tally = whole.layers.get(layer.position, LayerTally())
            bits, channels[layer.name] = bits_of_layer(layer, steps[layer.position], tally)
            layers.append(bits)

    def measured(tally: Tally) -> float | None:
        if metric is None or not tally.states:
            return None
        return metric.result(tally.states, example)

    results = [
        Result(
            setting.name,
            setting.arithmetic,
            measured(tallies.get(i, Tally())),
            tuple(_layer_counts(plan.network, setting, whole, tallies.get(i, Tally()))),
        )
        for i, setting in enumerate(plan.settings)
    ]
    return Findings(
        title=f"network of {len(network.layers)} operators",
        images=whole.images,
        metric_name=None if metric is None else metric.name,
        metric=measured(whole),
        float_metric=None,
        layers=tuple(layers),
        channels=channels,
        results=tuple(results),
        versions={
            "bitfold": VERSION,
            "tensorflow": tf.__version__,
            "keras": keras.__version__,
            "numpy": np.__version__,
            "python": platform.python_version(),
        },
        seconds=sum(tally.seconds for tally in tallies.values()),
    )


def _attributed(findings: Findings, plan: Plan, data: Data, float_model: Any) -> Findings:
    """Return findings with what each cause adds to the error against a model in floats."""
    begin = time.perf_counter()
    with evaluation.progress("attribution", data.images) as advance:
        found = attribute(
            plan.network,
            {setting.name: setting.arithmetic for setting in plan.settings},
            float_model,
            data.batches(),
            Metric(plan.metric).start if plan.has_metric else None,
            advance,
        )
    layers = [
        dataclasses.replace(layer, remarks=(*layer.remarks, "not found in the float model"))
        if layer.name in found.missing
        else layer
        for layer in findings.layers
    ]
    return dataclasses.replace(
        findings,
        float_metric=found.float_metric,
        layers=tuple(layers),
        attributions=found.attributions,
        seconds=findings.seconds + time.perf_counter() - begin,
    )


def _layer_counts(
    network: Network, setting: Setting, whole: Tally, tally: Tally
) -> Iterator[LayerCounts]:
    """Yield what became of the sums of each layer in a setting."""
    narrow = network.with_arithmetic(setting.arithmetic)
    steps = summing_steps(narrow)
    for layer in narrow.layers:
        if layer.position not in steps:
            continue
        alone = whole.layers.get(layer.position, LayerTally())
        end_to_end = tally.layers.get(layer.position, LayerTally())
        step = steps[layer.position]
        is_stored = step.weights_tensor is not None
        yield LayerCounts(
            layer.position,
            layer.name,
            layer.arithmetic,
            alone.counts.get(key_of(layer.arithmetic), Counts(alone.sums)),
            end_to_end.counts.get(END_TO_END, Counts(end_to_end.sums)),
            corrected_weights(step) if is_stored else 0,
            tally.lines.get(layer.name, 0),
        )
