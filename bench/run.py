# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Times the ops against the stock ones and the plain scalar definitions, in one run on one thread.

    .venv/bin/python bench/run.py --output build/bench/bench.json

Each row is a case of a module *_cases.py: the definition's time comes from the C++ benchmark of the
same name, ours and the stock op's from the runtime. Nothing is asserted; a ratio above 1 means that
ours is faster.
"""

from __future__ import annotations

import argparse
import importlib
import json
import os
import pathlib
import platform
import re
import subprocess
import sys
from dataclasses import asdict, dataclass

import tensorflow as tf
from rich.console import Console
from rich.table import Table

import bitfold
from chain_cases import LAYER, OTHERS, Chain, mobile_seconds
from timing import LAYERS, Case, seconds, use_one_thread

ROOT = pathlib.Path(__file__).resolve().parent.parent


# Seconds a call and a label, by the names of the C++ benchmarks.
Definitions = dict[str, tuple[float, str]]


@dataclass
class Row:
    """One measured row; times in seconds a call, rates in operations a second."""

    name: str
    shape: str
    path: str
    definition_seconds: float
    loops_seconds: float | None  # our faster form where it has one, timed without the runtime
    ours_seconds: float
    stock_seconds: float
    ours_rate: float
    speed_to_definition: float
    speed_to_stock: float
    # Long chains, one of several layers in a graph, and in the mobile runtime's 8-bit integers.
    our_layer_seconds: float | None = None
    stock_layer_seconds: float | None = None
    mobile_layer_seconds: float | None = None


def all_cases() -> list[Case]:
    """Return what the modules *_cases.py beside this file time, in the order of their names."""
    names = sorted(path.stem for path in pathlib.Path(__file__).parent.glob("*_cases.py"))
    return [case for name in names for case in importlib.import_module(name).cases()]


def definition_seconds(budget: float, pattern: str) -> Definitions:
    """Build and run the C++ benchmarks that match; return seconds a call and a label by name."""
    for command in (["cmake", "--preset", "bench"], ["cmake", "--build", "--preset", "bench"]):
        subprocess.run(command, cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
    output = subprocess.run(
        [
            ROOT / "build/bench/bench/bitfold_bench",
            "--benchmark_format=json",
            f"--benchmark_min_time={budget}",
            f"--benchmark_filter={pattern}",
        ],
        check=True,
        capture_output=True,
        text=True,
    ).stdout
    scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3}
    rows = json.loads(output)["benchmarks"]
    return {
        row["name"]: (row["real_time"] * scale[row["time_unit"]], row.get("label", ""))
        for row in rows
    }


def measure(
    cases: list[Case], definitions: Definitions, budget: float, console: Console
) -> list[Row]:
    """Time every case."""
    rows = []
    for case in cases:
        console.print(f"Timing {case.name}...")
        ours, stock = seconds(case.ours, budget), seconds(case.stock, budget)
        definition, _ = definitions[case.name]
        loops, path = definitions.get(f"{case.name} loops", (None, ""))
        row = Row(
            name=case.name,
            shape=case.shape,
            path=path or case.path,
            definition_seconds=definition,
            loops_seconds=loops,
            ours_seconds=ours,
            stock_seconds=stock,
            ours_rate=case.operations / ours,
            speed_to_definition=definition / (loops or ours),
            speed_to_stock=stock / ours,
        )
        if isinstance(case, Chain):
            row.our_layer_seconds = seconds(case.our_layers, budget) / LAYERS
            row.stock_layer_seconds = seconds(case.stock_layers, budget) / LAYERS
            row.mobile_layer_seconds = case.layer and mobile_seconds(case.layer, budget)
        rows.append(row)
    return rows


def measure_lines(definitions: Definitions) -> dict[str, float]:
    """Return the seconds of the steps where one output in ten thousand prints, and none does."""
    found = {}
    for name, (time, _) in definitions.items():
        if match := re.fullmatch(r"HConv2d/float/.*, (lines|no lines)", name):
            found[match[1]] = time
    return found


def measure_avx2(definitions: Definitions) -> list[dict[str, object]]:
    """Return the layers' times with AVX2 alone: ours from C++, the stock op's in another process.

    The stock op reads its limit when it is loaded.
    """
    ours = {n: t for n, (t, _) in definitions.items() if n.endswith(", AVX2")}
    if not ours:
        return []
    output = subprocess.run(
        [sys.executable, ROOT / "bench/chain_cases.py"],
        check=True,
        capture_output=True,
        text=True,
        env=os.environ | {"ONEDNN_MAX_CPU_ISA": "AVX2"},
    ).stdout
    stock = json.loads(output.splitlines()[-1])
    rows = []
    for layer in (LAYER, *OTHERS):
        time = ours.get(f"{layer.op}/int32/{layer.name}, bytes loops, AVX2")
        if time:
            rows.append(
                {
                    "name": layer.name,
                    "loops_seconds": time,
                    "stock_layer_seconds": stock[layer.name],
                    "speed_to_stock": stock[layer.name] / time,
                }
            )
    return rows


def machine() -> dict[str, str]:
    """Return what the figures depend on."""
    cpu = next(
        (
            line.split(":", 1)[1].strip()
            for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
            if line.startswith("model name")
        ),
        platform.processor(),
    )
    return {"cpu": cpu, "tensorflow": tf.__version__, "bitfold": bitfold.__version__}


def print_table(rows: list[Row], console: Console) -> None:
    """Print the rows; times in milliseconds."""
    table = Table(title="one thread; ratios above 1: ours is faster")
    for column in ("op", "shape", "path"):
        table.add_column(column)
    for column in (
        "definition ms",
        "loops ms",
        "ours ms",
        "stock ms",
        "M ops/s",
        "to definition",
        "to stock",
    ):
        table.add_column(column, justify="right")
    for r in rows:
        times = (r.definition_seconds, r.loops_seconds, r.ours_seconds, r.stock_seconds)
        table.add_row(
            r.name,
            r.shape,
            r.path,
            *(milliseconds(t) for t in times),
            f"{r.ours_rate / 1e6:.0f}",
            f"{r.speed_to_definition:.2f}",
            f"{r.speed_to_stock:.4f}",
        )
    console.print(table)


def milliseconds(time: float | None) -> str:
    """Return a time for a table."""
    return "-" if time is None else f"{1e3 * time:.2f}"


def print_layers(rows: list[Row], console: Console) -> None:
    """Print the layers in a graph; times in milliseconds."""
    table = Table(title=f"a layer among {LAYERS} in a graph")
    table.add_column("op")
    columns = ("ours ms", "stock float ms", "to stock", "mobile 8-bit ms", "to mobile")
    for column in columns:
        table.add_column(column, justify="right")
    for r in rows:
        if r.our_layer_seconds is None:
            continue
        mobile = r.mobile_layer_seconds
        table.add_row(
            r.name,
            milliseconds(r.our_layer_seconds),
            milliseconds(r.stock_layer_seconds),
            f"{r.stock_layer_seconds / r.our_layer_seconds:.2f}",
            milliseconds(mobile),
            f"{mobile / r.our_layer_seconds:.2f}" if mobile else "-",
        )
    console.print(table)


def print_avx2(rows: list[dict[str, object]], console: Console) -> None:
    """Print the layers with AVX2 alone."""
    table = Table(title="bytes with AVX2 alone")
    table.add_column("layer")
    for column in ("ours ms", "stock float ms", "to stock"):
        table.add_column(column, justify="right")
    for r in rows:
        times = (milliseconds(r["loops_seconds"]), milliseconds(r["stock_layer_seconds"]))
        table.add_row(r["name"], *times, f"{r['speed_to_stock']:.2f}")
    console.print(table)


def main() -> None:
    """Measure, print the tables, write the JSON."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--output", type=pathlib.Path, default=ROOT / "build/bench/bench.json")
    parser.add_argument("--seconds", type=float, default=0.3, help="time spent on each figure")
    parser.add_argument("--filter", default=".", help="a regular expression: the cases to time")
    options = parser.parse_args()
    use_one_thread()

    console = Console(width=None if os.isatty(1) else 170)
    cases = all_cases()
    console.print("Timing the scalar definitions (C++)...")
    definitions = definition_seconds(options.seconds, options.filter)
    cases = [case for case in cases if re.search(options.filter, case.name)]
    rows = measure(cases, definitions, options.seconds, console)
    lines, avx2 = measure_lines(definitions), measure_avx2(definitions)
    print_table(rows, console)
    if any(row.our_layer_seconds for row in rows):
        print_layers(rows, console)
    if avx2:
        print_avx2(avx2, console)
    for name, time in lines.items():
        console.print(f"Float steps, {name}: {milliseconds(time)} ms")
    options.output.parent.mkdir(parents=True, exist_ok=True)
    result = {
        "machine": machine(),
        "rows": [asdict(row) for row in rows],
        "lines": lines,
        "avx2": avx2,
    }
    options.output.write_text(json.dumps(result, indent=2) + "\n")
    console.print(f"Machine: {machine()['cpu']}. Figures: {options.output}")


if __name__ == "__main__":
    main()
