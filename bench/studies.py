# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Times studies beside evaluations of the same networks.

What is timed is the work on images far from the data's beginning, graphs made: the full-width pass
beside an evaluation at full width, and what an arithmetic adds beside an evaluation in it. Partial
sums are looked at of as large a share of the images as the default sample has of ten thousand, and
once of all.
"""

from __future__ import annotations

import functools
from dataclasses import dataclass

import bitfold
import network_models
from bitfold.network.shards.data import Shard
from bitfold.studies.passes import Plan, Runner
from bitfold.studies.sampling import Sample
from bitfold.studies.settings import settings_of
from timing import interleaved

NETWORKS = ("mobilenet_v2", "fashion")
# Widths that all, most, some and few of the layers' sums fit.
WIDTHS = (24, 18, 16, 14)
# What a study does.
BITS, COUNTS, END_TO_END, WHOLE = "bits", "bits and counts", "end to end", "of all images"
# Of the data of a study.
IMAGES = 10_000
# Images that stand for them: so many of the sample.
SAMPLED = {"mobilenet_v2": 1, "fashion": 50}


@dataclass(frozen=True)
class StudyTimes:
    """Seconds of a batch.

    Attributes:
        network: its name.
        work: what the study does, in words.
        kind: of work.
        evaluation_seconds: of the evaluation beside.
        study_seconds: of the study.
    """

    network: str
    work: str
    kind: str
    evaluation_seconds: float
    study_seconds: float

    @property
    def ratio(self) -> float:
        """How many evaluations a study takes."""
        return self.study_seconds / self.evaluation_seconds


def measure(name: str, budget: float) -> list[StudyTimes]:
    """Time a network: the bits of all its layers, then widths end to end."""
    network = network_models.network(name)
    every = IMAGES // Sample().places(0, IMAGES).size
    count = SAMPLED[name] * every
    images = network_models.images(name, count)
    size = network.batch_size()
    batches = [(images[i : i + size], None) for i in range(0, count, size)]
    shard = Shard(1, batches, count)
    settings = settings_of(network, [bitfold.Arithmetic(accumulator_size=w) for w in WIDTHS])
    plan = functools.partial(Plan, network, metric=None, has_metric=False)
    sample, all_images = Sample(every, 0), Sample(1, 0)
    full = {
        "bits of all layers at full width": (BITS, plan((), sample=sample)),
        f"the same and what {len(WIDTHS)} widths do alone": (COUNTS, plan(settings, sample=sample)),
        "bits of all layers, partial sums of all images": (WHOLE, plan((), sample=all_images)),
    }
    calls = {work: functools.partial(Runner(p, None).run, shard) for work, (_, p) in full.items()}
    rows = _rows(name, network, batches, calls, budget, {w: kind for w, (kind, _) in full.items()})
    for i, setting in enumerate(settings):
        narrow, work = network.with_arithmetic(setting.arithmetic), f"{setting.name}, end to end"
        calls = {work: functools.partial(Runner(plan(settings, sample=sample), i).run, shard)}
        rows += _rows(name, narrow, batches, calls, budget, {work: END_TO_END})
    return rows


def _rows(name, network, batches, calls, budget, kinds) -> list[StudyTimes]:
    """Time calls beside an evaluation."""

    def evaluate() -> None:
        for images, _ in batches:
            network(images)

    times = interleaved({"evaluation": evaluate} | calls, budget)
    return [
        StudyTimes(name, work, kind, times["evaluation"], times[work])
        for work, kind in kinds.items()
    ]
