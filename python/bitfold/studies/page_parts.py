# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The parts that a report's page is put together from."""

from __future__ import annotations

import html as markup
from collections.abc import Iterator, Sequence

from bitfold.studies.columns import Table
from bitfold.studies.drawing import DASHES, MARKS, KeyEntry, Picture
from bitfold.studies.tables import html_table


def facts(table: Table) -> str:
    """Return a table of facts as tiles, but the first, which is the page's title."""
    items = "\n".join(
        f"<div><dt>{markup.escape(what)}</dt><dd>{markup.escape(value)}</dd></div>"
        for what, value in table.texts()[1:]
    )
    return f'<dl class="facts">{items}</dl>'


def paragraph(text: str) -> str:
    """Return a text as a paragraph."""
    return f"<p>{markup.escape(text)}</p>"


def came_out(texts: Sequence[str]) -> list[str]:
    """Return what a picture comes to: a line for each sentence."""
    if not texts:
        return []
    return [
        '<ul class="result">' + "".join(f"<li>{markup.escape(t)}</li>" for t in texts) + "</ul>"
    ]


def described(
    picture: Picture | None, title: str, said: Sequence[str], tables: Sequence[Table]
) -> list[str]:
    """Return a picture with what it comes to above it and its numbers below."""
    parts = came_out(said)
    if picture is not None:
        parts.append(figure(picture, title, " ".join(said)))
    if tables:
        parts.append(details("The numbers as a table", tables))
    return parts


def folded(title: str, parts: Sequence[str], is_open: bool) -> Iterator[str]:
    """Yield parts, behind their title where they are not open."""
    if is_open:
        yield from parts
    else:
        yield f"<details><summary>{markup.escape(title)}</summary>"
        yield from parts
        yield "</details>"


def figure(picture: Picture, title: str, said: str) -> str:
    """Return a picture in both sizes, of which the page shows one, with its key and caption."""
    drawn = [
        _labelled(svg, size, title, said)
        for size, svg in (("wide", picture.wide), ("narrow", picture.narrow))
    ]
    key = "".join(f"<li>{_swatch(entry)}{markup.escape(entry.text)}</li>" for entry in picture.key)
    caption = markup.escape(f"{title[:1].upper()}{title[1:]}")
    return "\n".join(
        ("<figure>", f"<figcaption>{caption}</figcaption>", f'<ul class="key">{key}</ul>', *drawn,
         "</figure>")
    )  # fmt: skip


def _labelled(svg: str, size: str, title: str, said: str) -> str:
    """Return an SVG that is one picture to who hears the page, not hundreds of texts."""
    start, rest = svg.split(">", 1)
    label = markup.escape(title)
    told = f"<desc>{markup.escape(said)}</desc>" if said else ""
    return f'{start} class="{size}" role="img" aria-label="{label}">{told}{rest}'


def _swatch(entry: KeyEntry) -> str:
    """Return a mark of a key, drawn as in the picture."""
    drawn = ""
    ink = f"var(--{entry.role})"
    if entry.mark == "box":
        drawn = f'<rect x="4" width="16" height="14" rx="2" fill="{ink}"/>'
    if entry.line:
        width, faint = ("4", ' opacity=".4"') if entry.role == "muted" else ("1.8", "")
        dashes = f' stroke-dasharray="{DASHES[entry.line]}"' if DASHES[entry.line] else ""
        drawn += f'<path d="M0 7h24" stroke="{ink}" stroke-width="{width}"{dashes}{faint}/>'
    if entry.mark in MARKS:
        fill = "var(--surface)" if entry.is_hollow else ink
        edge = f' stroke="{ink}" stroke-width="{2.2 if entry.mark == "tick" else 1.4}"'
        drawn += f'<g fill="{fill}"{edge}>{MARKS[entry.mark][1]}</g>'
    return f'<svg viewBox="0 0 24 14" aria-hidden="true">{drawn}</svg>'


def details(title: str, tables: Sequence[Table]) -> str:
    """Return tables behind a title."""
    inside = "\n".join(map(scrolled, tables))
    return f"<details><summary>{markup.escape(title)}</summary>\n{inside}\n</details>"


def scrolled(table: Table) -> str:
    """Return a table that moves in a frame of its own where it is wider than the page."""
    label = markup.escape(table.caption)
    return (
        f'<div class="scroll" role="group" tabindex="0" aria-label="{label}">\n'
        f"{html_table(table)}\n</div>"
    )
