# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""An allocation or the start of a thread fails: an error or the right result, nothing else."""

from __future__ import annotations

import calls
import children
import pytest

NEW, THREAD, ALIGNED = 1, 2, 3
FIRST = range(1, 13)  # the occasions that fail one after another; later ones by doubling
LATEST = 1 << 14


@pytest.fixture(scope="module")
def runtime():
    """A runtime in which allocations can fail."""
    preload = {"LD_PRELOAD": str(children.faults_library())}
    with children.Runtime(environment=preload) as runtime:
        yield runtime


@pytest.fixture(scope="module")
def threaded_runtime():
    """The same with a thread for each image, where threads can fail, too."""
    preload = {"LD_PRELOAD": str(children.faults_library()), "BITFOLD_IMAGE_THREADS": "1"}
    with children.Runtime(environment=preload) as runtime:
        yield runtime


def has_images(op: str) -> bool:
    """Return whether an op's images can have threads."""
    return op.startswith(("HConv", "HDepth"))


def cases(op: str) -> list[calls.Call]:
    """Return calls of an op for either type and, where there are threads, many images."""
    found: dict[tuple, calls.Call] = {}
    for seed in range(60):
        call = calls.valid_call(op, seed)
        if any(tensor.is_empty for tensor in call.inputs[:2]):
            continue  # nothing may be left to compute
        many = has_images(call.op) and call.inputs[0].shape[0] > 3
        leading = any(len(tensor.shape) > 4 for tensor in call.inputs[1:2])
        found.setdefault((call.attributes.get("T"), many, leading), call)
    return list(found.values())


def occasions(outcome: children.Outcome) -> int:
    """Return how many occasions a call had."""
    return int(outcome.details.split()[0])


@pytest.mark.parametrize("kind", [NEW, ALIGNED], ids=["new", "aligned"])
@pytest.mark.parametrize("op", calls.OPS)
def test_each_occasion_fails(op, kind, runtime):
    """The first occasions, and a few of the later ones."""
    check_occasions(op, kind, runtime)


@pytest.mark.parametrize("kind", [NEW, THREAD], ids=["new", "thread"])
@pytest.mark.parametrize("op", [op for op in calls.OPS if has_images(op)])
def test_each_occasion_of_image_threads_fails(op, kind, threaded_runtime):
    """The same where each image has a thread."""
    check_occasions(op, kind, threaded_runtime)


def check_occasions(op: str, kind: int, runtime: children.Runtime) -> None:
    """Let occasions of an op's calls fail one after another."""
    texts = [call.to_json() for call in cases(op)]
    counted = runtime.run([{"call": text, "fault": [kind, 0]} for text in texts]).outcomes
    jobs = []
    for text, outcome in zip(texts, counted, strict=True):
        assert outcome.kind == "ok", f"{outcome}\n{text}"
        wanted = {*FIRST, *(2**i for i in range(4, 15)), occasions(outcome)}
        jobs += [
            {"call": text, "fault": [kind, k]}
            for k in sorted(wanted)
            if 0 < k <= min(occasions(outcome), LATEST)
        ]
    assert jobs or kind != ALIGNED, "each output is allocated"
    result = runtime.run(jobs)
    failed = [
        f"occasion {jobs[i]['fault'][1]}: {result.outcomes[i].text}\n{jobs[i]['call']}"
        for i in result.findings
    ]
    assert not failed, f"{len(failed)} of {len(jobs)} fail:\n" + "\n".join(failed[:3])


def test_threads_are_started_and_fail(threaded_runtime):
    """The convolution of many images has threads: the tests above would see them fail."""
    many = (calls.valid_call("HConv2d", seed) for seed in range(1000))
    call = next(
        c
        for c in many
        if c.attributes["padding"] == "SAME"
        and c.inputs[0].shape[0] > 3
        and not any(tensor.is_empty for tensor in c.inputs[:2])
    )
    job = {"call": call.to_json(), "fault": [THREAD, 0]}
    (outcome,) = threaded_runtime.run([job]).outcomes
    assert occasions(outcome) == call.inputs[0].shape[0]
