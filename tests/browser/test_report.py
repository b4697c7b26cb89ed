# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Reports in a real browser: on screens of several widths, light and dark, on paper, aloud.

What the browser showed lies in build/browser, for people to look at.
"""

from __future__ import annotations

import pathlib

import made_findings
import numpy as np
import pytest
from chromium import Page

from bitfold.studies import page

ROOT = pathlib.Path(__file__).resolve().parents[2]

WIDTHS = (320, 390, 768, 1280)
MADE = {
    "small": made_findings.small,
    "large": made_findings.large,
    "hostile": made_findings.hostile,
    "bare": made_findings.bare,
    "empty": lambda: made_findings.bare(0),
}

# What is seen of a picture: the browser does not lay out the variant that is hidden.
_PICTURES = """[...document.querySelectorAll('svg[role=img]')]
    .filter(svg => svg.checkVisibility() && svg.getBoundingClientRect().width)"""
_OPEN = "document.querySelectorAll('details').forEach(details => { details.open = true; })"


@pytest.fixture(scope="module", params=MADE)
def shown(request, tmp_path_factory):
    """A report in a browser, with all that folds open."""
    folder = ROOT / "build" / "browser"
    folder.mkdir(parents=True, exist_ok=True)
    file = folder / f"{request.param}.html"
    file.write_text(page.html(MADE[request.param]()), encoding="utf-8")
    opened = Page(file, tmp_path_factory.mktemp("profile"))
    opened.show(1280)
    opened.picture(file.with_suffix(".png"))
    opened.evaluate(_OPEN)
    yield opened, file
    opened.close()


def test_nothing_is_loaded_and_nothing_goes_wrong(shown):
    """The browser asks for the file alone and has no complaint."""
    opened, file = shown
    sent = [e for e in opened.events if e.get("method") == "Network.requestWillBeSent"]
    assert {event["params"]["request"]["url"] for event in sent} == {file.as_uri()}
    said = ("Log.entryAdded", "Runtime.exceptionThrown", "Runtime.consoleAPICalled")
    assert not [event for event in opened.events if event.get("method") in said]


@pytest.mark.parametrize("width", WIDTHS)
def test_nothing_is_wider_than_the_screen(shown, width):
    """Nobody scrolls sideways, but for tables in frames of their own."""
    opened, _ = shown
    opened.show(width)
    assert opened.evaluate("document.documentElement.scrollWidth") == width
    wide = opened.evaluate(
        f"""[...document.querySelectorAll('body *')]
        .filter(e => !e.closest('.scroll table') && !e.closest('svg') && e.checkVisibility())
        .filter(e => e.getBoundingClientRect().right > {width} + 0.5
            || e.scrollWidth > e.clientWidth + 1 && !e.matches('.scroll') && e.clientWidth)
        .map(e => e.tagName + ' ' + e.textContent.slice(0, 40))"""
    )
    assert wide == []


@pytest.mark.parametrize("width", WIDTHS)
def test_texts_of_pictures_are_whole(shown, width):
    """Texts lie inside their picture, are large enough to be read and do not meet."""
    opened, _ = shown
    opened.show(width)
    found = opened.evaluate(
        f"""{_PICTURES}.flatMap(svg => {{
        const frame = svg.getBoundingClientRect();
        const texts = [...svg.querySelectorAll('text')].filter(t => t.textContent.trim());
        const boxes = texts.map(t => t.getBoundingClientRect());
        const bad = [];
        boxes.forEach((b, i) => {{
            const where = svg.getAttribute('aria-label') + ': ' + texts[i].textContent;
            if (b.left < frame.left - 1 || b.right > frame.right + 1
                || b.top < frame.top - 1 || b.bottom > frame.bottom + 1) bad.push('out ' + where);
            if (b.height < 9.5) bad.push('small ' + where);
            for (let j = 0; j < i; j++) {{
                const c = boxes[j];
                if (Math.min(b.right, c.right) - Math.max(b.left, c.left) > 0.5
                    && Math.min(b.bottom, c.bottom) - Math.max(b.top, c.top) > 4)
                    bad.push('meet ' + where + ' and ' + texts[j].textContent);
            }}
        }});
        return bad;
        }})"""
    )
    assert found == []


@pytest.mark.parametrize("scheme", ["light", "dark"])
@pytest.mark.parametrize("width", [390, 1280])
def test_pictures_are_not_blank(shown, width, scheme):
    """Each picture shows several colours on the page's own, which is that of the scheme."""
    opened, file = shown
    opened.show(width, scheme)
    pixels = opened.picture(file.with_name(f"{file.stem}-{width}-{scheme}.png"))
    assert pixels.shape[1] == width
    background = pixels[2, 2]
    assert (background.mean() < 60) == (scheme == "dark")
    places = opened.evaluate(
        f"""{_PICTURES}.map(svg => {{
        const b = svg.getBoundingClientRect();
        return [b.left, b.top + scrollY, b.right, b.bottom + scrollY].map(Math.round);
        }})"""
    )
    expected = {"empty": 0, "bare": 1}.get(file.stem)
    assert len(places) == expected if expected is not None else len(places) >= 6
    for left, top, right, bottom in places:
        inside = pixels[top:bottom, left:right].reshape(-1, 3).astype(int)
        other = inside[np.abs(inside - background).max(axis=1) > 24]
        assert len(other) > 0.004 * len(inside)
        colourful = other[np.ptp(other, axis=1) > 60]
        assert len(colourful) > 20
        assert len(np.unique(inside, axis=0)) > 16


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_texts_have_contrast(shown, scheme):
    """Every text is at least 4.5 times as light, or as dark, as what is behind it."""
    opened, _ = shown
    opened.show(1280, scheme)
    found = opened.evaluate(
        """(() => {
        const numbers = c => c.match(/[\\d.]+/g).map(Number);
        const light = c => {
            const [r, g, b] = numbers(c).map(v => v / 255)
                .map(v => v <= 0.04045 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4);
            return 0.2126 * r + 0.7152 * g + 0.0722 * b;
        };
        const behind = e => {
            for (; e; e = e.parentElement) {
                const c = getComputedStyle(e).backgroundColor;
                if (numbers(c).length < 4 || numbers(c)[3] > 0) return c;
            }
        };
        const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
        const bad = new Set();
        for (let node; (node = walker.nextNode());) {
            const e = node.parentElement;
            if (!node.data.trim() || !e.checkVisibility() || e.matches('desc')) continue;
            const style = getComputedStyle(e);
            const [a, b] = [light(e.matches('text') ? style.fill : style.color), light(behind(e))];
            const ratio = (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
            if (ratio < 4.5) bad.add(node.data.slice(0, 30) + ' ' + ratio.toFixed(1));
        }
        return [...bad];
        })()"""
    )
    assert found == []


