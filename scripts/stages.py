# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Stages of a test run: commands that leave JUnit files, run side by side and counted."""

from __future__ import annotations

import os
import pathlib
import subprocess
import threading
import time
import xml.etree.ElementTree as ElementTree
from collections.abc import Callable, Iterable, Iterator, Sequence
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass

ROOT = pathlib.Path(__file__).resolve().parent.parent
RESULTS = ROOT / "build" / "test-results"

_ALIVE = 60.0  # seconds without news after which a line says what runs


@dataclass(frozen=True)
class Stage:
    """Commands that leave one JUnit file."""

    name: str
    title: str
    commands: tuple[tuple[str, ...], ...]
    lane: str  # stages of one lane run in turn, lanes side by side
    # Where a test of the JUnit file leaves a report with tests of its own, named as the test is.
    reports: pathlib.Path | None = None
    results: pathlib.Path = RESULTS

    @property
    def junit(self) -> pathlib.Path:
        """Where the stage's results go."""
        return self.results / f"{self.name}.xml"

    @property
    def log(self) -> pathlib.Path:
        """Where what its commands print goes."""
        return self.results / f"{self.name}.log"


@dataclass
class Outcome:
    """What a stage came to."""

    stage: Stage
    passed: int = 0
    failed: int = 0
    skipped: int = 0
    seconds: float = 0.0

    def add(self, other: Outcome) -> None:
        """Add another's tests."""
        self.passed += other.passed
        self.failed += other.failed
        self.skipped += other.skipped


# ---- Counting ------------------------------------------------------------------------------------


def _cases(path: pathlib.Path) -> Iterator[ElementTree.Element]:
    """Yield a JUnit file's tests; one that failed for a file that is absent or cut off."""
    try:
        yield from ElementTree.parse(path).getroot().iter("testcase")
    except (OSError, ElementTree.ParseError) as error:
        case = ElementTree.Element("testcase", name=path.name)
        ElementTree.SubElement(case, "error", message=str(error))
        yield case


def _count_case(outcome: Outcome, case: ElementTree.Element) -> None:
    if case.find("failure") is not None or case.find("error") is not None:
        outcome.failed += 1
    elif case.find("skipped") is not None or case.get("status") in ("notrun", "disabled"):
        outcome.skipped += 1
    else:
        outcome.passed += 1


def count(stage: Stage, status: int) -> Outcome:
    """Count a stage's tests; `status` is that of its last command.

    A stage fails that left no results, or whose commands failed though no test did: a build, or a
    runner that broke after its tests. A test that left a report of its own stands for
    what is in it; where it failed and the report has no failure, by a crash at its end, for one
    more.
    """
    outcome = Outcome(stage)
    for case in _cases(stage.junit):
        report = stage.reports and stage.reports / f"{case.get('name')}.xml"
        one = Outcome(stage)
        _count_case(one, case)
        if report and report.exists():
            inner = Outcome(stage)
            for reported in _cases(report):
                _count_case(inner, reported)
            if one.failed and not inner.failed:
                inner.failed = 1
            one = inner
        outcome.add(one)
    if (status or not outcome.passed + outcome.skipped) and not outcome.failed:
        outcome.failed = 1
    return outcome


# ---- Running -------------------------------------------------------------------------------------


class Reporter:
    """Prints what several lanes have to say, a stage's text in one piece."""

    def __init__(self, is_live: bool) -> None:
        """Print output as it comes, for one lane alone; otherwise when its stage ends."""
        self.is_live = is_live
        self._lock = threading.Lock()
        self._start = time.monotonic()
        self._running: dict[str, float] = {}
        self._last = self._start

    def say(self, text: str) -> None:
        """Print a line of the runner's own."""
        with self._lock:
            self._last = time.monotonic()
            minutes, seconds = divmod(int(self._last - self._start), 60)
            print(f"\033[1m[test {minutes}:{seconds:02}]\033[0m {text}", flush=True)

    def begin(self, stage: Stage) -> None:
        """Say that a stage begins."""
        self._running[stage.name] = time.monotonic()
        self.say(f"{stage.name}: {stage.title}")

    def line(self, text: str) -> None:
        """Take a line of a stage's output."""
        if self.is_live:
            print(text, end="", flush=True)
        elif time.monotonic() - self._last > _ALIVE:
            self.say(f"still running: {', '.join(sorted(self._running))}")

    def end(self, outcome: Outcome, text: str) -> None:
        """Say what a stage came to; show its output where that has not been seen."""
        self._running.pop(outcome.stage.name)
        o = outcome
        if not self.is_live:
            text = text.rstrip()
            with self._lock:
                print(f"\n{text}", flush=True)
        self.say(
            f"{o.stage.name}: {'FAILED' if o.failed else 'passed'} after {o.seconds:.0f} s, "
            f"{o.passed} passed, {o.failed} failed, {o.skipped} skipped"
        )


