# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Findings as a page: one file, without scripts and without anything from elsewhere."""

from __future__ import annotations

import dataclasses
import html as markup
from collections.abc import Iterator, Sequence

from bitfold.studies import curves, pictures, rows, sentences, words
from bitfold.studies.drawing import DASHES, MARKS, KeyEntry, Picture
from bitfold.studies.page_style import CSS
from bitfold.studies.records import Findings, Result
from bitfold.studies.rows import Table
from bitfold.studies.series import all_series, describe, is_mixture, other_results
from bitfold.studies.tables import html_table

_WORDS = (
    ("needed", "Bits that hold every final sum that was seen, as signed numbers."),
    ("on the way", "Bits that hold every partial sum, too. A sum may leave the range and come "
     "back: one wrap undoes another."),
    ("proven, any input", "Bits with which no input of the stored type can give a wrong sum; from "
     "the weights and the bias alone."),
    ("proven, inputs as seen", "The same for inputs between the smallest and the largest seen."),
    ("wraps harmless from", "The width from which on no wrap on the way can matter, because every "
     "single addend fits: there the bits needed are enough."),
    ("wrong sum", "One that differs from that of full width for the same inputs, shifted alike."),
    ("right again", "A sum of which a partial sum left the accumulator, and that came out right."),
    ("alone", "Each layer is given what the full-width run gave it: what this layer does."),
    ("end to end", "Each layer is given what the layers before it made in their accumulators. The "
     "wrong sums are those of its own doing on such inputs."),
    ("shift", "By so many bits every product and the bias are shifted right before they are added; "
     "the requantisation takes it back."),
    ("corrected weights", "Stored weights that a unit reads with another sign at this width."),
)  # fmt: skip


def html(findings: Findings) -> str:
    """Return a report of findings as a page of HTML.

    The same findings give the same text.

    Args:
        findings: what a study found.

    Returns:
        A whole document, with its style and its pictures (SVG) inside, without scripts.

    Raises:
        ImportError: without matplotlib.
    """
    sections = [section for section in _sections(findings) if section.parts]
    title = f"{words.printable(findings.title)}: accumulators, layer by layer"
    lines = [
        "<!DOCTYPE html>",
        '<html lang="en">',
        "<head>",
        '<meta charset="utf-8">',
        '<meta name="viewport" content="width=device-width, initial-scale=1">',
        '<meta name="color-scheme" content="light dark">',
        f"<title>{markup.escape(title)}</title>",
        f"<style>{CSS}</style>",
        "</head>",
        "<body>",
        "<header>",
        f"<h1>{markup.escape(title)}</h1>",
        _facts(findings),
        *_came_out(sentences.overall(findings)),
        '<nav aria-label="Contents"><ul>',
        *(f'<li><a href="#{s.name}">{markup.escape(s.title)}</a></li>' for s in sections),
        "</ul></nav>",
        "</header>",
        "<main>",
    ]
    for section in sections:
        lines += [
            f'<section id="{section.name}" aria-labelledby="{section.name}-title">',
            f'<h2 id="{section.name}-title">{markup.escape(section.title)}</h2>',
            *section.parts,
            "</section>",
        ]
    return "\n".join((*lines, "</main>", "</body>", "</html>")) + "\n"


@dataclasses.dataclass(frozen=True)
class _Section:
    name: str
    title: str
    parts: tuple[str, ...]


def _sections(findings: Findings) -> Iterator[_Section]:
    name = words.printable(findings.metric_name or "metric")
    yield _Section("width", f"{name[:1].upper()}{name[1:]} by width", (*_accuracy(findings),))
    yield _Section("wrong", "Where sums go wrong", (*_wrong(findings),))
    yield _Section("bits", "Bits of each layer", (*_bits(findings),))
    yield _Section("causes", "Numerics or conversion", (*_attributions(findings),))
    yield _Section("search", "Narrowest accumulators", (*_searches(findings),))
    yield _Section("arithmetics", "Arithmetics and versions", (*_arithmetics(findings),))
    yield _Section("words", "Words", (_words(),))


