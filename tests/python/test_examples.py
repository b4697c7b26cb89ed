# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The examples run from start to end, in a small form, and leave what they promise."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path

import pytest

pytestmark = pytest.mark.slow

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"


def _run(program: Path, output: Path, *options: str) -> str:
    """Run an example and return what it prints."""
    command = [sys.executable, str(program), "--output-dir", str(output), *options]
    result = subprocess.run(command, capture_output=True, text=True, timeout=300, check=False)
    assert result.returncode == 0, result.stderr
    return result.stdout


def test_digits_study(tmp_path):
    """The table names every width, the files exist, and 24 bits change nothing here."""
    text = _run(EXAMPLES / "digits" / "run.py", tmp_path, "--images", "20", "--epochs", "2")
    picture, numbers = tmp_path / "accumulator_width.png", tmp_path / "results.json"
    assert picture.read_bytes().startswith(b"\x89PNG")
    assert str(picture) in text
    assert str(numbers) in text
    results = json.loads(numbers.read_text())
    assert [row["width"] for row in results["widths"]] == list(range(8, 25))
    widest, narrowest = results["widths"][-1], results["widths"][0]
    assert not any(widest["differing"].values())
    assert all(narrowest["differing"].values())


def test_numeric_units(tmp_path):
    """Every unit's error stays within the bound that its table states."""
    program = EXAMPLES / "numeric" / "run.py"
    text = _run(program, tmp_path, "--images", "50", "--epochs", "1")
    picture, numbers = tmp_path / "transfer_curves.png", tmp_path / "results.json"
    assert picture.read_bytes().startswith(b"\x89PNG")
    assert str(picture) in text
    assert str(numbers) in text
    assert json.loads(numbers.read_text())


def test_detector(tmp_path):
    """The face is found in float and emulated, and 20-bit accumulators change nothing."""
    program = EXAMPLES / "detect" / "run.py"
    text = _run(program, tmp_path, "--smallest-face", "60")
    picture, numbers = tmp_path / "detect_boxes.png", tmp_path / "results.json"
    assert picture.read_bytes().startswith(b"\x89PNG")
    assert str(picture) in text
    assert str(numbers) in text
    results = json.loads(numbers.read_text())
    assert [row["width"] for row in results["widths"]] == [32, *range(20, 11, -1)]
    for row in results["widths"][:2]:
        assert row["faces"]["boxes"] == row["faces"]["float_boxes"] == row["faces"]["matched"] == 1
        assert not any(row["differing"].values())
    assert all(results["widths"][-1]["differing"].values())
