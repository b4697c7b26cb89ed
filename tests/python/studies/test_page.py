# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The page of a report: whole, alone, readable by eyes and ears, and always the same."""

from __future__ import annotations

import dataclasses
import functools
import html.parser
import math
import re
import sys
import xml.etree.ElementTree as ElementTree

import made_findings
import pytest

from bitfold.network import Arithmetic
from bitfold.studies import curves, page, pictures, words
from bitfold.studies.records import Attribution, Cause, Findings, Narrowest, Result


def _without_labels() -> Findings:
    findings = made_findings.small()
    blind = tuple(dataclasses.replace(result, metric=None) for result in findings.results)
    attributions = tuple(
        Attribution(a.name, tuple(dataclasses.replace(c, metric=None) for c in a.causes))
        for a in findings.attributions
    )
    return dataclasses.replace(
        findings,
        metric_name=None,
        metric=None,
        float_metric=None,
        results=blind,
        attributions=attributions,
        searches=(),
    )


def _odd() -> Findings:
    """Results without layers, a search without choices, ratios that are no numbers."""
    findings = made_findings.small()
    first = findings.layers[0].name
    strange = {first: math.nan, "unknown": 3.0, findings.layers[1].name: -math.inf}
    causes = (Cause("quantisation", math.nan, strange), Cause("accumulator", 0.5, {}))
    return dataclasses.replace(
        findings,
        results=(Result("nothing", Arithmetic(accumulator_size=1), math.nan, ()),),
        attributions=(Attribution("nothing", causes), Attribution("empty", ())),
        searches=(Narrowest(0.1, 0.9, 0.9, (), 0, 0.0),),
    )


def _mixtures_alone() -> Findings:
    findings = made_findings.small()
    return dataclasses.replace(findings, results=findings.results[-2:], searches=())


def _uneven() -> Findings:
    """A result that knows a layer less than the others, and one of a layer that is not listed."""
    findings = made_findings.small()
    first, second, *rest = findings.results
    less = dataclasses.replace(second, layers=second.layers[1:])
    strange = dataclasses.replace(rest[0].layers[0], name="unlisted")
    more = dataclasses.replace(rest[0], layers=(strange, *rest[0].layers[1:]))
    return dataclasses.replace(findings, results=(first, less, more, *rest[1:]))


MADE = {
    "uneven": _uneven,
    "small": made_findings.small,
    "large": made_findings.large,
    "hostile": made_findings.hostile,
    "one layer": made_findings.bare,
    "no layer": lambda: made_findings.bare(0),
    "without labels": _without_labels,
    "odd": _odd,
    "one width": made_findings.single,
    "mixtures alone": _mixtures_alone,
}


@functools.cache
def _page(name: str) -> str:
    return page.html(MADE[name]())


_VOID = {"meta", "br", "hr", "img", "input", "link"}


class _Outline(html.parser.HTMLParser):
    """Checks that tags nest, and collects names, references, headings and texts."""

    def __init__(self) -> None:
        super().__init__()
        self.open: list[str] = []
        self.tags: list[str] = []
        self.attributes: list[tuple[str, str, str | None]] = []
        self.texts: list[str] = []

    def handle_starttag(self, tag, attrs):
        if tag not in _VOID:
            self.open.append(tag)
        self._note(tag, attrs)

    def handle_startendtag(self, tag, attrs):
        self._note(tag, attrs)

    def _note(self, tag, attrs):
        self.tags.append(tag)
        self.attributes += [(tag, name, value) for name, value in attrs]

    def handle_endtag(self, tag):
        assert self.open.pop() == tag, (tag, self.getpos())

    def handle_data(self, data):
        if not {"style", "title"} & set(self.open):
            self.texts.append(data)

    def values(self, name: str) -> list[str]:
        return [value for _, key, value in self.attributes if key == name]


@functools.cache
def _outline(name: str) -> _Outline:
    parser = _Outline()
    parser.feed(_page(name))
    parser.close()
    assert not parser.open
    return parser


@pytest.mark.parametrize("name", MADE)
def test_the_same_findings_give_the_same_page(name):
    """Byte for byte, so that reports can be compared."""
    assert page.html(MADE[name]()) == _page(name)
    _page(name).encode("utf-8")


@pytest.mark.parametrize("name", MADE)
def test_is_well_formed(name):
    """Tags nest, names are given once, and what is referred to is there."""
    outline = _outline(name)
    names = outline.values("id")
    assert len(names) == len(set(names))
    referred = {value.removeprefix("#") for value in outline.values("href")}
    referred |= set(outline.values("aria-labelledby"))
    referred |= set(re.findall(r"url\(#([^)]+)\)", _page(name)))
    assert referred <= set(names)


@pytest.mark.parametrize("name", MADE)
def test_nothing_comes_from_elsewhere(name):
    """No script, no handler, no address, no file: one page that stands alone."""
    outline = _outline(name)
    loaders = {"script", "iframe", "object", "embed", "link", "img", "base", "form", "image"}
    assert not loaders & set(outline.tags)
    assert not [key for _, key, _ in outline.attributes if key.startswith("on") or key == "src"]
    assert all(value.startswith("#") for value in outline.values("href"))
    (style,) = re.findall(r"<style>(.*?)</style>", _page(name), re.DOTALL)
    assert "url(" not in style
    assert "@import" not in style
    # Texts may hold addresses; attributes and style may not.
    inside = " ".join(value or "" for _, _, value in outline.attributes) + style
    assert "://" not in inside


