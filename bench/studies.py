# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Times studies beside evaluations of the same networks.

What is timed is the work on a batch of the default size, graphs made: the full-width pass beside an
evaluation at full width, and what an arithmetic adds beside an evaluation in it.
"""

from __future__ import annotations

from dataclasses import dataclass

import bitfold
import network_models
from bitfold.network.shards.data import Data
from bitfold.studies.passes import Plan, Runner
from bitfold.studies.settings import settings_of
from timing import interleaved

NETWORKS = ("mobilenet_v2", "fashion")
# Widths that all, most, some and few of the layers' sums fit.
WIDTHS = (24, 18, 16, 14)
# What a study does.
BITS, COUNTS, END_TO_END = "bits", "bits and counts", "end to end"


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
    count = network.batch_size()
    images = network_models.images(name, count)
    (shard,) = Data(images, None, count, shard_size=count).shards()
    given = [bitfold.Arithmetic(accumulator_size=width) for width in WIDTHS]
    plan = Plan(network, settings_of(network, given), None, has_metric=False)
    alone = Plan(network, (), None, has_metric=False)
    bits, counted = Runner(alone, None), Runner(plan, None)
    times = interleaved(
        {
            "evaluation": lambda: network(images),
            "bits": lambda: bits.run(shard),
            "counts": lambda: counted.run(shard),
        },
        budget,
    )
    evaluation = times["evaluation"]
    rows = [
        StudyTimes(name, "bits of all layers at full width", BITS, evaluation, times["bits"]),
        StudyTimes(
            name,
            f"the same and what {len(WIDTHS)} widths do alone",
            COUNTS,
            evaluation,
            times["counts"],
        ),
    ]
    for i, setting in enumerate(plan.settings):
        narrow = network.with_arithmetic(setting.arithmetic)
        runner = Runner(plan, i)
        times = interleaved(
            {
                "evaluation": lambda narrow=narrow: narrow(images),
                "study": lambda runner=runner: runner.run(shard),
            },
            budget,
        )
        work = f"{setting.name}, end to end"
        rows.append(StudyTimes(name, work, END_TO_END, times["evaluation"], times["study"]))
    return rows