# ---- Sections ------------------------------------------------------------------------------------


def _accuracy(findings: Findings) -> Iterator[str]:
    picture = curves.accuracy(findings)
    if picture is None:
        return
    name = words.printable(findings.metric_name or "metric")
    yield _paragraph(
        f"Each curve is the {name} of the network with all accumulators of one width. Where it "
        "leaves the line of full width, accumulators have become too narrow; a shift makes "
        "sums smaller and costs a little precision of each product."
    )
    every = all_series(findings)
    said = [sentence for series in every for sentence in sentences.accuracy(findings, series)]
    said += sentences.shifts(findings, every)
    yield from _came_out(said)
    yield _figure(picture, f"{name} by accumulator width", " ".join(said))
    yield _details("The numbers, for each arithmetic", [rows.results(findings)])


def _wrong(findings: Findings) -> Iterator[str]:
    if not findings.results or not findings.layers:
        return
    yield _paragraph(
        "A cell is a layer in an accumulator; its colour is the share of the layer's sums that "
        "are wrong. On the left each layer alone, fed by the full-width run; on the right all "
        "layers together. A layer that is dark on the left wants a wider accumulator or a "
        "shift; one that is dark only on the right suffers from layers before it."
    )
    every = all_series(findings)
    for index, series in enumerate(every):
        columns = list(zip(map(str, series.widths), series.results, strict=True))
        picture = pictures.wrong_sums(f"wrong-{index}", columns, "accumulator [bits]")
        said = sentences.wrong(findings, series)
        tables = [rows.wrong_by_width(series, is_alone) for is_alone in (True, False)]
        parts = _described(picture, f"Wrong sums by layer and width, {series.name}", said, tables)
        yield from _folded(f"The same with {series.name}", parts, is_open=not index)
    yield from _other_maps(findings)


def _other_maps(findings: Findings) -> Iterator[str]:
    """Yield a map of the results that have no width for all layers, a letter each."""
    others = other_results(findings)
    if not others:
        return
    names = [words.printable(result.name) for result in others]
    columns = [(str(i), result) for i, result in enumerate(others, 1)]
    picture = pictures.wrong_sums("wrong-others", columns, "arithmetic")
    said = [f"The columns are {words.listed([f'{i}: {n}' for i, n in enumerate(names, 1)])}."]
    tables = [rows.counts(result) for result in others]
    parts = _described(picture, "Wrong sums by layer in other arithmetics", said, tables)
    yield from _folded("Mixtures and other arithmetics", parts, is_open=not all_series(findings))


def _bits(findings: Findings) -> Iterator[str]:
    yield _paragraph(
        "Each row is a layer at full width. The line goes from the bits that its sums needed "
        "on this data to the bits that are proven for any data: between them lies what only "
        "measurement can tell. A signed number of 8 bits goes from -128 to 127."
    )
    said = sentences.bits(findings)
    tables = [rows.layers(findings)] if findings.layers else []
    channels = rows.channels(findings)
    tables += [channels] if channels.rows else []
    yield from _described(pictures.bits(findings), "Bits by layer", said, tables)


def _attributions(findings: Findings) -> Iterator[str]:
    if not findings.attributions:
        return
    yield _paragraph(
        "On the way from the float model to an arithmetic one cause after the other is "
        "switched on, with all before it. The further right a mark, the nearer the layer's "
        "output is to the float model's: 20 dB are an error of a tenth, 40 dB of a hundredth. "
        "Between two curves lies what one cause costs."
    )
    for index, found in enumerate(findings.attributions):
        name = words.printable(found.name)
        yield f"<h3>{markup.escape(name)}</h3>"
        said = sentences.causes(findings, found)
        picture = pictures.attribution(f"causes-{index}", findings, found)
        tables = [rows.causes(findings, found), rows.signal_to_error(findings, found)]
        title = f"Signal to error by layer, up to {name}"
        yield from _described(picture, title, said, tables)


