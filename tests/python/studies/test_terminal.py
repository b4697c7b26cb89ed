# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Findings in a terminal, and where there is none."""

from __future__ import annotations

import io
import re

import made_findings
import pytest

from bitfold.studies import words
from bitfold.studies.terminal import print_findings


def _printed(findings) -> str:
    file = io.StringIO()
    print_findings(findings, file)
    return file.getvalue()


def test_plain_lines():
    """Without a terminal there are no control characters, and each layer has a whole line."""
    findings = made_findings.large()
    text = _printed(findings)
    assert "\x1b" not in text
    lines = text.splitlines()
    assert max(map(len, lines[4:])) < 250
    for layer in findings.layers:
        starts = f"{layer.name} "
        assert any(line.startswith(starts) and layer.operator in line for line in lines), layer.name
    for result in findings.results:
        assert any(line.startswith(f"{result.name} ") for line in lines), result.name


def test_tables_stay_few():
    """One for all attributions, two of widths at most; a caption names the series left out."""
    text = _printed(made_findings.large())
    assert text.count("Share of wrong sums by width") == 2
    assert "The report has the same of shift 2, shift 3 and shift 4." in text
    assert text.count("from the float model") == 1
    few = _printed(made_findings.made("few", ["first", "last"], shifts=(0, 2)))
    assert "The report has the same" not in few


def test_standard_output_by_default(capsys):
    """Without a file it prints where print() does."""
    print_findings(made_findings.bare())
    assert capsys.readouterr().out.startswith("bare\n16 images went through 1 layer")


@pytest.mark.parametrize("layers", [0, 1])
def test_bare(layers):
    """Findings without results, metric or layers are no error."""
    text = _printed(made_findings.bare(layers))
    assert "without labels there is no metric" in text
    assert ("layer_0" in text) == bool(layers)


def test_a_terminal(monkeypatch):
    """On a terminal there is style, and lines keep its width."""
    monkeypatch.setenv("TERM", "xterm-256color")
    monkeypatch.setenv("FORCE_COLOR", "1")
    monkeypatch.setenv("COLUMNS", "80")
    assert "\x1b[" in _printed(made_findings.small())


@pytest.mark.parametrize("width", [60, 80])
def test_a_narrow_terminal(monkeypatch, width):
    """Tables come in pieces; no number and no word is cut."""
    monkeypatch.setenv("TERM", "xterm-256color")
    monkeypatch.setenv("FORCE_COLOR", "1")
    monkeypatch.setenv("COLUMNS", str(width))
    text = re.sub(r"\x1b\[[0-9;]*m", "", _printed(made_findings.single()))
    _, _, text = text.partition("Each arithmetic, end to end")
    tables = text[: text.index("Share of wrong sums")].splitlines()[1:]
    assert max(map(len, tables)) <= width
    assert sum(line.startswith("arithmetic ") for line in tables) > 1
    for word in ("corrected", "accuracy", f"{made_findings.WIDTHS[0]} bits"):
        assert word in text


def test_names_are_no_markup():
    """Names are printed as they are, and cannot steer the terminal."""
    text = _printed(made_findings.hostile())
    assert "\x1b" not in text
    assert "[bold]markup[/bold]" in text
    assert words.printable(made_findings.HOSTILE_NAMES[1]) in text
