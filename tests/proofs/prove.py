# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Prove every claim on the cores at hand, and print what was found as a table.

Ends with 1 where a claim is false or open, a control is not refuted and confirmed by the shipped
functions, or a formula and its function differ.
"""

from __future__ import annotations

import argparse
import concurrent.futures
import dataclasses
import importlib
import multiprocessing
import os
import sys
from collections.abc import Iterator, Sequence
from pathlib import Path

import bridge
import rich.console
import rich.progress
from claim import Case, Claim, Finding, Verdict, decide, is_confirmed, refute
from formulas import Rules

MODULES = (
    "words",
    "accumulators",
    "scaling",
    "geometry",
    "requantising",
    "units",
    "statistics",
    "layernorm",
    "softmax",
    "bounds",
    "products",
    "plans",
)
PROGRAM = Path(__file__).parents[2] / "build/tests/tests/proofs/bitfold_rules"


@dataclasses.dataclass(frozen=True)
class Task:
    """A case of a claim, or one of its controls."""

    module: str
    claim: int
    is_control: bool
    case: int


@dataclasses.dataclass
class Row:
    """What was found of a claim."""

    claim: Claim
    proved: int = 0
    refuted: int = 0
    seconds: float = 0.0
    failures: list[str] = dataclasses.field(default_factory=list)


def claims_of(module: str) -> Sequence[Claim]:
    """Return the claims of a module."""
    return importlib.import_module(f"claims.{module}").CLAIMS


def sampled(cases: Sequence[Case], most: int) -> list[int]:
    """Return the indices of at most so many cases, the first one and, of two, the last."""
    if len(cases) <= most:
        return list(range(len(cases)))
    if most == 1:
        return [0]
    return sorted({round(i * (len(cases) - 1) / (most - 1)) for i in range(most)})


def tasks_of(modules: Sequence[str], is_sample: bool) -> Iterator[Task]:
    """Return all cases and controls, or those that every test run takes."""
    for module in modules:
        for at, claim in enumerate(claims_of(module)):
            for is_control, cases in ((False, claim.cases), (True, claim.controls)):
                most = claim.in_tests if is_sample else len(cases)
                for case in sampled(cases, most):
                    yield Task(module, at, is_control, case)


_rules: Rules | None = None


def _load(program: Path) -> None:
    global _rules
    _rules = Rules(program)


def _find(task: Task) -> tuple[Task, Finding, bool]:
    """Return what is found, and whether that is as it should be."""
    claim = claims_of(task.module)[task.claim]
    if not task.is_control:
        finding = decide(claim.cases[task.case], _rules)
        return task, finding, finding.verdict is Verdict.PROVED
    control = claim.controls[task.case]
    finding = refute(control, _rules)
    is_refuted = finding.verdict is Verdict.REFUTED
    return task, finding, is_refuted and is_confirmed(control, finding.counterexample, _rules)


def _compare(name: str, inputs: int) -> bridge.Comparison:
    return bridge.compare(name, _rules, inputs)


def _add(row: Row, task: Task, finding: Finding, is_right: bool) -> None:
    row.seconds += finding.seconds
    cases = row.claim.controls if task.is_control else row.claim.cases
    if is_right and task.is_control:
        row.refuted += 1
    elif is_right:
        row.proved += 1
    else:
        kind = "control" if task.is_control else "case"
        found = f"{finding.verdict.value} {finding.counterexample or ''}"
        row.failures.append(f"{kind} {cases[task.case].name!r}: {found}")


@dataclasses.dataclass
class Report:
    """What was found of claims and of formulas."""

    rows: list[Row]
    comparisons: list[bridge.Comparison]

    @property
    def failures(self) -> list[str]:
        """All that is not as it should be."""
        found = [
            f"{row.claim.rule}: {row.claim.text}: {failure}"
            for row in self.rows
            for failure in row.failures
        ]
        return found + [failure for c in self.comparisons if (failure := c.failure)]


def prove(program: Path, modules: Sequence[str], jobs: int, inputs: int) -> Report:
    """Prove claims, and compare formulas with the shipped functions at so many inputs each."""
    rules = Rules(program)
    tasks = list(tasks_of(modules, is_sample=False))
    rows = {(m, at): Row(claim) for m in modules for at, claim in enumerate(claims_of(m))}
    comparisons = []
    console = rich.console.Console(stderr=True)
    context = multiprocessing.get_context("fork")
    with (
        concurrent.futures.ProcessPoolExecutor(jobs, context, _load, (program,)) as pool,
        rich.progress.Progress(console=console, transient=True) as progress,
    ):
        compared = [pool.submit(_compare, name, inputs) for name in rules.names]
        found = [pool.submit(_find, task) for task in tasks]
        for done in progress.track(concurrent.futures.as_completed(found + compared),
                                   len(found) + len(compared), description="proving"):  # fmt: skip
            result = done.result()
            if isinstance(result, bridge.Comparison):
                comparisons.append(result)
            else:
                _add(rows[result[0].module, result[0].claim], *result)
    return Report(list(rows.values()), comparisons)


def print_table(report: Report) -> None:
    """Print a row for each claim, one for the bridge, and what failed."""
    print("| Rule | Claim | For | Proved | Seconds | Controls refuted |")
    print("|---|---|---|---|---|---|")
    for row in report.rows:
        cases = row.proved + sum(f.startswith("case") for f in row.failures)
        controls = row.refuted + sum(f.startswith("control") for f in row.failures)
        claim = row.claim
        found = f"{row.proved} of {cases} | {row.seconds:.1f} | {row.refuted} of {controls}"
        print(f"| {claim.rule} | {claim.text} | {claim.parameters} | {found} |")
    inputs = sum(c.inputs for c in report.comparisons)
    equal = sum(c.failure is None for c in report.comparisons)
    print(f"\n{equal} of {len(report.comparisons)} formulas gave the bits of their functions, "
          f"at {inputs} inputs.")  # fmt: skip
    seconds = sum(row.seconds for row in report.rows)
    print(f"{len(report.rows)} claims in {seconds:.0f} s of one core.")
    for failure in report.failures:
        print(f"FAILED {failure}")


def listed(claim: Claim) -> str:
    """Return a claim's row in the table of docs/proofs.md."""
    counts = f"{len(claim.cases)} | {len(claim.controls)}"
    return f"| {claim.rule} | {claim.text} | {claim.parameters} | {counts} |"


def main() -> int:
    """Run from the command line."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", type=Path, default=PROGRAM, help="that records the rules")
    parser.add_argument("--modules", nargs="+", default=MODULES, choices=MODULES)
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)))
    parser.add_argument("--inputs", type=int, default=64, help="of each formula and its function")
    parser.add_argument("--list", action="store_true", help="the claims alone, and prove nothing")
    given = parser.parse_args()
    if given.list:
        print("\n".join(listed(c) for module in given.modules for c in claims_of(module)))
        return 0
    report = prove(given.program, given.modules, given.jobs, given.inputs)
    print_table(report)
    return 1 if report.failures else 0


if __name__ == "__main__":
    sys.exit(main())
