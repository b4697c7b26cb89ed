# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The SystemVerilog unit of examples/rtl is equal to Bitfold, and each planted bug is found.

Only `make test-long` runs this: it needs Verilator, and compiles for a minute.
"""

from __future__ import annotations

import os
import pathlib
import re
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
# As a test bench's author has it: no virtual environment.
PATH = "/usr/local/bin:/usr/bin:/bin"


@pytest.fixture(scope="module")
def folder(tmp_path_factory) -> pathlib.Path:
    """Where the benches are built, once for each width."""
    return tmp_path_factory.mktemp("rtl")


def _run(folder: pathlib.Path, width: str = "24", **settings: str) -> str:
    """Run the example; return what it prints."""
    environment = {"PATH": PATH, "OUT": str(folder / width), "ACC_WIDTH": width, **settings}
    result = subprocess.run(
        [ROOT / "examples" / "rtl" / "run.sh"],
        env={"STEPS": "2000000", **environment},
        capture_output=True,
        text=True,
        check=False,
    )
    assert result.returncode == 0, f"{result.stdout}\n{result.stderr}"
    assert result.stderr == ""
    return result.stdout


# The narrowest that takes its addends, the accelerator's own, and that of int32.
@pytest.mark.parametrize("width", ["23", "24", "32"])
@pytest.mark.parametrize("seed", ["1", "999999999"])
def test_the_unit_is_equal(folder, width, seed):
    """Boundaries, then random steps of other seeds."""
    text = _run(folder, width, SEED=seed, BUG="0")
    assert "mac_bench: EQUAL in 2057024 steps, 2000000 of them random" in text
    assert "DIFFERENT" not in text
    assert " million steps a second" in text


@pytest.mark.parametrize(
    ("bug", "where", "other"),
    [
        ("1", "integer accumulator of 24 bits", "half-precision accumulator"),
        ("2", "integer accumulator of 24 bits", "half-precision accumulator"),
        ("3", "half-precision accumulator", "integer accumulator of 24 bits"),
        ("4", "half-precision accumulator", "integer accumulator of 24 bits"),
    ],
)
def test_a_planted_bug_is_found(folder, bug, where, other):
    """At a boundary; the step is shown with its operands, what was expected and what came."""
    text = _run(folder, BUG=bug).partition(f"with bug {bug} of mac_unit.sv:")[2]
    (step,) = re.findall(r"mac_bench: DIFFERENT at step (\d+)", text)
    assert int(step) <= 57024
    assert re.search(rf"(?m)^step {step} \(boundaries\): data -?\d+ \* weight -?\d+ = ", text)
    for name, verdict in ((where, "DIFFERENT"), (other, "equal")):
        shown = re.search(rf"{name}: .* \+ .*\n    expected (.*), got (.*), (\w+)", text)
        assert shown[3] == verdict
        assert (shown[1] == shown[2]) == (verdict == "equal")
    assert text.rstrip().endswith("Found.")


def test_an_unknown_bug_is_refused():
    """Instead of a bench that finds nothing."""
    environment = {"PATH": PATH, "BUG": "5"}
    result = subprocess.run(
        [ROOT / "examples" / "rtl" / "run.sh"], env=environment, capture_output=True, text=True
    )
    assert result.returncode == 1
    assert "Need BUG to be 0 to 4, got '5'." in result.stderr


def test_an_unknown_width_is_refused(tmp_path):
    """Addends that could wrap twice: the unit says what it needs, when it is built."""
    environment = {"PATH": PATH, "OUT": str(tmp_path), "ACC_WIDTH": "22", "HOME": os.sep}
    result = subprocess.run(
        [ROOT / "examples" / "rtl" / "run.sh"], env=environment, capture_output=True, text=True
    )
    assert result.returncode != 0
    assert "Need addends of at most 23 bits, got 24" in result.stderr
