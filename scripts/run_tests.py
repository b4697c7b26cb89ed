# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Runs every test of the project, stage by stage, and ends with one tally.

    .venv/bin/python scripts/run_tests.py [STAGE ...]

A failing stage does not stop the others. The results of each stage lie in build/test-results as
JUnit XML, which is also what the tally counts.
"""

from __future__ import annotations

import argparse
import os
import pathlib
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass

ROOT = pathlib.Path(__file__).resolve().parent.parent
RESULTS = ROOT / "build" / "test-results"
JOBS = str(os.cpu_count() or 1)


@dataclass(frozen=True)
class Stage:
    """Commands that write one JUnit file."""

    name: str
    title: str
    commands: tuple[tuple[str, ...], ...]

    @property
    def junit(self) -> pathlib.Path:
        """Where the stage's results go."""
        return RESULTS / f"{self.name}.xml"


@dataclass
class Outcome:
    """What a stage came to."""

    stage: Stage
    passed: int = 0
    failed: int = 0
    skipped: int = 0
    seconds: float = 0.0


def cpp_stage(preset: str, title: str) -> Stage:
    """Return a stage that configures, builds and runs the C++ tests of a CMake preset."""
    junit = str(RESULTS / f"{preset}.xml")
    return Stage(
        preset,
        title,
        (
            ("cmake", "--preset", preset, "-Wno-dev"),
            ("cmake", "--build", "--preset", preset, "-j", JOBS),
            ("ctest", "--preset", preset, "-j", JOBS, "--output-junit", junit),
        ),
    )


def pytest_stage(name: str, title: str, *arguments: str) -> Stage:
    """Return a stage that runs pytest."""
    junit = f"--junitxml={RESULTS / name}.xml"
    command = (sys.executable, "-m", "pytest", "-q", "--durations=5", junit, *arguments)
    return Stage(name, title, (command,))


STAGES = (
    cpp_stage("tests", "C++: definition against oracle, fast paths against definition, fuzz"),
    cpp_stage("asan-ubsan", "C++ under the address and undefined-behaviour sanitizers"),
    cpp_stage("tsan", "C++ under the thread sanitizer"),
    pytest_stage("runtime", "Python: the ops through the runtime, package, repository"),
    pytest_stage("doctests", "Examples in docstrings", "--doctest-modules", "--pyargs", "bitfold"),
)


def count(outcome: Outcome) -> None:
    """Add up a stage's JUnit file; a stage that left none has failed."""
    if not outcome.stage.junit.exists():
        outcome.failed += 1
        return
    for case in ElementTree.parse(outcome.stage.junit).getroot().iter("testcase"):
        if case.find("failure") is not None or case.find("error") is not None:
            outcome.failed += 1
        elif case.find("skipped") is not None or case.get("status") == "notrun":
            outcome.skipped += 1
        else:
            outcome.passed += 1


def run(stage: Stage) -> Outcome:
    """Run a stage and count its tests."""
    print(f"\n\033[1m[test] {stage.title}\033[0m", flush=True)
    outcome = Outcome(stage)
    start = time.monotonic()
    stage.junit.unlink(missing_ok=True)
    for command in stage.commands:
        status = subprocess.run(command, cwd=ROOT, stdin=subprocess.DEVNULL).returncode
        if status:
            print(f"[test] {' '.join(command)}\n[test] ended with status {status}", flush=True)
            break
    count(outcome)
    if status and not outcome.failed:
        outcome.failed += 1  # a build, or a runner that broke after its tests
    outcome.seconds = time.monotonic() - start
    return outcome


def main() -> int:
    """Run the stages named on the command line, or all; return the exit status."""
    names = [stage.name for stage in STAGES]
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("stages", nargs="*", metavar="STAGE", help=f"one of {', '.join(names)}")
    wanted = parser.parse_args().stages or names
    if unknown := set(wanted) - set(names):
        parser.error(f"no such stage: {', '.join(sorted(unknown))}; choose from {', '.join(names)}")

    RESULTS.mkdir(parents=True, exist_ok=True)
    outcomes = [run(stage) for stage in STAGES if stage.name in wanted]

    print(f"\n{'stage':12} {'passed':>7} {'failed':>7} {'skipped':>8} {'seconds':>8}")
    for o in outcomes:
        print(f"{o.stage.name:12} {o.passed:7} {o.failed:7} {o.skipped:8} {o.seconds:8.0f}")
    print(f"\nResults: {RESULTS.relative_to(ROOT)}/*.xml")
    passed, failed, skipped = (
        sum(getattr(o, key) for o in outcomes) for key in ("passed", "failed", "skipped")
    )
    print(f"{passed} passed, {failed} failed, {skipped} skipped")
    return 1 if failed or not passed else 0


if __name__ == "__main__":
    sys.exit(main())
