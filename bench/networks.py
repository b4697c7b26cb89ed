# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Times whole networks and their layers against the stock ops and the mobile runtime, in one run.

    .venv/bin/python bench/networks.py --output build/bench/networks.json

The tables are Markdown; the last has every ratio that is aimed at. Nothing is asserted; a ratio
above 1 means that ours is faster. Weights are random, nothing is downloaded. What is compared is
timed in turns in one process of one thread, or of two where it says so.
"""

from __future__ import annotations

import argparse
import dataclasses
import json
import multiprocessing
import os
import pathlib
from collections.abc import Callable
from concurrent.futures import Executor, ProcessPoolExecutor

import distributed_times
import layer_times
import network_profile
import network_tables
import network_times
import studies
import targets
import thread_times
import training
from run import ROOT, machine
from timing import use_threads

NETWORKS = network_times.NETWORKS
# A layer is timed for this share of what a network is.
LAYER_SHARE = 0.2


def process(threads: int) -> Executor:
    """Return a process whose runtime has so many threads."""
    context = multiprocessing.get_context("spawn")
    return ProcessPoolExecutor(1, context, initializer=use_threads, initargs=(threads,))


def measure_networks(one: Executor, _: Executor, budget: float) -> list:
    """Time the whole networks."""
    return [one.submit(network_times.measure, name, budget).result() for name in NETWORKS]


def measure_profiles(one: Executor, _: Executor, budget: float) -> list:
    """Profile the networks."""
    return [one.submit(network_profile.measure, name, budget).result() for name in NETWORKS]


def measure_layers(one: Executor, _: Executor, budget: float) -> list:
    """Time the networks' layers."""
    share = budget * LAYER_SHARE
    found = []
    for name in NETWORKS:
        found += one.submit(layer_times.measure_layers, name, share).result()
    return found


def measure_named(one: Executor, _: Executor, budget: float) -> list:
    """Time the layers by name."""
    return one.submit(layer_times.measure_named, budget).result()


def measure_fashion(_: Executor, two: Executor, budget: float) -> dict[str, float]:
    """Time the demo's network."""
    return two.submit(thread_times.fashion, budget).result()


def measure_studies(one: Executor, _: Executor, budget: float) -> list:
    """Time studies."""
    found = []
    for name in studies.NETWORKS:
        found += one.submit(studies.measure, name, budget).result()
    return found


def measure_training(_: Executor, two: Executor, budget: float) -> list:
    """Time steps of training."""
    found = []
    for name in training.NETWORKS:
        found += two.submit(training.measure, name, budget).result()
    return found


PARTS: dict[str, Callable[[Executor, Executor, float], list | dict]] = {
    "networks": measure_networks,
    "profiles": measure_profiles,
    "layers": measure_layers,
    "named": measure_named,
    "fashion": measure_fashion,
    "threads": thread_times.compare,
    "studies": measure_studies,
    "training": measure_training,
    "distributed": distributed_times.measure,
}


def main() -> None:
    """Measure, print the tables, write the JSON."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--output", type=pathlib.Path, default=ROOT / "build/bench/networks.json")
    parser.add_argument("--seconds", type=float, default=1.0, help="time spent on each figure")
    parser.add_argument(
        "--parts", nargs="+", choices=PARTS, default=list(PARTS), help="what to time; all of it"
    )
    options = parser.parse_args()

    load = os.getloadavg()[0]
    results, aims = {}, []
    with process(1) as one, process(2) as two:
        for part in options.parts:
            result = PARTS[part](one, two, options.seconds)
            network_tables.PRINTERS[part](result)
            results[part] = result
            aims += targets.OF[part](result) if part in targets.OF else []
    network_tables.print_targets(aims)
    written = {"machine": machine() | {"load": load}, **results, "targets": aims}
    options.output.parent.mkdir(parents=True, exist_ok=True)
    options.output.write_text(json.dumps(written, indent=2, default=dataclasses.asdict) + "\n")
    print(f"\nMachine: {machine()['cpu']}, load {load:.1f} at the start. Figures: {options.output}")


if __name__ == "__main__":
    main()
