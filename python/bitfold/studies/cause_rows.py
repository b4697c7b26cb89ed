# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What each cause costs in several arithmetics, in one table."""

from __future__ import annotations

from bitfold.studies import rows, words
from bitfold.studies.causes import ACCUMULATOR, QUANTISATION, SHIFT, UNITS
from bitfold.studies.columns import Column, Table
from bitfold.studies.records import Attribution, Findings

_ORDER = (QUANTISATION, SHIFT, ACCUMULATOR, UNITS)


def attributions(findings: Findings) -> list[Table]:
    """Return the table of one attribution, the summary of several, nothing of none.

    Example:
        >>> from bitfold.studies.cause_rows import attributions
        >>> from bitfold.studies.records import Findings
        >>> attributions(Findings("network", 1, None, None, None, (), {}))
        []
    """
    if len(findings.attributions) > 1:
        return [summary(findings)]
    return [rows.causes(findings, attribution) for attribution in findings.attributions]


def summary(findings: Findings) -> Table:
    """What each cause changes of the metric, an arithmetic in a line, and the last layer's error.

    Without a metric the error alone.
    """
    found = findings.attributions
    has_metric = any(cause.metric is not None for one in found for cause in one.causes)
    causes = _causes(found) if has_metric else []
    is_percentage = words.is_percentage(findings)
    kind, group = ("points", "change in points") if is_percentage else ("change", "change")
    columns = (
        Column("arithmetic"),
        *(Column(cause, kind, f"{group} by") for cause in causes),
        Column("last layer", "decibels", "signal to error [dB]"),
    )
    lines = []
    for one in found:
        changes = _changes(findings, one)
        last = rows.at_last_layer(findings, one.causes[-1]) if one.causes else None
        lines.append((one.name, *map(changes.get, causes), last))
    return Table("What each cause adds on the way from the float model.", columns, tuple(lines))


def _causes(found: tuple[Attribution, ...]) -> list[str]:
    """Return the names of all causes, in the order in which they are switched on."""
    names = dict.fromkeys(cause.name for one in found for cause in one.causes)
    return sorted(names, key=lambda name: _ORDER.index(name) if name in _ORDER else len(_ORDER))


def _changes(findings: Findings, attribution: Attribution) -> dict[str, float | None]:
    """Return what each cause changes of the metric."""
    changes, before = {}, findings.float_metric
    for cause in attribution.causes:
        changes[cause.name] = rows.change(cause.metric, before)
        before = cause.metric
    return changes
