# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The runner of the tests counts what ran, and fails what did not."""

from __future__ import annotations

import os
import pathlib
import sys
import threading

import pytest
import support

sys.path.insert(0, str(support.ROOT / "scripts"))

import stages

PASSED = '<testcase name="a"/>'
FAILED = '<testcase name="b"><failure/></testcase>'
SKIPPED = '<testcase name="c" status="notrun"/><testcase name="d"><skipped/></testcase>'


def _writes(path: pathlib.Path, cases: str, status: int = 0) -> tuple[str, ...]:
    """Return a command that leaves a JUnit file and ends with a status."""
    program = f"open({str(path)!r}, 'w').write({f'<testsuite>{cases}</testsuite>'!r})"
    return (sys.executable, "-c", f"print('said'); {program}; raise SystemExit({status})")


def _stage(folder: pathlib.Path, *commands: tuple[str, ...], name: str = "s") -> stages.Stage:
    return stages.Stage(name, "a stage", commands, "lane", folder / "reports", folder)


def _run(stage: stages.Stage) -> stages.Outcome:
    return stages.run(stage, stages.Reporter(is_live=False), dict(os.environ))


def _counts(outcome: stages.Outcome) -> tuple[int, int, int]:
    return outcome.passed, outcome.failed, outcome.skipped


@pytest.mark.parametrize(
    ("cases", "status", "expected"),
    [
        (PASSED, 0, (1, 0, 0)),
        (PASSED + FAILED + SKIPPED, 1, (1, 1, 2)),
        (PASSED, 1, (1, 1, 0)),  # the runner broke after its tests
        ("", 0, (0, 1, 0)),  # nothing ran
        ("<cut", 0, (0, 1, 0)),
    ],
)
def test_counts(tmp_path, cases, status, expected):
    """A stage comes to what its file says, and fails with its commands."""
    stage = _stage(tmp_path, _writes(tmp_path / "s.xml", cases, status))
    assert _counts(_run(stage)) == expected


def test_no_results_are_a_failure(tmp_path, capsys):
    """A stage that leaves no file has failed, a stale one being removed; its output is shown."""
    (tmp_path / "s.xml").write_text(f"<testsuite>{PASSED}</testsuite>")
    stage = _stage(tmp_path, (sys.executable, "-c", "print('no results')"))
    assert _counts(_run(stage)) == (0, 1, 0)
    assert "no results" in capsys.readouterr().out


def test_a_command_that_does_not_exist(tmp_path, capsys):
    """It fails the stage with a message."""
    assert _counts(_run(_stage(tmp_path, ("no-such-command",)))) == (0, 1, 0)
    assert "did not start" in capsys.readouterr().out


def test_a_failed_build_ends_its_stage(tmp_path, capsys):
    """The commands after it do not run; what it said is shown."""
    build = (sys.executable, "-c", "print('an error'); raise SystemExit(2)")
    outcome = _run(_stage(tmp_path, build, _writes(tmp_path / "s.xml", PASSED)))
    assert _counts(outcome) == (0, 1, 0)
    printed = capsys.readouterr().out
    assert "an error" in printed
    assert "ended with status 2" in printed


@pytest.mark.parametrize(
    ("case", "report", "expected"),
    [
        ('<testcase name="shard"/>', PASSED + PASSED + SKIPPED, (2, 0, 2)),
        ('<testcase name="shard"><failure/></testcase>', PASSED + FAILED, (1, 1, 0)),
        # It broke after its tests, or before it could report.
        ('<testcase name="shard"><failure/></testcase>', PASSED, (1, 1, 0)),
        ('<testcase name="shard"><failure/></testcase>', None, (0, 1, 0)),
        ('<testcase name="shard"/>', "<cut", (0, 1, 0)),
    ],
)
def test_reports_of_tests(tmp_path, case, report, expected):
    """A test that left a report stands for the tests in it."""
    (tmp_path / "reports").mkdir()
    if report is not None:
        path = tmp_path / "reports" / "shard.xml"
        path.write_text(f"<testsuites><testsuite>{report}</testsuite></testsuites>")
    stage = _stage(tmp_path, _writes(tmp_path / "s.xml", case))
    assert _counts(_run(stage)) == expected


def test_lanes_run_side_by_side(tmp_path):
    """Lanes overlap, a lane's stages do not, and a failing stage stops none."""
    met = threading.Barrier(2, timeout=60)
    order = []

    def run(stage, reporter, environment):
        if stage.name in ("a", "x"):
            met.wait()
        order.append(stage.name)
        return stages.Outcome(stage, failed=1)

    listed = [
        stages.Stage(name, "", (), lane, results=tmp_path)
        for name, lane in (("a", "1"), ("b", "1"), ("x", "2"), ("y", "2"))
    ]
    outcomes = stages.run_all(listed, True, run)
    assert [outcome.stage.name for outcome in outcomes] == ["a", "b", "x", "y"]
    assert order.index("a") < order.index("b")
    assert order.index("x") < order.index("y")


def test_in_turn(tmp_path):
    """Without lanes the stages run in their order."""
    order = []

    def run(stage, reporter, environment):
        order.append(stage.name)
        return stages.Outcome(stage)

    listed = [
        stages.Stage(name, "", (), lane, results=tmp_path)
        for name, lane in (("a", "1"), ("x", "2"), ("b", "1"))
    ]
    stages.run_all(listed, False, run)
    assert order == ["a", "x", "b"]
