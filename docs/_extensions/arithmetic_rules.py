# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What docs/arithmetic.md numbers: its rules, and the sections that say what an op computes."""

from __future__ import annotations

import dataclasses
import re

RULE_NAME = re.compile(r"\b[A-Z]\d{1,2}\b")
"""What may be a rule's name; it is one if the document defines it."""

_DEFINITION = re.compile(r"(?m)^- \*\*([A-Z]\d{1,2})\.\s*([^*]*?)[.,]?\*\*")
_SECTION = re.compile(r"(?m)^## (.+)$")


@dataclasses.dataclass(frozen=True)
class Section:
    """What a section says of ops.

    Attributes:
        title: its heading.
        ops: the registered names of the ops that it defines.
        rules: the rules that it defines or names, its own first.
        others: the ops of other sections by which it says what it computes.
    """

    title: str
    ops: tuple[str, ...]
    rules: tuple[str, ...]
    others: tuple[str, ...]


def definitions(text: str) -> list[tuple[str, str]]:
    """Return name and title of each rule that the document defines, in its order."""
    return [(match[1], " ".join(match[2].split())) for match in _DEFINITION.finditer(text)]


def sections(text: str) -> list[Section]:
    """Return the sections of ops: those that are named after one, or name some as they begin."""
    known = dict(definitions(text))
    pieces = _SECTION.split(text)[1:]
    found = []
    for title, body in zip(pieces[::2], pieces[1::2], strict=True):
        opening = re.split(r"\n\n(?=\S)|\. ", body.strip(), maxsplit=1)[0]
        ops = re.findall(r"`(H[A-Z]\w+)`", opening)
        if not ops and re.fullmatch(r"H[A-Z]\w+", title):
            ops = [title]
        own = [name for name, _ in definitions(body)]
        named = own + [name for name in RULE_NAME.findall(body) if name in known]
        if ops:
            others = [
                name for name in re.findall(r"\bH[A-Z]\w+", body) if name not in (title, *ops)
            ]
            found.append(
                Section(
                    title, tuple(ops), tuple(dict.fromkeys(named)), tuple(dict.fromkeys(others))
                )
            )
    return found