def _run_command(
    command: Sequence[str], log: pathlib.Path, reporter: Reporter, environment: dict[str, str]
) -> tuple[int, str]:
    """Run a command, its output into the log; return its status and what it printed."""
    lines = []
    try:
        process = subprocess.Popen(
            command,
            cwd=ROOT,
            env=environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            errors="replace",
        )
    except OSError as error:
        lines.append(f"[test] {' '.join(command)}\n[test] did not start: {error}\n")
        reporter.line(lines[-1])
        status = 127
    else:
        assert process.stdout is not None
        for line in process.stdout:
            lines.append(line)
            reporter.line(line)
        status = process.wait()
        if status:
            lines.append(f"[test] {' '.join(command)}\n[test] ended with status {status}\n")
            reporter.line(lines[-1])
    with log.open("a") as file:
        file.writelines(lines)
    return status, "".join(lines)


def run(stage: Stage, reporter: Reporter, environment: dict[str, str]) -> Outcome:
    """Run a stage and count its tests."""
    reporter.begin(stage)
    start = time.monotonic()
    for stale in (stage.junit, stage.log):
        stale.unlink(missing_ok=True)
    text, status = "", 0
    for command in stage.commands:
        status, text = _run_command(command, stage.log, reporter, environment)
        if status:
            break
    outcome = count(stage, status)
    outcome.seconds = time.monotonic() - start
    # What a build says is of interest where it fails; what a test says, always.
    reporter.end(outcome, stage.log.read_text() if outcome.failed else text)
    return outcome


def lanes_of(stages: Iterable[Stage]) -> list[list[Stage]]:
    """Return the stages lane by lane, each in its order."""
    lanes: dict[str, list[Stage]] = {}
    for stage in stages:
        lanes.setdefault(stage.lane, []).append(stage)
    return list(lanes.values())


def memory_in_gib() -> float:
    """Return the memory that programs can get, or 0 where that is not known."""
    try:
        text = pathlib.Path("/proc/meminfo").read_text()
        (kib,) = (line.split()[1] for line in text.splitlines() if line.startswith("MemAvailable"))
        return int(kib) / 2**20
    except (OSError, ValueError):
        return 0.0


def run_all(
    stages: Sequence[Stage], side_by_side: bool, runner: Callable[..., Outcome] = run
) -> list[Outcome]:
    """Run stages, lanes side by side or all in turn; return outcomes in the stages' order."""
    lanes = lanes_of(stages) if side_by_side else [list(stages)]
    reporter = Reporter(is_live=len(lanes) == 1)
    binaries = str(ROOT / ".venv" / "bin")
    environment = os.environ | {"PATH": f"{binaries}{os.pathsep}{os.environ['PATH']}"}
    environment.setdefault("CMAKE_GENERATOR", "Ninja")
    for stage in stages:
        stage.results.mkdir(parents=True, exist_ok=True)
    stopped = threading.Event()

    def run_lane(lane: list[Stage]) -> list[Outcome]:
        return [runner(stage, reporter, environment) for stage in lane if not stopped.is_set()]

    with ThreadPoolExecutor(len(lanes)) as pool:
        futures = [pool.submit(run_lane, lane) for lane in lanes]
        try:
            outcomes = [outcome for future in futures for outcome in future.result()]
        except KeyboardInterrupt:
            stopped.set()  # the interrupt reached the commands, too
            raise
    return sorted(outcomes, key=lambda outcome: list(stages).index(outcome.stage))
