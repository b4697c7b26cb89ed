# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The documents and the pages of the site: links, anchors, rules, public names.

`make docs` builds the site, where warnings are errors; what is looked at here needs no build.
"""

from __future__ import annotations

import functools
import inspect
import pathlib
import re
import sys

import pytest
import support

import bitfold

ROOT = support.ROOT
DOCS = ROOT / "docs"
sys.path.append(str(DOCS / "_extensions"))

import arithmetic_rules  # noqa: E402

DOCUMENTS = [
    *sorted(DOCS.rglob("*.md")),
    *(ROOT / name for name in ("README.md", "CONTRIBUTING.md", "CHANGELOG.md")),
    ROOT / "examples" / "README.md",
]


def _prose(path: pathlib.Path) -> str:
    """Return a document without its blocks of code."""
    return re.sub(r"(?ms)^(`{3,}|~{3,}).*?^\1`*$", "", path.read_text())


@functools.cache
def _anchors(path: pathlib.Path) -> set[str]:
    """Return the anchors that a code host gives the headings of a document."""
    found: set[str] = set()
    for heading in re.findall(r"(?m)^#+ (.+)$", _prose(path)):
        words = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading).lower()
        slug = re.sub(r"[^\w\- ]", "", words).strip().replace(" ", "-")
        found.add(slug if slug not in found else f"{slug}-1")
    return found


@pytest.mark.parametrize("path", DOCUMENTS, ids=lambda path: path.relative_to(ROOT).as_posix())
def test_links_lead_somewhere(path):
    """Each relative link leads to a file of the checkout, and its anchor to a heading there."""
    bad = []
    for target in re.findall(r"\]\(([^)\s]+)\)", _prose(path)):
        if re.match(r"\w+:", target):
            continue
        name, _, anchor = target.partition("#")
        file = (path.parent / name).resolve() if name else path
        if not file.exists() or (anchor and anchor not in _anchors(file)):
            bad.append(target)
    assert not bad, f"these links of {path.relative_to(ROOT)} lead nowhere: {', '.join(bad)}"


def test_every_page_is_in_a_table_of_contents():
    """A page that is in none is found by nobody, and is an error of `make docs`."""
    pages = {path.relative_to(DOCS).with_suffix("").as_posix() for path in DOCS.rglob("*.md")}
    listed = {"index"}
    for path in DOCS.rglob("*.md"):
        for block in re.findall(r"(?ms)^```\{toctree\}\n(.*?)^```", path.read_text()):
            names = [line for line in block.split("\n") if line and not line.startswith(":")]
            listed |= {(path.parent / name).relative_to(DOCS).as_posix() for name in names}
    assert pages == listed, (
        "name every page in a toctree of docs/index.md or docs/api, and no others: "
        f"{sorted(pages ^ listed)}"
    )


# ---- Rules -------------------------------------------------------------------------------------

RULES = [name for name, _ in arithmetic_rules.definitions((DOCS / "arithmetic.md").read_text())]


def test_rules_have_names_of_their_own():
    """The code and the site name a rule by its letter and number alone."""
    twice = {name for name in RULES if RULES.count(name) > 1}
    assert not twice, f"docs/arithmetic.md has two rules of each of these names: {sorted(twice)}"


def _mentions(text: str) -> set[str]:
    """Return what a text of code names as a rule: rule S1, rules G1 to G3, (W1)."""
    found = re.findall(r"\brules? ((?:[A-Z]\d{1,2}(?:, | and | or | to )?)+)", text)
    return set(re.findall(r"[A-Z]\d{1,2}", " ".join(found)))


def test_rules_that_are_named_exist():
    """A rule that code or a document cites stands in docs/arithmetic.md."""
    folders = [ROOT / name for name in ("include", "src", "python", "tests")]
    paths = [path for folder in folders for path in folder.rglob("*") if path.is_file()]
    bad = []
    for path in [*paths, *DOCUMENTS]:
        if path.suffix not in {".h", ".cc", ".cu", ".inc", ".py", ".md"}:
            continue
        text = path.read_text()
        named = _mentions(re.sub(r"\n\s*(?://|#|\*)? *", " ", text))
        if path in DOCUMENTS:
            named |= set(arithmetic_rules.RULE_NAME.findall(re.sub(r"`[^`]*`", "", _prose(path))))
        bad += [f"{path.relative_to(ROOT)}: {name}" for name in sorted(named - set(RULES))]
    assert not bad, "docs/arithmetic.md has no such rule:\n" + "\n".join(bad)


# ---- The package -------------------------------------------------------------------------------

_SHOWN = re.compile(
    r"(?m)^\.\. (?:autofunction|autoclass|autoexception|automodule|py:data):: (\S+)"
)


@functools.cache
def _shown() -> set[str]:
    """Return the names that the pages of the package show."""
    pages = (DOCS / "api").glob("*.md")
    return {name for page in pages for name in _SHOWN.findall(page.read_text())}


def _public(name: str) -> list[str]:
    """Return the public names of a module of the package."""
    module = getattr(bitfold, name)
    names = getattr(module, "__all__", None)
    if names is None:  # fpx, which says it by underscores and by where a name is from
        names = [
            key
            for key, value in vars(module).items()
            if not key.startswith("_") and getattr(value, "__module__", "") == module.__name__
        ]
    return [f"bitfold.{name}.{key}" for key in names]


MODULES = [name for name in bitfold.__all__ if inspect.ismodule(getattr(bitfold, name))]


def _is_there(name: str) -> bool:
    """Whether the package has a name, as bitfold.ops.add."""
    value = bitfold
    for part in name.split(".")[1:]:
        value = getattr(value, part, None)
    return value is not None


def test_no_public_name_is_missing():
    """Every public name of the package has an entry on a page of docs/api."""
    public = {f"bitfold.{name}" for name in bitfold.__all__}
    # The module that the runtime generates has a page of its own.
    assert "`bitfold.raw_ops`" in (DOCS / "api" / "raw_ops.md").read_text()
    public -= {"bitfold.raw_ops"}
    for name in MODULES:
        if name != "raw_ops":
            public |= set(_public(name))
    missing = sorted(public - _shown())
    assert not missing, f"show these on a page of docs/api: {', '.join(missing)}"


def test_pages_show_what_is_there():
    """No page shows a name that the package no longer has."""
    bad = [name for name in _shown() if not _is_there(name)]
    assert not bad, f"pages of docs/api show what the package has not: {', '.join(sorted(bad))}"


def test_documents_name_what_is_there():
    """What a document calls `bitfold.something` is in the package."""
    bad = []
    for path in DOCUMENTS:
        # Loggers have names, too.
        for name in re.findall(r"(?<!logger )`(bitfold(?:\.\w+)+)[`(]", _prose(path)):
            if not _is_there(name):
                bad.append(f"{path.relative_to(ROOT)}: {name}")
    assert not bad, "the package has no such name:\n" + "\n".join(bad)


def test_every_c_header_is_shown():
    """Every header that C programs can include has its part of docs/api/c.md."""
    headers = {
        path.name
        for path in (pathlib.Path(bitfold.include_dir()) / "bitfold").glob("*.h")
        if 'extern "C" {' in path.read_text()
    }
    shown = re.findall(r"(?m)^\.\. doxygenfile:: (\S+)", (DOCS / "api" / "c.md").read_text())
    assert headers == set(shown), "show each installed C header in docs/api/c.md, and no others"


def test_every_op_is_in_the_table_of_ops():
    """The overview of the ops names every function of bitfold.ops."""
    overview = (DOCS / "api" / "ops.md").read_text()
    missing = [name for name in bitfold.ops.__all__ if f"`bitfold.ops.{name}`" not in overview]
    assert not missing, f"give each of these a row in docs/api/ops.md: {', '.join(missing)}"
