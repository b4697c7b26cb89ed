# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Calls that once failed and random ones: under the sanitizers, and under two fill patterns."""

from __future__ import annotations

import os

import caller
import calls
import children
import pytest

# The long form is make test-long's, more of them make fuzz.
CALLS = int(os.environ.get("BITFOLD_RANDOM_CALLS", "3000"))
SANITIZED = CALLS
FILLED = CALLS // 2  # each twice


def jobs(count: int) -> list[dict]:
    """Return the corpus and the first seeds."""
    return caller.corpus() + [{"seed": seed} for seed in range(count)]


def report(findings: caller.Findings) -> str:
    """Return what was found."""
    return f"{len(findings.texts)} findings\n" + "\n".join(findings.texts)


def test_calls_are_varied():
    """All ops come, most calls are valid enough to be computed, and lines give calls back."""
    many = [calls.random_call(seed) for seed in range(600)]
    assert {call.op for call in many} == calls.OPS.keys()
    for call in many:
        assert repr(calls.Call.from_json(call.to_json())) == repr(call)
        assert repr(calls.random_call(7)) == repr(calls.random_call(7))


def test_sanitizers_find_nothing():
    """No read or write outside of what is allocated, nothing undefined."""
    findings = caller.Findings()
    machine = caller.Caller(fills=False)
    try:
        machine.check(jobs(SANITIZED), findings)
    finally:
        machine.close()
    assert not findings.jobs, report(findings)
    assert findings.kinds["ok"] > SANITIZED / 3


def test_outputs_do_not_depend_on_freed_memory():
    """The same calls under two fill patterns have the same outputs, and end in time."""
    findings = caller.Findings()
    machine = caller.Caller(sanitized=False)
    try:
        machine.check(jobs(FILLED), findings)
    finally:
        machine.close()
    assert not findings.jobs, report(findings)
    assert findings.kinds["ok"] > 2 * FILLED / 3


@pytest.mark.parametrize("fill", children.FILLS, ids=lambda fill: fill["MALLOC_PERTURB_"])
def test_fill_patterns_reach_the_tensors(fill):
    """Memory that the runtime allocates, small or large, is filled."""
    code = (
        "import tensorflow as tf\n"
        "for n in (64, 1 << 24):\n"
        "    print(set(tf.raw_ops.Empty(shape=[n], dtype=tf.uint8).numpy()[n // 2:]))\n"
    )
    pattern = 255 ^ int(fill["MALLOC_PERTURB_"])
    assert children.run_python(code, fill).count(f"{{np.uint8({pattern})}}") == 2
