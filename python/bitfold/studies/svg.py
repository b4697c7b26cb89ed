# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""SVG files of matplotlib as parts of a page."""

from __future__ import annotations

import re
import xml.etree.ElementTree as ElementTree
from collections.abc import Mapping

_COLOUR = re.compile(r"#[0-9a-f]{6}")
_LONG_NUMBER = re.compile(r"-?\d+\.\d{3,}")
_NUMBERS = {"d", "x", "y", "width", "height", "transform"}
_REFERENCE = re.compile(r"#([\w.-]+)")


def for_page(svg: bytes, key: str, colours: Mapping[str, str]) -> str:
    """Return an SVG as a part of a page, without what a page cannot hold or already has.

    Args:
        svg: a file of matplotlib's.
        key: what the names of its parts begin with, which are the page's, too.
        colours: what stands in a colour's place, by the colour.
    """
    root = ElementTree.fromstring(svg)
    whole = ElementTree.tostring(root, "unicode")
    used = set(re.findall(r'href="#([^"]+)"|url\(#([^)]+)\)', whole))
    names = {name for pair in used for name in pair if name}
    for parent in list(root.iter()):
        for child in list(parent):
            if child.tag.endswith("}style") or child.tag.endswith("}metadata"):
                parent.remove(child)
    for element in root.iter():
        element.tag = element.tag.rpartition("}")[2]
        if element.tag != "text":
            element.text = None
        element.tail = None
        attributes = dict(element.attrib)
        element.attrib.clear()
        for name, value in attributes.items():
            _set(element, name.rpartition("}")[2], value, key, names, colours)
    _unwrap(root)
    root.attrib.clear()
    width, height = (svg.split(b'viewBox="0 0 ')[1].split(b'"')[0]).decode().split()
    root.set("viewBox", f"0 0 {_rounded(width)} {_rounded(height)}")
    return ElementTree.tostring(root, "unicode", short_empty_elements=True)


def _unwrap(element: ElementTree.Element) -> None:
    """Put the content of groups that say nothing in their place."""
    children = []
    for child in element:
        _unwrap(child)
        is_idle = child.tag in ("g", "defs") and not child.attrib
        children += list(child) if is_idle and (child.tag == "g" or not len(child)) else [child]
    element[:] = children


def _set(
    element: ElementTree.Element,
    name: str,
    value: str,
    key: str,
    names: set[str],
    colours: Mapping[str, str],
) -> None:
    """Set an attribute as the page has it."""
    if name == "id":
        if value not in names:
            return
        value = f"{key}-{value}"
    elif name in ("href", "clip-path"):
        value = _REFERENCE.sub(rf"#{key}-\1", value)
    elif name == "style":
        value = re.sub(r"font-family: [^;]*;? ?", "", value)
        value = _COLOUR.sub(lambda found: colours.get(found.group(), found.group()), value)
    elif name == "transform" and value.startswith("rotate(-0 "):
        return
    if name in _NUMBERS:
        value = _LONG_NUMBER.sub(lambda found: _rounded(found.group()), value).replace("\n", "")
    element.set(name, value)


def _rounded(text: str) -> str:
    return f"{float(text):.2f}".rstrip("0").rstrip(".")
