# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A sample of the proofs of tests/proofs, and what they would say of rules that are wrong."""

from __future__ import annotations

import pathlib
import subprocess
import sys
import tempfile

import pytest
import support

pytest.importorskip("z3")
_PROOFS = support.ROOT / "tests" / "proofs"
sys.path.insert(0, str(_PROOFS))

import bridge  # noqa: E402
import prove  # noqa: E402
from claim import Verdict, decide, is_confirmed, refute  # noqa: E402
from formulas import Rules  # noqa: E402

_INPUTS = 3  # of each formula; make prove takes more, and all cases of each claim


def _newest_source() -> float:
    folders = [support.ROOT / name for name in ("include", "src", "tests/proofs")]
    files = [path for folder in folders for path in folder.rglob("*")]
    sources = [path for path in files if path.suffix in (".h", ".cc", ".inc")]
    return max(p.stat().st_mtime for p in sources)


@pytest.fixture(scope="session")
def rules():
    """The rules of the program that CMake built, or of one built now."""
    built = prove.PROGRAM
    if built.exists() and built.stat().st_mtime >= _newest_source():
        yield Rules(built)
        return
    with tempfile.TemporaryDirectory() as folder:
        program = pathlib.Path(folder) / "bitfold_rules"
        sources = [p for p in _PROOFS.glob("*.cc") if not p.stem.startswith("enumerate")]
        includes = [f"-I{support.ROOT / name}" for name in ("include", "src", "tests")]
        command = ["c++", "-std=c++17", "-O1", *support.numerics_flags(), *includes]
        subprocess.run([*command, "-o", program, *sources], check=True)
        yield Rules(program)


def _tasks():
    return [
        pytest.param(task, id=f"{task.module}-{task.claim}-{task.is_control:d}-{task.case}")
        for task in prove.tasks_of(prove.MODULES, is_sample=True)
    ]


@pytest.mark.parametrize("task", _tasks())
def test_claims_hold_and_controls_do_not(task, rules):
    """Each claim is proved, and what is false on purpose refuted by the functions, too."""
    claim = prove.claims_of(task.module)[task.claim]
    if task.is_control:
        control = claim.controls[task.case]
        finding = refute(control, rules)
        assert finding.verdict is Verdict.REFUTED
        assert is_confirmed(control, finding.counterexample, rules)
    else:
        assert decide(claim.cases[task.case], rules).verdict is Verdict.PROVED


def test_each_claim_has_a_control():
    """A proof of anything would be seen."""
    claims = [claim for module in prove.MODULES for claim in prove.claims_of(module)]
    assert [claim.text for claim in claims if not claim.controls] == []


def test_the_docs_list_every_claim():
    """docs/proofs.md has the table that prove.py --list prints."""
    text = (support.ROOT / "docs" / "proofs.md").read_text(encoding="utf-8")
    docs = text[: text.index("\n## Floats, ")].splitlines()
    claims = [claim for module in prove.MODULES for claim in prove.claims_of(module)]
    rows = [line for line in docs if line.startswith("| ") and line.count("|") == 6]
    assert rows[1:] == [prove.listed(claim) for claim in claims]


def test_formulas_give_the_bits_of_the_functions(rules):
    """The words that record compute as integers do."""
    found = [bridge.compare(name, rules, _INPUTS) for name in rules.names]
    assert [c.failure for c in found if c.failure] == []


def test_a_formula_of_another_rule_is_seen(rules):
    """The comparison of formulas and functions compares."""

    class Wrong(Rules):
        def __init__(self):
            pass

        names = ("WrapAdd",)

        def __getitem__(self, name):
            return rules["WrapSubtract"]

        def evaluate(self, calls):
            return rules.evaluate(("WrapAdd", numbers) for _, numbers in calls)

    assert "formula" in bridge.compare("WrapAdd", Wrong(), 8).failure
