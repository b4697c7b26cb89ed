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
from collections.abc import Callable, Iterable, Sequence
from concurrent.futures import Executor, ProcessPoolExecutor

import distributed_times
import layer_times
import network_profile
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


def table(
    title: str, columns: Sequence[str], rows: Iterable[Sequence[str]], texts: int = 1
) -> None:
    """Print a Markdown table; the first columns are texts, the others numbers."""
    rules = ["---"] * texts + ["--:"] * (len(columns) - texts)
    print(f"\n{title}\n")
    for cells in (columns, rules, *rows):
        print(f"| {' | '.join(cells)} |" if cells is not rules else f"|{'|'.join(rules)}|")


def milliseconds(time: float) -> str:
    """Return a time for a table."""
    return f"{1e3 * time:.3f}" if time < 1e-3 else f"{1e3 * time:.2f}"


def print_networks(rows: list[network_times.NetworkTimes]) -> None:
    """Print the whole networks."""
    columns = ("who", "ms", "to the stock float graph", "to the mobile runtime, fastest")
    for row in rows:
        stock, fastest = row.seconds[network_times.STOCK], row.seconds.get(network_times.FASTEST)
        table(
            f"{row.network}, one image, one thread",
            columns,
            [
                (
                    who,
                    milliseconds(time),
                    f"{stock / time:.2f}",
                    f"{fastest / time:.2f}" if fastest else "-",
                )
                for who, time in row.seconds.items()
            ],
        )


def print_profiles(rows: list[network_profile.Profile]) -> None:
    """Print where the time goes."""
    for profile in rows:
        bounds = {
            "bound: products at the rate of the fastest layer": profile.products_seconds,
            "bound: stored bytes at the speed of a copy": profile.memory_seconds,
        }
        table(
            f"{profile.network}: where {milliseconds(profile.seconds)} ms go",
            ("what", "ms", "share"),
            [
                (what, milliseconds(time), f"{time / profile.seconds:.1%}")
                for what, time in (profile.kinds | bounds).items()
            ],
        )
        table(
            f"{profile.network}: the dearest layers",
            ("layer", "operator", "ms", "billion multiply-adds a second"),
            [
                (x.name, x.operator, milliseconds(x.seconds), f"{_rate(x):.1f}")
                for x in profile.layers[:10]
            ],
            texts=2,
        )


def _rate(layer: network_profile.LayerCost) -> float:
    return 1e-9 * layer.multiply_adds / layer.seconds if layer.seconds else 0.0


def print_layers(rows: list[layer_times.LayerTimes]) -> None:
    """Print layers, and of those of a network the slowest and the mean.

    G/s are billions of multiply-adds a second.
    """
    networks = list(dict.fromkeys(row.network for row in rows))
    for network in networks:
        chosen = [row for row in rows if row.network == network]
        what = f"The layers of {network}" if network else "Layers"
        table(
            f"{what} as public ops, eager, int32 bytes, one thread",
            (
                "layer",
                "times",
                "ours ms",
                "stock float ms",
                "to stock",
                "ours G/s",
                "stock G/s",
            ),
            [
                (
                    row.name,
                    str(row.count),
                    milliseconds(row.ours_seconds),
                    milliseconds(row.stock_seconds),
                    f"{row.ratio:.2f}",
                    *(f"{1e-9 * rate:.1f}" for rate in row.rates),
                )
                for row in chosen
            ],
        )
        if network:
            least = min(row.ratio for row in chosen)
            print(f"\nSmallest {least:.2f}, geometric mean {targets.geometric_mean(chosen):.2f}.")


def print_fashion(times: dict[str, float]) -> None:
    """Print the demo's network."""
    table(
        f"The demo's network, {thread_times.TEST_IMAGES:,} images, predict, two threads",
        ("who", "ms", "to stock"),
        [
            (who, milliseconds(time), f"{times[thread_times.STOCK] / time:.2f}")
            for who, time in times.items()
        ],
    )


def print_threads(rows: list[thread_times.ThreadTimes]) -> None:
    """Print two threads beside one."""
    table(
        "Two threads against one",
        ("work", "who", "one ms", "two ms", "ratio"),
        [
            (
                row.work,
                row.who,
                milliseconds(row.one_seconds),
                milliseconds(row.two_seconds),
                f"{row.ratio:.2f}",
            )
            for row in rows
        ],
        texts=2,
    )


def print_studies(rows: list[studies.StudyTimes]) -> None:
    """Print studies beside evaluations."""
    table(
        "Studies of a batch, one thread: how many evaluations they take",
        ("network", "work", "evaluation ms", "study ms", "ratio"),
        [
            (
                row.network,
                row.work,
                milliseconds(row.evaluation_seconds),
                milliseconds(row.study_seconds),
                f"{row.ratio:.2f}",
            )
            for row in rows
        ],
        texts=2,
    )


def print_training(rows: list[training.StepTimes]) -> None:
    """Print steps of training through the arithmetic beside those of the float models."""
    table(
        "Steps of training through accumulators, two threads",
        ("network", "accumulator", "images", "float ms", "emulated ms", "ratio"),
        [
            (
                row.network,
                row.kind,
                str(row.images),
                milliseconds(row.float_seconds),
                milliseconds(row.seconds),
                f"{row.ratio:.2f}",
            )
            for row in rows
        ],
        texts=2,
    )


def print_distributed(rows: list[distributed_times.DistributedTimes]) -> None:
    """Print studies by workers."""
    table(
        "Studies by workers of one thread each, at the default shard",
        (
            "study",
            "engine",
            "tasks",
            "in a loop ms",
            "one worker ms",
            "two ms",
            "speed-up",
            "overhead of a task",
            "empty tasks a second",
        ),
        [
            (
                row.work,
                row.engine,
                str(row.tasks),
                *map(milliseconds, (row.loop_seconds, row.one_seconds, row.two_seconds)),
                f"{row.speed_up:.2f}",
                f"{row.overhead:.1%}",
                f"{row.tasks_per_second:,.0f}",
            )
            for row in rows
        ],
        texts=2,
    )


def print_targets(rows: list[targets.Target]) -> None:
    """Print what should be beside what is."""
    table(
        "Targets",
        ("work", "", "ratio", "target", "aim"),
        [
            (
                row.work,
                "met" if row.is_met else "missed",
                f"{row.ratio:.2f}",
                f"{row.target:.3g}",
                f"{row.aim:g}" if row.aim else "",
            )
            for row in rows
        ],
        texts=2,
    )


PRINTERS: dict[str, Callable[[list | dict], None]] = {
    "networks": print_networks,
    "profiles": print_profiles,
    "layers": print_layers,
    "named": print_layers,
    "fashion": print_fashion,
    "threads": print_threads,
    "studies": print_studies,
    "training": print_training,
    "distributed": print_distributed,
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
            PRINTERS[part](result)
            results[part] = result
            aims += targets.OF[part](result) if part in targets.OF else []
    print_targets(aims)
    written = {"machine": machine() | {"load": load}, **results, "targets": aims}
    options.output.parent.mkdir(parents=True, exist_ok=True)
    options.output.write_text(json.dumps(written, indent=2, default=dataclasses.asdict) + "\n")
    print(f"\nMachine: {machine()['cpu']}, load {load:.1f} at the start. Figures: {options.output}")


if __name__ == "__main__":
    main()
