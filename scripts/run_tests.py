# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Runs every test of the project, stage by stage, and ends with one tally.

    .venv/bin/python scripts/run_tests.py [--quick] [--in-turn] [STAGE ...]

A failing stage does not stop the others. What compiles runs in turn, on all cores; beside it, where
memory allows, what runs Python, which is mostly one thread. The results of each stage lie in
build/test-results: JUnit XML, which is also what the tally counts, and what the commands printed.
"""

from __future__ import annotations

import argparse
import dataclasses
import json
import os
import pathlib
import subprocess
import sys

from stages import RESULTS, ROOT, Outcome, Stage, memory_in_gib, run_all

JOBS = str(os.cpu_count() or 1)
GIB_SIDE_BY_SIDE = 6.0  # a sanitizer's compilations, and TensorFlow


def cpp_stage(preset: str, title: str, *options: str) -> Stage:
    """Return a stage that configures, builds and runs the C++ tests of a CMake preset."""
    test = ("ctest", "--preset", preset, "-j", JOBS, *options)
    # Tests of another stage build in the folder of the sanitizers, too.
    alone = ("flock", str(ROOT / "build" / f"{preset}.lock"))
    return Stage(
        preset,
        title,
        (
            (*alone, "cmake", "--preset", preset, "-Wno-dev"),
            (*alone, "cmake", "--build", "--preset", preset, "-j", JOBS),
            (*test, "--output-junit", str(RESULTS / f"{preset}.xml")),
        ),
        lane="compiled",
        reports=ROOT / "build" / preset / "reports",
    )


def cpp_stages() -> dict[str, Stage]:
    """Return a stage for each test preset of CMakePresets.json, in its order, by name."""
    presets = json.loads((ROOT / "CMakePresets.json").read_text())
    titles = {p["name"]: p.get("displayName", p["name"]) for p in presets["configurePresets"]}
    tested = [p["configurePreset"] for p in presets["testPresets"] if not p.get("hidden")]
    return {preset: cpp_stage(preset, titles[preset]) for preset in tested}


def pytest_stage(name: str, title: str, *arguments: str) -> Stage:
    """Return a stage that runs pytest."""
    junit = f"--junitxml={RESULTS / name}.xml"
    command = (sys.executable, "-m", "pytest", "-q", "--durations=5", junit, *arguments)
    return Stage(name, title, (command,), lane="python")


def quick_pytest_stage(name: str, title: str, *arguments: str) -> Stage:
    """Return a stage that runs pytest and skips the tests that start another interpreter."""
    stage = pytest_stage(name, title, *arguments)
    commands = tuple(("env", "BITFOLD_QUICK=1", *command) for command in stage.commands)
    return dataclasses.replace(stage, commands=commands)


def lint_stage() -> Stage:
    """Return the stage of formats and findings."""
    junit = str(RESULTS / "lint.xml")
    commands = (
        ("cmake", "--preset", "tests", "-Wno-dev"),
        (sys.executable, "scripts/lint.py", "--junit", junit),
    )
    return Stage("lint", "Format, ruff, and clang-tidy over src and include", commands, "compiled")


def python_stages() -> list[Stage]:
    """Return the stages of the Python tests."""
    doctests = ("--doctest-modules", "--pyargs", "bitfold")
    return [
        pytest_stage("runtime", RUNTIME, *WITHOUT_NETWORKS),
        pytest_stage(
            "networks",
            "Networks against the interpreter, and the ops",
            str(NETWORKS),
        ),
        pytest_stage("device", "The device code that ships, run on the host", "tests/ptx"),
        pytest_stage("robustness", "Calls that are wrong on purpose", "tests/robustness"),
        pytest_stage("doctests", "Examples in docstrings", *doctests),
    ]


RUNTIME = "Python: the ops through the runtime, package, repository"
NETWORKS = pathlib.Path("tests", "python", "network")
WITHOUT_NETWORKS = ("tests/python", f"--ignore={NETWORKS}")
CPP = cpp_stages()
STAGES = (*CPP.values(), lint_stage(), *python_stages())

# For daily work: what a change breaks most often, in seconds to two minutes.
QUICK = (
    cpp_stage("tests", CPP["tests"].title, "--label-exclude", "slow"),
    Stage(
        "format",
        "Format and ruff",
        ((sys.executable, "scripts/lint.py", "--no-tidy", "--junit", str(RESULTS / "format.xml")),),
        "compiled",
    ),
    quick_pytest_stage("runtime", RUNTIME, *WITHOUT_NETWORKS, "-m", "not slow"),
    quick_pytest_stage(
        "networks", "Networks as their users call them", str(NETWORKS / "test_network.py")
    ),
)


def build_shared() -> None:
    """Build first what Python tests and C++ tests both use: the oracle's library, the rules."""
    environment = os.environ | {"CMAKE_GENERATOR": "Ninja"}
    environment["PATH"] = f"{ROOT / '.venv' / 'bin'}{os.pathsep}{environment['PATH']}"
    targets = ("--target", "bitfold_reference", "bitfold_rules")
    for command in (
        ["cmake", "--preset", "tests", "-Wno-dev"],
        ["cmake", "--build", "--preset", "tests", "-j", JOBS, *targets],
    ):
        # A failure is reported by the stages that need it.
        if subprocess.run(command, cwd=ROOT, env=environment, capture_output=True).returncode:
            return


def tally(outcomes: list[Outcome]) -> int:
    """Print a table and the one line; return the exit status."""
    print(f"\n{'stage':12} {'passed':>7} {'failed':>7} {'skipped':>8} {'seconds':>8}")
    for o in outcomes:
        print(f"{o.stage.name:12} {o.passed:7} {o.failed:7} {o.skipped:8} {o.seconds:8.0f}")
    print(f"\nResults: {RESULTS.relative_to(ROOT)}/*.xml, *.log")
    passed, failed, skipped = (
        sum(getattr(o, key) for o in outcomes) for key in ("passed", "failed", "skipped")
    )
    print(f"{passed} passed, {failed} failed, {skipped} skipped")
    return 1 if failed or not passed else 0


def main() -> int:
    """Run the stages named on the command line, or all; return the exit status."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    names = ", ".join(stage.name for stage in STAGES)
    parser.add_argument("stages", nargs="*", metavar="STAGE", help=f"one of {names}")
    parser.add_argument("--quick", action="store_true", help="the quick form, for daily work")
    parser.add_argument("--in-turn", action="store_true", help="no stages side by side")
    options = parser.parse_args()

    stages = QUICK if options.quick else STAGES
    known = {stage.name for stage in stages}
    if unknown := set(options.stages) - known:
        choices = ", ".join(stage.name for stage in stages)
        parser.error(f"no such stage: {', '.join(sorted(unknown))}; choose from {choices}")
    wanted = [stage for stage in stages if not options.stages or stage.name in options.stages]

    side_by_side = not options.in_turn and memory_in_gib() >= GIB_SIDE_BY_SIDE
    if side_by_side and len({stage.lane for stage in wanted}) > 1:
        build_shared()
    return tally(run_all(wanted, side_by_side))


if __name__ == "__main__":
    sys.exit(main())
