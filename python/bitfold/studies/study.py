# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What an arithmetic does to a network: the call that finds out, and what it gives."""

from __future__ import annotations

import dataclasses
import io
import os
from concurrent.futures import Executor
from typing import Any, TextIO

from bitfold.network import Network, archive
from bitfold.network.shards.data import Data
from bitfold.studies import document, page, search, tables, terminal
from bitfold.studies.attribution import checked
from bitfold.studies.finding import attributed, found
from bitfold.studies.measuring import measure
from bitfold.studies.passes import Plan, check_biases
from bitfold.studies.records import (
    Attribution,
    ChannelBits,
    Findings,
    LayerBits,
    Narrowest,
    Result,
)
from bitfold.studies.sampling import sample_of
from bitfold.studies.settings import full_width, settings_of
from bitfold.studies.subject import Subject


def study(
    network: Network,
    x: Any,
    y: Any = None,
    *,
    arithmetics: Any = None,
    metric: Any = None,
    float_model: Any = None,
    partial_sums: str | int = "sample",
    batch_size: int | None = None,
    shard_size: int | None = None,
    resume: str | os.PathLike[str] | None = None,
    executor: Executor | None = None,
    title: str | None = None,
) -> Study:
    """Find out what accumulators do to a network, layer by layer.

    One pass at full width finds what the sums of every layer need, and what would become of them in
    each arithmetic if the layer alone computed in it. Then the network computes end to end in each.
    All counts are exact; memory does not grow with the data. Wrong sums, and the bits that final
    sums need, are those of all images. What happens on the way to a sum costs many times as much as
    the sum, so partial sums are looked at of a sample of the images, as findings say beside each
    such number.

    Args:
        network: the network. What is full width of it has exact sums, its units stay.
        x: the data, as `Network.evaluate` takes them: an array, for several inputs a list or a
            dictionary, files as `bitfold.data` names them, or a `tf.data.Dataset` of batches (of
            pairs with labels).
        y: labels, an element for each image; None for a study without a metric, and for files and
            datasets, which have their own.
        arithmetics: what to compute in: a list of `bitfold.Arithmetic` or, for mixtures, of
            dictionaries by layer as `Network.with_arithmetic` takes them; or a dictionary from
            names of your own to these. By default the network's own, where that is not exact.
            Accumulators of 1 to 32 bits, and shifts up to 30.
        metric: as in `Network.evaluate`: None for the share of right answers, a Keras metric whose
            variables are sums over images, its name, or a function of labels and outputs.
        float_model: the Keras model that the network was made of. With it the study finds what
            quantisation, shift, accumulator and unit add to the error of each layer.
        partial_sums: the images whose partial sums are looked at, for the bits on the way, the sums
            that come right again, the partial sums outside and the first of them: "sample" for the
            first 16 images and every 256th, a number for one image in so many, from the first one
            on, or "all".
        batch_size: images at once; by default what keeps memory modest. A dataset has its own.
        shard_size: how many images are a part of the work, of which each is finished or not; by
            default what suits the data. It changes no count.
        resume: a file where finished parts are kept. A study that was interrupted goes on from
            them; it must be the same in all but its title and executor.
        executor: who computes: any `concurrent.futures.Executor` whose workers have this package,
            as a `ProcessPoolExecutor` that spawns or `get_executor()` of a Dask client; by default
            this process. Results are the same. What `float_model` asks for this process computes.
        title: what the report is called; by default by the number of the network's operators.

    Returns:
        What was found.

    Raises:
        OSError: for a `resume` that cannot be read or written, before work begins.
        TypeError: for a network or arithmetics that are none, a title that is no text, an executor
            that is none, and a metric that cannot be sent to its workers.
        ValueError: for labels that do not fit, arithmetics that a layer has not, `partial_sums` of
            another kind, a `resume` of another study, and data that cannot be sent to workers.
        bitfold.WorkerError: for a part of the work that an executor cannot do.

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
    if not isinstance(network, Network):
        raise TypeError(
            f"Need a bitfold.Network, got {type(network).__name__}; Network.from_keras makes one "
            "of a Keras model and calibration data, Network.from_tflite of a file"
        )
    if title is not None and not isinstance(title, str):
        raise TypeError(f"Need a title that is text or None, got {title!r}")
    check_biases(network)
    settings = settings_of(network, arithmetics)
    if float_model is not None:
        float_model = checked(network, float_model)
    size = network.batch_size(batch_size)
    data = Data(x, y, size, shard_size=shard_size, rows=network.inputs[0].shape[0])
    plan = Plan(network, settings, metric, data.has_labels, sample_of(partial_sums))
    tallies, example = measure(plan, data, resume=resume, executor=executor)
    findings = found(plan, tallies, example, title)
    if float_model is not None:
        findings = attributed(findings, plan, data, float_model)
    return Study(findings, Subject(network, x, y, metric, batch_size, executor))


class Study:
    """What a study found: numbers, tables, a report.

    Made by `bitfold.study`, or of a file by `load`.
    """

    def __init__(self, findings: Findings, subject: Subject | None = None) -> None:
        """Take what was found, and what it was found of where that is at hand."""
        self._findings = findings
        self._subject = subject

    @property
    def findings(self) -> Findings:
        """All that was found, as plain records."""
        return self._findings

    @property
    def layers(self) -> tuple[LayerBits, ...]:
        """The layers with an accumulator, with what their sums need and what is proven."""
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

        Args:
            name: of a layer with an accumulator, as `layers` has it.

        Returns:
            In the order of the channels.

        Raises:
            ValueError: for a name of none.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((8,)), keras.layers.Dense(3, name="dense")])
            >>> x = np.random.default_rng(1).normal(size=(50, 8)).astype(np.float32)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> study = bitfold.study(network, x, arithmetics=[bitfold.Arithmetic(12)])
            >>> [channel.channel for channel in study.channels("dense")]
            [0, 1, 2]
        """
        if name not in self._findings.channels:
            raise ValueError(f"Need a layer of {list(self._findings.channels)}, got {name!r}")
        return self._findings.channels[name]

    def narrowest(
        self, metric_loss: float = 0.005, *, images: int | None = None, **options: Any
    ) -> Narrowest:
        """Search the narrowest accumulators with which the metric stays within a bound.

        What is found joins the study's `findings`. The study's executor, which must still take
        work, computes the metrics.

        Args:
            metric_loss: by how much the metric may be worse than at full width.
            images: of which a sample is taken, the first so many; it can only reject, and saves
                time where there are many. By default none.
            **options: as `widths`, `shifts`, `most_evaluations`: see
                `bitfold.studies.search.narrowest`. Of a metric that does not say itself whether a
                larger one is better, `larger_is_better` must.

        Returns:
            A width, or a width and a shift, for each layer, measured together end to end.

        Raises:
            ValueError: without labels, for a study that was loaded from a file, for numbers that
                cannot be used, and where no width is enough.

        Example:
            >>> import bitfold, keras, numpy as np
            >>> keras.utils.set_random_seed(1)
            >>> model = keras.Sequential([keras.Input((8,)), keras.layers.Dense(3, name="dense")])
            >>> x = np.random.default_rng(1).normal(size=(50, 8)).astype(np.float32)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> study = bitfold.study(network, x, network.predict(x).argmax(axis=1))
            >>> found = study.narrowest(metric_loss=0.0, widths=[8, 16, 24])
            >>> [(choice.name, choice.width) for choice in found.choices]
            [('dense', 16)]
        """
        if self._subject is None:
            raise ValueError(
                "Need the network and its data for a search, got findings from a file; make the "
                "study anew with bitfold.study"
            )
        if self._findings.metric is None:
            raise ValueError("Need labels for a search, got a study without; give bitfold.study y")
        if "larger_is_better" not in options:
            options["larger_is_better"] = search.is_larger_better(self._subject.metric)
        result = search.narrowest(
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
        searches = (*self._findings.searches, result)
        self._findings = dataclasses.replace(self._findings, searches=searches)
        return result

    def save(self, path: str | os.PathLike[str]) -> None:
        """Write a report for people (.html) or all numbers for machines (.json).

        Args:
            path: of the file; its ending says which. One that is there is replaced as a whole.

        Raises:
            OSError: for a path that cannot be written.
            ValueError: for another ending.

        Example:
            >>> import os, tempfile
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((8,)), keras.layers.Dense(3, name="dense")])
            >>> x = np.random.default_rng(1).normal(size=(50, 8)).astype(np.float32)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> study = bitfold.study(network, x, arithmetics=[bitfold.Arithmetic(12)])
            >>> with tempfile.TemporaryDirectory() as folder:
            ...     study.save(f"{folder}/study.html")
            ...     study.save(f"{folder}/study.json")
            ...     sorted(os.listdir(folder))
            ['study.html', 'study.json']
        """
        ending = os.path.splitext(path)[1].lower()
        if ending not in (".html", ".json"):
            raise ValueError(f"Need a path that ends in .html or .json, got {os.fspath(path)!r}")
        write = page.html if ending == ".html" else document.to_json
        archive.write(path, write(self._findings).encode())

    @classmethod
    def load(cls, path: str | os.PathLike[str]) -> Study:
        """Read what `save` wrote as .json. All is there but the network, so nothing is searched.

        Args:
            path: of the file.

        Returns:
            The study, without the network and its data.

        Raises:
            OSError: for a path that cannot be read.
            ValueError: for a file that is damaged or of another kind.

        Example:
            >>> import tempfile
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((8,)), keras.layers.Dense(3, name="dense")])
            >>> x = np.random.default_rng(1).normal(size=(50, 8)).astype(np.float32)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> study = bitfold.study(network, x, arithmetics=[bitfold.Arithmetic(12)])
            >>> with tempfile.TemporaryDirectory() as folder:
            ...     study.save(f"{folder}/study.json")
            ...     again = bitfold.Study.load(f"{folder}/study.json")
            >>> again.results == study.results
            True
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

        Returns:
            A `pandas.DataFrame`; full width comes first, as the arithmetic "full width".

        Raises:
            ImportError: where pandas is not installed.
        """
        return tables.to_dataframe(self._findings)

    def print(self, file: TextIO | None = None) -> None:
        """Print tables.

        Args:
            file: where to; standard output by default.

        Example:
            >>> import io
            >>> import bitfold, keras, numpy as np
            >>> model = keras.Sequential([keras.Input((8,)), keras.layers.Dense(3, name="dense")])
            >>> x = np.random.default_rng(1).normal(size=(50, 8)).astype(np.float32)
            >>> network = bitfold.Network.from_keras(model, calibration=x)
            >>> study = bitfold.study(network, x, arithmetics=[bitfold.Arithmetic(12)])
            >>> text = io.StringIO()
            >>> study.print(text)
            >>> "Bits of each layer" in text.getvalue()
            True
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
