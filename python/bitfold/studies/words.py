# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Numbers and names as people read them; one place for all that shows findings."""

from __future__ import annotations

import math
from collections.abc import Callable, Mapping
from typing import Any

from bitfold.studies.records import Findings

# Of these metrics 0.5 is half of all, which people call 50%.
_SHARES = ("accuracy", "precision", "recall", "top-", "top_")


def is_percentage(findings: Findings) -> bool:
    """Return whether the metric is a share that is read in percent, not one in percent already."""
    name = (findings.metric_name or "").lower()
    known = (findings.metric, findings.float_metric, *(r.metric for r in findings.results))
    return any(word in name for word in _SHARES) and not any(
        value is not None and value > 1 for value in known
    )


def is_known(value: float | None) -> bool:
    """Return whether a metric was measured and is a number."""
    return value is not None and math.isfinite(value)


def metric(findings: Findings, value: float | None) -> str:
    """Return a metric for a sentence, as "91.2%" or "0.412"."""
    if value is None:
        return "not measured"
    if not math.isfinite(value):
        return "undefined"
    return f"{100 * value:.1f}%" if is_percentage(findings) else f"{value:.4g}"


def difference(findings: Findings, value: float) -> str:
    """Return how much of a metric is lost or gained, without a sign."""
    if not is_percentage(findings):
        return f"{abs(value):.3g}"
    points = f"{abs(100 * value):.2f}".rstrip("0").rstrip(".")
    return f"{points} percentage point" + ("" if points == "1" else "s")


def share(value: float) -> str:
    """Return a share in percent, whose smallness and nearness to all are not rounded away."""
    percent = 100 * value
    if percent == 0:
        return "0%"
    if percent < 0.001:
        return "<0.001%"
    if percent < 1:
        return f"{percent:.1g}%" if percent < 0.095 else f"{percent:.2f}%"
    if percent < 9.95:
        return f"{percent:.1f}%"
    return ">99%" if 99 < percent < 100 else f"{percent:.0f}%"


def decibels(value: float) -> str:
    """Return a signal-to-error ratio; without a difference there is no number."""
    if math.isnan(value):
        return "undefined"
    if math.isinf(value):
        return "no error" if value > 0 else "no signal"
    return f"{value:.1f}"


def number(value: float) -> str:
    """Return a number whose unit is not known."""
    return f"{value:.4g}"


def count(value: int) -> str:
    """Return a whole number."""
    return f"{value:,}"


def large(value: int) -> str:
    """Return a whole number in short, as "5.2 million"."""
    for size, word in ((10**9, "billion"), (10**6, "million")):
        if value >= size:
            return f"{value / size:.3g} {word}"
    return count(value)


def seconds(value: float) -> str:
    """Return a time."""
    if value < 120:
        return f"{value:.3g} s"
    minutes, rest = divmod(round(value), 60)
    return f"{minutes} min {rest} s"


def some(quantity: int, noun: str) -> str:
    """Return a number of things, as "1 layer" or "5 layers"."""
    return f"{quantity:,} {noun}" + ("" if quantity == 1 else "s")


def of_sample(what: str, looked: int, sums: int) -> str:
    """Return of how many sums a number is that is known of those alone that were looked at.

    Nothing where all were. It follows a sentence.

    Example:
        >>> of_sample("On the way", 5000, 100000)
        ' On the way: of 5,000 of the 100,000 sums, those looked at.'
    """
    return (
        "" if looked == sums else f" {what}: of {looked:,} of the {sums:,} sums, those looked at."
    )


def listed(names: list[str]) -> str:
    """Return names as a sentence lists them."""
    if len(names) < 2:
        return "".join(names)
    return f"{', '.join(names[:-1])} and {names[-1]}"


def printable(text: str) -> str:
    """Return a name with a mark in place of what neither a terminal nor a page can show."""
    return "".join(c if c.isprintable() else "\N{REPLACEMENT CHARACTER}" for c in text)


def elided(text: str, fits: Callable[[str], bool]) -> str:
    """Return a name as it is if it fits, or without its middle; `fits` grants any shorter text."""
    if fits(text):
        return text
    least, most = 0, len(text) - 1
    while least < most:
        kept = (least + most + 1) // 2
        if fits(_ends(text, kept)):
            least = kept
        else:
            most = kept - 1
    return _ends(text, least)


def _ends(text: str, kept: int) -> str:
    head = kept // 2
    return f"{text[:head]}\N{HORIZONTAL ELLIPSIS}{text[len(text) - (kept - head) :]}"


def _signed(text: str) -> str:
    """Return a number with its sign; none before what was rounded to zero."""
    return text if text.strip("+-0.") else text[1:]


FORMATS: Mapping[str, Callable[[Any], str]] = {
    "text": lambda value: printable(str(value)),
    "count": count,
    "flag": lambda value: "yes" if value else "no",
    "share": share,
    "percent": lambda value: f"{100 * value:.2f}%",
    "points": lambda value: _signed(f"{100 * value:+.2f}"),
    "number": number,
    "change": lambda value: _signed(f"{value:+.4g}"),
    "decibels": decibels,
}
"""How values of a table's columns are written, by the column's kind."""
