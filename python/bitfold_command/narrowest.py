# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""`bitfold narrowest`: the narrowest accumulators that keep the metric."""

from __future__ import annotations

import argparse
import sys

import bitfold
from bitfold.studies import search
from bitfold_command import data, files, workers
from bitfold_command.study import show


def run(options: argparse.Namespace) -> int:
    """Search, print what was found, and write the network in it."""
    network = files.network(options.model)
    x, y = data.of(options, network, needs_labels=True)
    chosen = {
        name: value
        for name, value in (("widths", options.widths), ("shifts", options.shifts))
        if value
    }
    with workers.executor(options) as executor:
        study = bitfold.study(
            network,
            x,
            y,
            metric=options.metric,
            batch_size=options.batch_size,
            executor=executor,
            title=files.title(options.model),
        )
        found = study.narrowest(
            options.metric_loss,
            images=options.sample,
            larger_is_better=search.is_larger_better(options.metric),
            progress=_say,
            **chosen,
        )
    if options.save is not None:
        network.with_arithmetic(found.arithmetic).save(options.save)
    show(study, options)
    return 0


def _say(text: str) -> None:
    print(text, file=sys.stderr, flush=True)
