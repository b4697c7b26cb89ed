# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""`bitfold study`: what accumulators do to a network, layer by layer."""

from __future__ import annotations

import argparse
import dataclasses
import itertools
from typing import Any

import bitfold
from bitfold.studies import document, terminal
from bitfold_command import data, files, workers

# The largest shift of a sum in half precision.
_MOST_HALF = 6


def run(options: argparse.Namespace) -> int:
    """Study the network and print or write what was found."""
    network = files.network(options.model)
    known = {layer.name for layer in network.layers if layer.has_accumulator}
    if unknown := [name for name in options.channels if name not in known]:
        raise ValueError(f"Need layers of {sorted(known)} for --channels, got {unknown}")
    chosen = arithmetics(options)
    x, y = data.of(options, network)
    float_model = None if options.float_model is None else files.float_model(options.float_model)
    with workers.executor(options) as executor:
        study = bitfold.study(
            network,
            x,
            y,
            arithmetics=chosen,
            metric=options.metric,
            float_model=float_model,
            partial_sums=options.partial_sums,
            batch_size=options.batch_size,
            resume=options.resume,
            executor=executor,
            title=files.title(options.model),
        )
    show(study, options)
    if not options.json:
        for name in options.channels:
            terminal.print_channels(name, study.channels(name))
    return 0


def show(study: bitfold.Study, options: argparse.Namespace) -> None:
    """Write the reports, and print tables or JSON, also where a report cannot be written."""
    try:
        for path in options.report:
            study.save(path)
    finally:
        if options.json:
            print(document.to_json(study.findings))
        else:
            study.print()


def arithmetics(options: argparse.Namespace) -> list[Any]:
    """Return the combinations that the options ask for, mixtures last."""
    found = [
        bitfold.Arithmetic(accumulator_size=width, mult_shift=shift)
        for shift, width in itertools.product(options.shifts, options.widths)
    ]
    if options.half_precision:
        found += [
            bitfold.Arithmetic(mult_shift=shift, use_fp16_acc=True)
            for shift in options.shifts
            if shift <= _MOST_HALF
        ]
    if options.unit_requantisation:
        exact = [] if found else [bitfold.Arithmetic()]
        found += [dataclasses.replace(one, requantisation="unit") for one in exact + found]
    for by_layer in options.mixture:
        found.append(
            {
                name: bitfold.Arithmetic(accumulator_size=width, mult_shift=shift)
                for name, (width, shift) in by_layer.items()
            }
        )
    return found