def test_is_heard_once(shown):
    """Who hears the page hears of each picture once, by its name, and not its texts."""
    opened, _ = shown
    opened.show(1280)
    tree = opened.call("Accessibility.getFullAXTree")["nodes"]
    spoken = [n for n in tree if not n.get("ignored")]
    pictures = [n["name"]["value"] for n in spoken if n["role"]["value"] == "image"]
    labels = opened.evaluate(f"{_PICTURES}.map(svg => svg.getAttribute('aria-label'))")
    assert sorted(pictures) == sorted(labels)
    assert len(set(pictures)) == len(pictures)
    for table in (n for n in spoken if n["role"]["value"] == "table"):
        assert table["name"]["value"]


def test_prints(shown):
    """On paper all is open, light, and in the wide form."""
    opened, file = shown
    opened.evaluate("document.querySelectorAll('details').forEach(d => { d.open = false; })")
    opened.show(760, "dark", "print")
    assert (
        opened.evaluate("getComputedStyle(document.body).backgroundColor") == "rgb(255, 255, 255)"
    )
    closed = opened.evaluate(
        "[...document.querySelectorAll('table')].filter(t => !t.checkVisibility()).length"
    )
    assert closed == 0
    shown_as = opened.evaluate(f"{_PICTURES}.map(svg => svg.getAttribute('class'))")
    assert set(shown_as) <= {"wide"}
    assert opened.printed(file.with_suffix(".pdf")).startswith(b"%PDF")
    opened.evaluate(_OPEN)
