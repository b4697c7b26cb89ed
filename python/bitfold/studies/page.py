# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Findings as a page: one file, without scripts and without anything from elsewhere."""

from __future__ import annotations

import dataclasses
import html as markup
from collections.abc import Iterator

from bitfold.studies import cause_rows, curves, pictures, rows, sentences, words
from bitfold.studies import page_parts as parts
from bitfold.studies.page_style import CSS
from bitfold.studies.records import Findings, Result
from bitfold.studies.series import Series, all_series, describe, is_mixture, other_results

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

    Example:
        >>> from bitfold.studies import page
        >>> from bitfold.studies.records import Findings
        >>> text = page.html(Findings("network", 1, None, None, None, (), {}))
        >>> text.splitlines()[0]
        '<!DOCTYPE html>'
    """
    sections = [section for section in _sections(findings) if section.content]
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
        parts.facts(rows.overview(findings)),
        *parts.came_out(sentences.overall(findings)),
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
            *section.content,
            "</section>",
        ]
    return "\n".join((*lines, "</main>", "</body>", "</html>")) + "\n"


@dataclasses.dataclass(frozen=True)
class _Section:
    name: str
    title: str
    content: tuple[str, ...]


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
    yield parts.paragraph(
        f"Each curve is the {name} of the network with all accumulators of one width. Where it "
        "leaves the line of full width, accumulators have become too narrow; a shift makes "
        "sums smaller and costs a little precision of each product."
    )
    every = all_series(findings)
    said = [sentence for series in every for sentence in sentences.accuracy(findings, series)]
    said += sentences.shifts(findings, every)
    yield from parts.came_out(said)
    yield parts.figure(picture, f"{name} by accumulator width", " ".join(said))
    yield parts.details("The numbers, for each arithmetic", [rows.results(findings)])


def _wrong(findings: Findings) -> Iterator[str]:
    if not findings.results or not findings.layers:
        return
    yield parts.paragraph(
        "A cell is a layer in an accumulator; its colour is the share of the layer's sums that "
        "are wrong. On the left each layer alone, fed by the full-width run; on the right all "
        "layers together. A layer with many on the left wants a wider accumulator or a shift; "
        "one that has more on the right suffers from what the layers before it hand on."
    )
    every = all_series(findings)
    for index, series in enumerate(every):
        columns = list(zip(map(str, series.widths), series.results, strict=True))
        picture = pictures.wrong_sums(f"wrong-{index}", columns, "accumulator [bits]")
        said = sentences.wrong(findings, series)
        tables = [rows.wrong_by_width(series, is_alone) for is_alone in (True, False)]
        described = parts.described(
            picture, f"Wrong sums by layer and width, {series.name}", said, tables
        )
        yield from parts.folded(f"The same with {series.name}", described, is_open=not index)
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
    described = parts.described(picture, "Wrong sums by layer in other arithmetics", said, tables)
    yield from parts.folded(
        "Mixtures and other arithmetics", described, is_open=not all_series(findings)
    )


def _bits(findings: Findings) -> Iterator[str]:
    yield parts.paragraph(
        "Each row is a layer at full width. The line goes from the bits that its sums needed "
        "on this data to the bits that are proven for any data: between them lies what only "
        "measurement can tell. A signed number of 8 bits goes from -128 to 127."
    )
    said = sentences.bits(findings)
    tables = [rows.layers(findings)] if findings.layers else []
    channels = rows.channels(findings)
    tables += [channels] if channels.rows else []
    yield from parts.described(pictures.bits(findings), "Bits by layer", said, tables)


def _attributions(findings: Findings) -> Iterator[str]:
    if not findings.attributions:
        return
    yield parts.paragraph(
        "On the way from the float model to an arithmetic one cause after the other is "
        "switched on, with all before it. The further right a mark, the nearer the layer's "
        "output is to the float model's: 20 dB are an error of a tenth, 40 dB of a hundredth. "
        "Between two curves lies what one cause costs."
    )
    if len(findings.attributions) > 1:
        yield parts.scrolled(cause_rows.summary(findings))
    for index, found in enumerate(findings.attributions):
        name = words.printable(found.name)
        said = sentences.causes(findings, found)
        picture = pictures.attribution(f"causes-{index}", findings, found)
        tables = [rows.causes(findings, found), rows.signal_to_error(findings, found)]
        title = f"Signal to error by layer, up to {name}"
        described = parts.described(picture, title, said, tables)
        if not index:
            yield f"<h3>{markup.escape(name)}</h3>"
        yield from parts.folded(name, described, is_open=not index)


def _searches(findings: Findings) -> Iterator[str]:
    if not findings.searches:
        return
    yield parts.paragraph(
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
        yield from parts.described(picture, title, said, tables)


def _arithmetics(findings: Findings) -> Iterator[str]:
    lines = [*map(_of_series, all_series(findings)), *map(_of_result, other_results(findings))]
    if lines:
        yield parts.paragraph("Studied beside full width, which is exact:")
        items = (
            f"<li>{markup.escape(words.printable(name))}: <code>{markup.escape(what)}</code></li>"
            for name, what in lines
        )
        yield f"<ul>{''.join(items)}</ul>"
    if findings.versions:
        yield parts.scrolled(rows.versions(findings))
    yield parts.paragraph(f"The measurements took {words.seconds(findings.seconds)}.")


def _of_series(series: Series) -> tuple[str, str]:
    """Return a series' name, and its arithmetic as one would write it."""
    common = dataclasses.replace(series.results[0].arithmetic, accumulator_size=None)
    others = repr(common).removeprefix("Arithmetic(").removesuffix(")")
    widths = words.listed([str(width) for width in series.widths])
    what = ", ".join(filter(None, ("accumulator_size=w", others)))
    return series.name, f"Arithmetic({what}) for w = {widths}"


def _of_result(result: Result) -> tuple[str, str]:
    if not is_mixture(result):
        return result.name, repr(result.arithmetic)
    kinds = {describe(layer.arithmetic) for layer in result.layers}
    return result.name, f"by layer: {words.listed(sorted(kinds)) or 'none'}"


def _words() -> str:
    entries = (f"<dt>{term}</dt><dd>{markup.escape(text)}</dd>" for term, text in _WORDS)
    return f'<dl class="words">{"".join(entries)}</dl>'
