# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Calls the ops at random, in processes that may end, and prints what it finds.

    .venv/bin/python tests/robustness/caller.py --seed N       one call
    .venv/bin/python tests/robustness/caller.py --calls N      many, from --first on
    .venv/bin/python tests/robustness/caller.py --forever      until interrupted
    .venv/bin/python tests/robustness/caller.py --corpus       the calls that once failed

Each call is run under the sanitizers and with the installed library under two fill patterns of
freed memory, whose outputs must be the same: where they differ, memory was read that nobody wrote.
A call that fails is added to the corpus.
"""

from __future__ import annotations

import argparse
import pathlib
import sys
import time
from collections import Counter
from collections.abc import Iterable, Iterator, Sequence
from typing import Any

import calls
import children

CORPUS = pathlib.Path(__file__).resolve().parent / "corpus.jsonl"
CHUNK = 250
SANITIZED_SECONDS = 15.0

Job = dict[str, Any]


def corpus() -> list[Job]:
    """Return the calls that once failed."""
    return [{"call": line} for line in CORPUS.read_text().splitlines() if line]


def keep(job: Job) -> None:
    """Add a call to the corpus unless it is there."""
    line = call_of(job).to_json()
    if line not in CORPUS.read_text().splitlines():
        with CORPUS.open("a") as file:
            file.write(line + "\n")


def call_of(job: Job) -> calls.Call:
    """Return the call that a job names or holds."""
    return calls.random_call(job["seed"]) if "seed" in job else calls.Call.from_json(job["call"])


def reproducer(job: Job) -> str:
    """Return the command that runs a job again."""
    what = f"--seed {job['seed']}" if "seed" in job else f"--call '{job['call']}'"
    return f".venv/bin/python tests/robustness/caller.py {what}"


class Findings:
    """What was wrong, and how often outcomes of each kind came."""

    def __init__(self, *, verbose: bool = False) -> None:
        """With `verbose`, print what a process wrote before its end, too."""
        self.jobs: list[Job] = []
        self.texts: list[str] = []
        self.kinds: Counter[str] = Counter()
        self._verbose = verbose

    def add(self, job: Job, text: str, details: str = "") -> None:
        """Note and print a finding."""
        self.jobs.append(job)
        self.texts.append(f"{call_of(job).op}: {text}\n    {reproducer(job)}")
        print(self.texts[-1], flush=True)
        if self._verbose and details:
            print(details, flush=True)

    def count(self, result: children.Result) -> None:
        """Count the outcomes of a batch."""
        self.kinds.update(outcome.kind for outcome in result.outcomes)


class Caller:
    """Runtimes that each call is given to."""

    def __init__(self, *, sanitized: bool = True, fills: bool = True) -> None:
        """Start the runtimes that are wanted."""
        self._sanitized = children.Runtime.sanitized() if sanitized else None
        self._fills = [
            children.Runtime(environment=fill) for fill in (children.FILLS if fills else ())
        ]

    def close(self) -> None:
        """End the runtimes."""
        for runtime in (*self._fills, self._sanitized):
            if runtime:
                runtime.close()

    def check(self, jobs: Sequence[Job], findings: Findings) -> None:
        """Run jobs and note what is wrong with them."""
        for chunk in chunks(jobs):
            if self._sanitized:
                # The sanitizer reserves more address space than there is memory.
                result = self._sanitized.run(chunk, seconds=SANITIZED_SECONDS, memory=0)
                self._note("sanitizers: ", chunk, result, findings)
            results = [runtime.run(chunk) for runtime in self._fills]
            for result in results:
                self._note("", chunk, result, findings)
            if results:
                compare(chunk, results, findings)

    @staticmethod
    def _note(where: str, jobs: list[Job], result: children.Result, findings: Findings) -> None:
        findings.count(result)
        for index in result.findings:
            outcome = result.outcomes[index]
            findings.add(jobs[index], where + outcome.text, outcome.details)


def compare(jobs: list[Job], results: list[children.Result], findings: Findings) -> None:
    """Note where outputs depend on what freed memory holds."""
    for job, first, second in zip(jobs, *(result.outcomes for result in results), strict=True):
        same = (first.kind, first.text) == (second.kind, second.text)
        if not same and not first.is_finding and not second.is_finding:
            findings.add(job, f"fill patterns differ: {first.text} and {second.text}")


def chunks(jobs: Iterable[Job]) -> Iterator[list[Job]]:
    """Yield jobs in batches of one process each."""
    chunk: list[Job] = []
    for job in jobs:
        chunk.append(job)
        if len(chunk) == CHUNK:
            yield chunk
            chunk = []
    if chunk:
        yield chunk


def run_forever(caller: Caller, findings: Findings, first: int) -> None:
    """Run the corpus, then seeds from `first` on until interrupted; keep what fails."""
    caller.check(corpus(), findings)
    start, seed = time.monotonic(), first
    while True:
        known = len(findings.jobs)
        caller.check([{"seed": s} for s in range(seed, seed + 4 * CHUNK)], findings)
        for job in findings.jobs[known:]:
            keep(job)
        seed += 4 * CHUNK
        rate = (seed - first) / (time.monotonic() - start)
        print(
            f"{seed - first} calls, {rate:.0f} a second, next seed {seed}, "
            f"{len(findings.jobs)} findings, {dict(findings.kinds)}",
            flush=True,
        )


def parse() -> argparse.Namespace:
    """Return the command line's arguments."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    what = parser.add_mutually_exclusive_group(required=True)
    what.add_argument("--seed", type=int, help="run the call of a seed")
    what.add_argument("--call", help="run a call written out, as the corpus has it")
    what.add_argument("--calls", type=int, metavar="N", help="run the calls of N seeds")
    what.add_argument("--corpus", action="store_true", help="run the calls of the corpus")
    what.add_argument("--forever", action="store_true", help="run until interrupted")
    parser.add_argument("--first", type=int, help="the first seed; default: 0, or the time")
    parser.add_argument("--no-sanitizers", action="store_true", help="leave these runs out")
    parser.add_argument("--no-fills", action="store_true", help="leave those under patterns out")
    return parser.parse_args()


def main() -> int:
    """Run what the command line says; return 1 if something is wrong."""
    arguments = parse()
    caller = Caller(sanitized=not arguments.no_sanitizers, fills=not arguments.no_fills)
    single = arguments.seed is not None or arguments.call is not None
    findings = Findings(verbose=single)
    start = time.monotonic()
    try:
        if arguments.forever:
            first = arguments.first if arguments.first is not None else int(time.time()) * 1000
            run_forever(caller, findings, first)
        elif arguments.corpus:
            caller.check(corpus(), findings)
        elif arguments.calls is not None:
            first = arguments.first or 0
            caller.check([{"seed": first + i} for i in range(arguments.calls)], findings)
        else:
            job = {"call": arguments.call} if arguments.call else {"seed": arguments.seed}
            print(call_of(job).to_json())
            caller.check([job], findings)
    except KeyboardInterrupt:
        print()
    finally:
        caller.close()
    seconds = time.monotonic() - start
    print(f"{seconds:.1f} s, {len(findings.jobs)} findings, outcomes: {dict(findings.kinds)}")
    return 1 if findings.jobs else 0


if __name__ == "__main__":
    sys.exit(main())
