# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The same calls on threads, in a function, after fork and spawn, and without a standard output."""

from __future__ import annotations

import caller
import calls
import children
import pytest

COUNT = 700
TOGETHER = 50  # calls of one function


@pytest.fixture(scope="module")
def runtime():
    """A runtime with the installed library."""
    with children.Runtime() as runtime:
        yield runtime


@pytest.fixture(scope="module")
def computed(runtime):
    """Calls that give an output, and which: the number of lines that they print is known, too."""
    jobs = [{"seed": seed} for seed in range(COUNT)]
    jobs += [
        {"call": calls.valid_call(op, seed).to_json()} for op in calls.OPS for seed in range(6)
    ]
    outcomes = runtime.run(jobs).outcomes
    jobs = [job for job, outcome in zip(jobs, outcomes, strict=True) if outcome.kind == "ok"]
    result = runtime.run(jobs)
    assert len(jobs) > COUNT / 3
    assert len(result.lines) == 1
    assert int(result.lines[0].split()[0]) > 1000
    return jobs, result


def assert_same(result: children.Result, expected: children.Result, jobs: list) -> None:
    """Require equal outputs; say which calls have others."""
    different = [
        f"{jobs[i]}: {one.text}, serially {other.text}"
        for i, (one, other) in enumerate(zip(result.outcomes, expected.outcomes, strict=True))
        if one != other
    ]
    assert not different, f"{len(different)} differ:\n" + "\n".join(different[:5])


def has_output(job: dict) -> bool:
    """Whether a call sets its output: HNMS does so for rank 4 only, else a function fails."""
    call = caller.call_of(job)
    return call.op != "HNMS" or len(call.inputs[0].shape) == 4


def test_serially_again(runtime, computed):
    """In another process."""
    jobs, expected = computed
    result = runtime.run(jobs)
    assert_same(result, expected, jobs)
    assert result.lines == expected.lines


def test_on_eight_threads(runtime, computed):
    """All at the same time; lines in any order, but whole."""
    jobs, expected = computed
    result = runtime.run(jobs, mode="threads", memory=0)
    assert_same(result, expected, jobs)
    assert result.lines == expected.lines


def test_in_functions(runtime, computed):
    """As nodes of one function, which the runtime runs side by side."""
    jobs = [job for job in computed[0] if has_output(job)]
    refused = 0
    for first in range(0, len(jobs), TOGETHER):
        some = jobs[first : first + TOGETHER]
        accepted = []
        for job, outcome in zip(some, runtime.run(some, mode="function").outcomes, strict=True):
            if outcome.kind == "error":  # by the op's shape function, while the function is built
                refused += 1
            else:
                accepted.append(job)
        result = runtime.run(accepted, mode="function")
        expected = runtime.run(accepted)
        assert_same(result, expected, accepted)
        assert result.lines == expected.lines
    assert refused < len(jobs) / 10


@pytest.mark.parametrize("mode", ["fork", "spawn"])
def test_in_another_process(mode, runtime, computed):
    """One that a process makes after it has run ops, by copying itself or afresh."""
    jobs, expected = computed
    assert_same(runtime.run(jobs, mode=mode, memory=0), expected, jobs)


@pytest.mark.parametrize("output", ["full", "closed", "pipe"])
@pytest.mark.parametrize("mode", ["serial", "threads"])
def test_without_standard_output(mode, output, runtime, computed):
    """The device is full, the descriptor is closed, or nobody reads the pipe."""
    jobs, expected = computed
    assert_same(runtime.run(jobs, mode=mode, output=output, memory=0), expected, jobs)
