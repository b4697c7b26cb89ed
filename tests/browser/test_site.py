# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The documentation site in a browser: what `make docs` built, page by page.

Links are followed in the files; widths, colours and what is loaded are asked of the browser. What
it showed lies in build/browser.
"""

from __future__ import annotations

import functools
import html.parser
import pathlib
import urllib.parse

import chromium
import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SITE = ROOT / "build" / "docs" / "html"
PAGES = sorted(path.relative_to(SITE).as_posix() for path in SITE.rglob("*.html"))
# Wide enough for three columns; the same with two; a telephone.
WIDTHS = (1440, 1000, 360)
# What stands out of the page to the right, and does not scroll by itself.
_TOO_WIDE = """(() => {
  const ways = ["auto", "scroll", "hidden"];
  const scrolls = e => !e.matches(".content") &&
    (ways.includes(getComputedStyle(e).overflowX) || scrolls(e.parentElement));
  return [...document.querySelectorAll(".content *")]
    .filter(e => e.getBoundingClientRect().right > document.documentElement.clientWidth + 1)
    .filter(e => e.getClientRects().length && !scrolls(e))
    .map(e => e.tagName + "." + e.className).slice(0, 5);
})()"""
_PICTURES = "[...document.images].filter(i => !i.complete || !i.naturalWidth).map(i => i.src)"
# Light on dark in the dark, dark on light in the light: how much lighter text is than the page.
_CONTRAST = """(() => {
  const light = c => c.match(/[\\d.]+/g).slice(0, 3).reduce((sum, v) => sum + Number(v), 0) / 765;
  const style = getComputedStyle(document.body);
  return light(style.color) - light(style.backgroundColor);
})()"""


class _Parts(html.parser.HTMLParser):
    """The anchors of a page, and where its links lead."""

    def __init__(self) -> None:
        super().__init__()
        self.anchors: set[str] = set()
        self.targets: list[str] = []
        self.loaded: list[str] = []

    def handle_starttag(self, tag: str, attributes: list[tuple[str, str | None]]) -> None:
        """Keep what a tag says of links."""
        found = dict(attributes)
        self.anchors |= {found[key] or "" for key in ("id", "name") if key in found}
        if tag == "a" and found.get("href"):
            self.targets.append(found["href"] or "")
        if tag in ("img", "script", "link") and (found.get("src") or found.get("href")):
            self.loaded.append(found.get("src") or found.get("href") or "")


@functools.cache
def _parts(page: pathlib.Path) -> _Parts:
    parts = _Parts()
    parts.feed(page.read_text())
    return parts


def test_there_is_a_site():
    """`make docs` built pages."""
    assert len(PAGES) > 20, "build the site first: make docs"


@pytest.mark.parametrize("name", PAGES)
def test_links(name):
    """Every link within the site leads to a file, and its anchor to a place there."""
    page = SITE / name
    bad = []
    for target in _parts(page).targets:
        link = urllib.parse.urlparse(target)
        if link.scheme:
            continue
        file = page.parent / urllib.parse.unquote(link.path) if link.path else page
        anchor = urllib.parse.unquote(link.fragment)
        is_page = file.exists() and file.suffix == ".html" and bool(anchor)
        if not file.exists() or (is_page and anchor not in _parts(file.resolve()).anchors):
            bad.append(target)
    assert not bad


@pytest.mark.parametrize("name", PAGES)
def test_nothing_comes_from_elsewhere(name):
    """Scripts, styles and pictures are files of the site."""
    assert not [target for target in _parts(SITE / name).loaded if "//" in target]


@pytest.fixture(scope="module")
def profile(tmp_path_factory):
    """Return a folder for browsers' settings."""
    return tmp_path_factory.mktemp("profile")


@pytest.mark.parametrize("name", [name for name in PAGES if name != "search.html"])
def test_page(name, profile):
    """A page fits every screen, in light and dark, with all of its pictures and without errors."""
    pictures = ROOT / "build" / "browser" / "site"
    pictures.mkdir(parents=True, exist_ok=True)
    page = chromium.Page(SITE / name, profile)
    try:
        stem = name.removesuffix(".html").replace("/", "_")
        for width in WIDTHS:
            page.show(width)
            assert page.evaluate(_TOO_WIDE) == [], f"wider than {width} pixels"
        assert page.evaluate(_PICTURES) == []
        for scheme, sign in (("light", -1), ("dark", 1)):
            page.show(WIDTHS[1], scheme)
            assert page.evaluate(_CONTRAST) * sign > 0.5, f"no contrast in the {scheme}"
            page.picture(pictures / f"{stem}-{scheme}.png")
        errors = [
            event["params"]["entry"]["text"]
            for event in page.events
            if event.get("method") == "Log.entryAdded"
            and event["params"]["entry"]["level"] == "error"
        ]
        assert errors == []
    finally:
        page.close()
