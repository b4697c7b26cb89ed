# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Makes every mention of a rule of docs/arithmetic.md a link to where the rule stands.

Documents, docstrings and comments of headers name rules in plain words ("rule S1", "G1 to G3"),
which read well anywhere. Here each rule gets an anchor, and each name in running text a link to it.
"""

from __future__ import annotations

import pathlib
import re
from collections.abc import Iterator

import arithmetic_rules
from docutils import nodes
from sphinx import addnodes
from sphinx.application import Sphinx
from sphinx.util import logging

_DOCUMENT = "arithmetic"
_MENTION = re.compile(rf"{arithmetic_rules.RULE_NAME.pattern}|\b[Tt]heorems? (?P<theorem>\d)\b")
_WITHOUT_LINKS = (
    nodes.literal,
    nodes.reference,
    nodes.title,
    nodes.FixedTextElement,
    nodes.raw,
    addnodes.desc_signature,
    addnodes.toctree,
)
_DEFINED = "rule-name"


def _anchor(rule: str) -> str:
    return f"rule-{rule.lower()}"


def _place_anchors(app: Sphinx, doctree: nodes.document) -> None:
    """Give the list item of each rule an anchor, and see that no rule was overlooked."""
    if app.env.docname != _DOCUMENT:
        return
    rules = app.env.bitfold_rules  # type: ignore[attr-defined]
    missing = dict(rules)
    for item in doctree.findall(nodes.list_item):
        name = next(iter(item.findall(nodes.strong)), None)
        match = re.match(r"([A-Z]\d{1,2})\.", name.astext()) if name is not None else None
        if match and match[1] in missing:
            item["ids"].append(_anchor(match[1]))
            item["classes"].append("rule")
            name["classes"].append(_DEFINED)
            del missing[match[1]]
    for rule in missing:
        logging.getLogger(__name__).warning(
            "docs/arithmetic.md has no list item of rule %s, or two rules of this name", rule
        )


def _has_links(node: nodes.Node) -> bool:
    """Whether text may become a link: not in code, in other links, headings and definitions."""
    while node is not None:
        if isinstance(node, _WITHOUT_LINKS):
            return False
        if isinstance(node, nodes.Element) and _DEFINED in node.get("classes", ()):
            return False
        node = node.parent
    return True


def _pieces(text: str, rules: dict[str, str], address: str) -> Iterator[nodes.Node]:
    """Cut a text at the names of rules."""
    end = 0
    for match in _MENTION.finditer(text):
        name = match[0]
        if match["theorem"]:
            anchor, title = f"theorem-{match['theorem']}", ""
        elif name in rules:
            anchor, title = _anchor(name), f"{name}. {rules[name]}".rstrip(". ")
        else:
            continue
        if match.start() > end:
            yield nodes.Text(text[end : match.start()])
        link = nodes.reference("", "", internal=True, refuri=f"{address}#{anchor}")
        link["classes"].append("rule-link")
        if title:
            link["reftitle"] = title
        link += nodes.Text(name)
        yield link
        end = match.end()
    if end < len(text):
        yield nodes.Text(text[end:])


def _link_mentions(app: Sphinx, doctree: nodes.document, docname: str) -> None:
    rules = app.env.bitfold_rules  # type: ignore[attr-defined]
    address = app.builder.get_relative_uri(docname, _DOCUMENT) if docname != _DOCUMENT else ""
    for text in list(doctree.findall(nodes.Text)):
        if _MENTION.search(text) and _has_links(text.parent):
            text.parent.replace(text, list(_pieces(str(text), rules, address)))
    for place in list(doctree.findall(_SectionLink)):
        link = nodes.reference("", "", internal=True, refuri=f"{address}#{place['anchor']}")
        link += place.children
        place.replace_self(link)


class _SectionLink(nodes.inline):
    """Stands for a link to a section of the document until the page's address is known."""


def _section_role(_name, _rawtext, text, *_arguments, **_keywords):
    """Link a section of the document: ``:arithmetic:`HAdd``` or ``:arithmetic:`words <HAdd>```."""
    match = re.fullmatch(r"(.*\S)\s*<(.+)>", text)
    words, title = match.groups() if match else (text, text)
    place = _SectionLink("", "", anchor=title.lower().replace(" ", "-"))
    place += nodes.Text(words)
    return [place], []


def _read_rules(app: Sphinx) -> None:
    text = (pathlib.Path(app.srcdir) / f"{_DOCUMENT}.md").read_text()
    app.env.bitfold_rules = dict(arithmetic_rules.definitions(text))  # type: ignore[attr-defined]


def setup(app: Sphinx) -> dict[str, bool]:
    """Add the extension."""
    app.add_role("arithmetic", _section_role)
    app.connect("builder-inited", _read_rules)
    app.connect("doctree-read", _place_anchors)
    app.connect("doctree-resolved", _link_mentions)
    return {"parallel_read_safe": True, "parallel_write_safe": True}