def _searches(findings: Findings) -> Iterator[str]:
    if not findings.searches:
        return
    yield _paragraph(
        "The search takes the widths that are proven where they suffice, and else the "
        "narrowest that were measured to keep the loss within the bound. A width below the "
        "bits needed, less the shift, makes some sums wrong, which the network forgives."
    )
    for index, search in enumerate(findings.searches):
        loss = words.difference(findings, search.metric_loss)
        yield f"<h3>{markup.escape(f'At most {loss} lost')}</h3>"
        said = sentences.chosen(findings, search)
        picture = pictures.chosen(f"search-{index}", findings, search)
        tables = [rows.choices(findings, search)]
        title = f"Accumulators chosen by layer, at most {loss} lost"
        yield from _described(picture, title, said, tables)


def _arithmetics(findings: Findings) -> Iterator[str]:
    tables = [rows.versions(findings)] if findings.versions else []
    if findings.results:
        listed = [f"<li>{_arithmetic(result)}</li>" for result in findings.results]
        yield "<p>Studied beside full width, which is exact:</p>"
        yield "<ul>" + "\n".join(listed) + "</ul>"
    yield from map(_scrolled, tables)
    yield _paragraph(f"The measurements took {words.seconds(findings.seconds)}.")


def _arithmetic(result: Result) -> str:
    """Return a result's arithmetic, as one would write it."""
    if is_mixture(result):
        kinds = sorted({describe(layer.arithmetic) for layer in result.layers})
        what = f"by layer: {words.listed(kinds)}"
    else:
        what = repr(result.arithmetic)
    name = words.printable(result.name)
    return f"{markup.escape(name)}: <code>{markup.escape(what)}</code>"


def _words() -> str:
    entries = (f"<dt>{term}</dt><dd>{markup.escape(text)}</dd>" for term, text in _WORDS)
    return f'<dl class="words">{"".join(entries)}</dl>'


# ---- Parts ---------------------------------------------------------------------------------------


def _facts(findings: Findings) -> str:
    table = rows.overview(findings)
    items = "\n".join(
        f"<div><dt>{markup.escape(what)}</dt><dd>{markup.escape(value)}</dd></div>"
        for what, value in table.texts()[1:]
    )
    return f'<dl class="facts">{items}</dl>'


def _paragraph(text: str) -> str:
    return f"<p>{markup.escape(text)}</p>"


def _came_out(texts: Sequence[str]) -> list[str]:
    """Return what a picture comes to: a line for each sentence."""
    if not texts:
        return []
    return [
        '<ul class="result">' + "".join(f"<li>{markup.escape(t)}</li>" for t in texts) + "</ul>"
    ]


def _described(
    picture: Picture | None, title: str, said: Sequence[str], tables: Sequence[Table]
) -> list[str]:
    """Return a picture with what it comes to above it and its numbers below."""
    parts = _came_out(said)
    if picture is not None:
        parts.append(_figure(picture, title, " ".join(said)))
    if tables:
        parts.append(_details("The numbers as a table", tables))
    return parts


def _folded(title: str, parts: Sequence[str], is_open: bool) -> Iterator[str]:
    if is_open:
        yield from parts
    else:
        yield f"<details><summary>{markup.escape(title)}</summary>"
        yield from parts
        yield "</details>"


def _figure(picture: Picture, title: str, said: str) -> str:
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


def _details(title: str, tables: Sequence[Table]) -> str:
    inside = "\n".join(map(_scrolled, tables))
    return f"<details><summary>{markup.escape(title)}</summary>\n{inside}\n</details>"


def _scrolled(table: Table) -> str:
    """Return a table that moves in a frame of its own where it is wider than the page."""
    label = markup.escape(table.caption)
    return (
        f'<div class="scroll" role="region" tabindex="0" aria-label="{label}">\n'
        f"{html_table(table)}\n</div>"
    )
