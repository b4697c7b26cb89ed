# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The examples run from start to end, in a small form, and leave what they promise."""

from __future__ import annotations

import gzip
import importlib.util
import json
import subprocess
import sys
from pathlib import Path

import forks
import numpy as np
import pytest
import support

import bitfold
from bitfold.studies.records import Findings

pytestmark = pytest.mark.slow

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"


# As an interpreter runs a program.
_PROGRAM = """
import os, runpy, sys
sys.argv.pop(0)
sys.path.insert(0, os.path.dirname(sys.argv[0]))
runpy.run_path(sys.argv[0], run_name="__main__")
"""


def _run(program: Path, output: Path, *options: str) -> str:
    """Run an example, the runtime imported already, and return what it prints."""
    return support.passes(forks.run(_PROGRAM, str(program), "--output-dir", str(output), *options))


def _run_afresh(program: Path, output: Path, *options: str) -> str:
    """Run an example by an interpreter of its own and return what it prints."""
    command = [sys.executable, str(program), "--output-dir", str(output), *options]
    return support.passes(
        subprocess.run(command, capture_output=True, text=True, timeout=300, check=False)
    )


def _check_files(text: str, output: Path, picture: str) -> dict:
    """Check that picture and numbers are there and named; return the numbers."""
    numbers = output / "results.json"
    assert (output / picture).read_bytes().startswith(b"\x89PNG")
    assert str(output / picture) in text
    assert str(numbers) in text
    return json.loads(numbers.read_text())


def _findings(text: str, output: Path) -> Findings:
    """Check that report and numbers are there and named; return the numbers."""
    report, numbers = output / "report.html", output / "results.json"
    assert report.read_text().startswith("<!DOCTYPE html>")
    assert str(report) in text
    assert str(numbers) in text
    return bitfold.Study.load(numbers).findings


def test_fashion_study(tmp_path):
    """The demo without its data set: digits, trained once and read the second time."""
    program = EXAMPLES / "fashion" / "run.py"
    options = ("--images", "40", "--epochs", "2", "--data-dir", str(tmp_path / "nowhere"))
    text = _run(program, tmp_path, *options, "--widths", "15", "24")
    assert "digits of scikit-learn" in text
    first = _findings(text, tmp_path)
    metrics = {result.name: result.metric for result in first.results}
    assert list(metrics) == [
        "15 bits",
        "24 bits",
        "15 bits, shift 2",
        "24 bits, shift 2",
        "15 bits, shift 4, depthwise 16 bits",
    ]
    assert metrics["24 bits"] == first.metric
    assert len(first.layers) == 10
    assert all(layer.needed <= 24 for layer in first.layers)
    narrowest = bitfold.Network.load(tmp_path / "narrowest.bitfold")
    (search,) = first.searches
    assert [layer.arithmetic for layer in narrowest.layers if layer.has_accumulator] == [
        bitfold.Arithmetic(choice.width, choice.shift) for choice in search.choices
    ]
    text = _run(program, tmp_path, *options, "--widths", "15", "--metric-loss", "1")
    assert "Weights from" in text
    second = _findings(text, tmp_path)
    assert second.layers == first.layers
    assert {result.metric for result in second.results} <= set(metrics.values())


def test_fashion_pictures(tmp_path):
    """Bytes of a data set's files come back as pictures and classes."""
    spec = importlib.util.spec_from_file_location("pictures", EXAMPLES / "common" / "pictures.py")
    pictures = importlib.util.module_from_spec(spec)
    sys.modules[spec.name] = pictures
    spec.loader.exec_module(pictures)
    for part, count in (("train", 3), ("t10k", 2)):
        labels = bytes([0, 0, 8, 1, 0, 0, 0, count, *range(count)])
        sizes = [0, 0, 0, count, 0, 0, 0, 4, 0, 0, 0, 5]
        images = bytes([0, 0, 8, 3, *sizes, *range(255, 255 - 20 * count, -1)])
        (tmp_path / f"{part}-labels-idx1-ubyte.gz").write_bytes(gzip.compress(labels))
        (tmp_path / f"{part}-images-idx3-ubyte.gz").write_bytes(gzip.compress(images))
    dataset = pictures.load_fashion(tmp_path)
    assert dataset.train_images.shape == (3, 4, 5, 1)
    assert dataset.train_images.dtype == np.float32
    assert dataset.train_images[0, 0, 0, 0] == 1
    assert dataset.test_images[1, 3, 4, 0] == np.float32(216) / np.float32(255)
    assert dataset.test_labels.tolist() == [0, 1]
    assert pictures.load_fashion(tmp_path / "nowhere") is None


def test_digits_study(tmp_path):
    """With 8 bits every layer has wrong sums, and 24 bits change nothing here."""
    program = EXAMPLES / "digits" / "run.py"
    options = ("--images", "20", "--epochs", "2", "--widths", "8", "24", "--shifts", "0", "6", "12")
    text = _run(program, tmp_path, *options)
    results = {result.name: result for result in _findings(text, tmp_path).results}
    assert all(layer.alone.wrong for layer in results["8 bits"].layers)
    assert not any(layer.alone.wrong for layer in results["24 bits"].layers)
    assert not any(layer.end_to_end.wrong for layer in results["24 bits"].layers)
    halves = [name for name in results if name.startswith("half precision")]
    assert halves == ["half precision", "half precision, shift 6"]


def test_training(tmp_path):
    """The digits at a width where they fail, an epoch: proven, and right at every wider one."""
    program = EXAMPLES / "training" / "run.py"
    text = _run(
        program, tmp_path, "--images", "100", "--data-dir", str(tmp_path / "nowhere"),
        "--weights-dir", str(tmp_path), "--float-epochs", "2", "--epochs", "1",
        "--proven-widths", "13", "--widths", "12", "15",
    )  # fmt: skip
    results = _check_files(text, tmp_path, "training.png")
    assert max(results["before"]["proven"].values()) > 13
    (trained,) = results["trained"]
    assert max(trained["after"]["proven"].values()) == 13
    accuracy = trained["after"]["accuracy"]
    assert len({value for width, value in accuracy.items() if int(width) >= 13}) == 1


def test_numeric_units(tmp_path):
    """Every unit's error stays within the bound that its table states."""
    program = EXAMPLES / "numeric" / "run.py"
    text = _run(program, tmp_path, "--images", "50", "--epochs", "1")
    results = _check_files(text, tmp_path, "transfer_curves.png")
    assert results


def test_detector(tmp_path):
    """The face is found in float and emulated, and 20-bit accumulators change nothing."""
    program = EXAMPLES / "detect" / "run.py"
    text = _run_afresh(program, tmp_path, "--smallest-face", "60")
    results = _check_files(text, tmp_path, "detect_boxes.png")
    assert [row["width"] for row in results["widths"]] == [32, *range(20, 11, -1)]
    for row in results["widths"][:2]:
        assert row["faces"]["boxes"] == row["faces"]["float_boxes"] == row["faces"]["matched"] == 1
        assert not any(row["differing"].values())
    assert all(results["widths"][-1]["differing"].values())