@pytest.mark.parametrize("name", MADE)
def test_pictures_are_well_formed(name):
    """Each is XML of its own, drawn in the page's colours, and says what it shows."""
    drawings = re.findall(r"<svg .*?</svg>", _page(name), re.DOTALL)
    marks = [text for text in drawings if 'aria-hidden="true"' in text]
    shown = [text for text in drawings if text not in marks]
    for text in drawings:
        root = ElementTree.fromstring(text)
        colours = re.findall(r"(?:fill|stroke)(?:=\"|: )([^\";]+)", text)
        assert all(colour.startswith(("var(--", "none")) for colour in colours), set(colours)
        if text in shown:
            assert root.get("role") == "img"
            assert root.get("aria-label")
            assert root.find("desc") is None or root.find("desc").text
    wide = [text for text in shown if 'class="wide"' in text]
    assert 2 * len(wide) == len(shown)


def test_colours_are_known():
    """Every variable that is used is set, for light and for dark."""
    text = _page("large")
    (style,) = re.findall(r"<style>(.*?)</style>", text, re.DOTALL)
    used = set(re.findall(r"var\((--[\w-]+)\)", text))
    light, dark = style.split("@media screen and (prefers-color-scheme: dark)", 1)
    assert used == set(re.findall(r"(--[\w-]+):", light))
    assert used == set(re.findall(r"(--[\w-]+):", dark.split("}", 1)[0]))


@pytest.mark.parametrize("name", ["small", "large", "hostile", "one layer", "without labels"])
def test_every_layer_is_in_it(name):
    """In the tables by its whole name, and in each picture as a row."""
    findings, outline = MADE[name](), _outline(name)
    for layer in findings.layers:
        assert words.printable(layer.name) in outline.texts
    for text in re.findall(r'<svg [^>]*role="img".*?</svg>', _page(name), re.DOTALL):
        if 'aria-label="accuracy' not in text:
            assert text.count("text-anchor: end; fill: var(--ink)") >= len(findings.layers)


@pytest.mark.parametrize("name", ["small", "large"])
def test_every_result_is_in_it(name):
    """By name, with its metric, and in the list of arithmetics."""
    findings, outline = MADE[name](), _outline(name)
    for result in findings.results:
        assert result.name in outline.texts
        assert f"{100 * result.metric:.2f}%" in outline.texts
    assert "Arithmetic(accumulator_size=w, mult_shift=2) for w = 14" in " ".join(outline.texts)
    assert "2.21.0" in outline.texts


def test_says_what_came_out():
    """The sentences have the findings' own numbers."""
    text = " ".join(_outline("small").texts)
    assert "block_1_project needs 19 bits; at 16 bits with no shift, 9.0% of its sums" in text
    assert "With no shift, 19 bits keep the accuracy within 0.5 percentage points" in text
    assert "The most is lost by the accumulator: the accelerator's numerics" in text
    assert "1 of 9 widths hold by proof" in text


@pytest.mark.parametrize("name", MADE)
def test_no_number_is_none(name):
    """What has no number is said in words."""
    said = " ".join(_outline(name).texts)
    assert not re.search(r"\b(nan|inf|None|NaN)\b", said)


def test_names_are_escaped():
    """A name is text wherever it stands."""
    text = _page("hostile")
    assert "<script" not in text.lower()
    assert text.count("</style>") == 1
    assert "&lt;script&gt;alert(" in text
    assert not [c for c in text if not c.isprintable() and c != "\n"]


def test_tables_can_be_read_aloud():
    """Every table has a caption and headings with their scope; frames that scroll have names."""
    text = _page("small")
    for table in re.findall(r"<table>.*?</table>", text, re.DOTALL):
        assert table.count("<caption>") == 1
        assert all("scope=" in heading for heading in re.findall(r"<th\b[^>]*>", table))
    for frame in re.findall(r'<div class="scroll"[^>]*>', text):
        assert 'role="group"' in frame
        assert 'tabindex="0"' in frame
        assert "aria-label=" in frame


def test_works_without_labels():
    """There is no accuracy to draw; the errors of layers still say which cause is the largest."""
    outline = _outline("without labels")
    text = " ".join(outline.texts)
    assert "width" not in outline.values("id")
    assert "the signal-to-error ratio of the median layer is" in text


def test_nothing_to_draw():
    """Pictures of nothing are None."""
    empty = made_findings.bare(0)
    assert curves.accuracy(empty) is None
    assert pictures.bits(empty) is None
    assert pictures.wrong_sums("key", [], "widths") is None
    assert pictures.attribution("key", empty, Attribution("a", ())) is None


def test_the_users_style_does_not_matter():
    """Settings of matplotlib are neither taken over nor left behind."""
    import matplotlib

    findings = made_findings.small()
    with matplotlib.rc_context({"font.size": 30, "svg.fonttype": "path", "axes.grid": True}):
        assert page.html(findings) == _page("small")
        assert matplotlib.rcParams["font.size"] == 30
        assert matplotlib.rcParams["svg.fonttype"] == "path"


def test_without_matplotlib(monkeypatch):
    """The error names the extra."""
    for name in [name for name in sys.modules if name.partition(".")[0] == "matplotlib"]:
        monkeypatch.delitem(sys.modules, name)
    monkeypatch.setitem(sys.modules, "matplotlib", None)
    with pytest.raises(ImportError, match=r"pip install bitfold\[report\]"):
        page.html(made_findings.small())


def test_several_attributions_begin_with_a_summary():
    """One table of all, then the first with its picture; the others are folded away."""
    findings = made_findings.small()
    text = page.html(findings)
    summary = "What each cause adds on the way from the float model."
    assert text.count(f"<caption>{summary}</caption>") == 1
    assert text.index(summary) < text.index("<h3>16 bits</h3>")
    assert "<summary>18 bits, shift 2</summary>" in text
    one = dataclasses.replace(findings, attributions=findings.attributions[:1])
    assert summary not in page.html(one)
