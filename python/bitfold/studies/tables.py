# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Findings as HTML tables and as a data frame."""

from __future__ import annotations

import html
import itertools
from typing import Any

from bitfold.network import Arithmetic
from bitfold.studies import cause_rows, rows
from bitfold.studies.columns import Column, Table
from bitfold.studies.records import Counts, Findings, LayerBits, LayerCounts

_FULL_WIDTH = "full width"
_NOTHING = LayerCounts(0, "", Arithmetic(), Counts(), Counts())


def to_dataframe(findings: Findings) -> Any:
    """Return a data frame of pandas: a row for each layer in each arithmetic.

    Full width comes first, as the arithmetic "full width". Shares can be had as
    `wrong_alone / sums` and the like, those of sums that came right again as
    `right_again_alone / looked_at`.

    Args:
        findings: what a study found.

    Returns:
        A `pandas.DataFrame` with the columns of `records`.

    Raises:
        ImportError: without pandas.
    """
    try:
        import pandas
    except ImportError:
        raise ImportError("Need pandas for a data frame: pip install pandas") from None
    frame = pandas.DataFrame(records(findings), columns=list(_record(None, _NOTHING, "", None)))
    # Whole numbers, although sums at full width have no accumulator of some size.
    return frame.astype({"accumulator_size": "Int64"})


def records(findings: Findings) -> list[dict[str, Any]]:
    """Return the rows of the data frame, each by the names of its columns."""
    found = []
    for layer in findings.layers:
        full = Counts(layer.sums, looked_at=layer.looked_at)
        exact = LayerCounts(layer.position, layer.name, Arithmetic(), full, full)
        found.append(_record(layer, exact, _FULL_WIDTH, findings.metric))
    known = {layer.name: layer for layer in findings.layers}
    for result in findings.results:
        found += [_record(known.get(c.name), c, result.name, result.metric) for c in result.layers]
    return found


def _record(
    layer: LayerBits | None, counts: LayerCounts, name: str, metric: float | None
) -> dict[str, Any]:
    bits = ("needed", "on_the_way", "proven", "proven_for_range", "harmless_from")
    return {
        "arithmetic": name,
        "metric": metric,
        "position": counts.position,
        "layer": counts.name,
        "operator": layer.operator if layer else None,
        "multiply_adds": layer.multiply_adds if layer else None,
        **{name: getattr(layer, name) if layer else None for name in bits},
        "accumulator_size": counts.arithmetic.accumulator_size,
        "mult_shift": counts.arithmetic.mult_shift,
        "use_fp16_acc": counts.arithmetic.use_fp16_acc,
        "requantisation": counts.arithmetic.requantisation,
        "sums": counts.end_to_end.sums,
        "looked_at": counts.end_to_end.looked,
        "wrong_alone": counts.alone.wrong,
        "right_again_alone": counts.alone.right_again,
        "wrong_end_to_end": counts.end_to_end.wrong,
        "right_again_end_to_end": counts.end_to_end.right_again,
        "corrected_weights": counts.corrected_weights,
        "out_of_bounds": counts.out_of_bounds,
    }


def html_tables(findings: Findings) -> str:
    """Return what a notebook shows: what was studied, bits by layer, arithmetics, searches.

    Example:
        >>> from bitfold.studies.records import Findings
        >>> from bitfold.studies.tables import html_tables
        >>> html_tables(Findings("network", 1, None, None, None, (), {})).count("<table>")
        2
    """
    tables = [rows.overview(findings), rows.layers(findings)]
    if findings.results:
        tables.append(rows.results(findings))
    tables += cause_rows.attributions(findings)
    tables += [rows.choices(findings, search) for search in findings.searches]
    return "<div>\n" + "\n".join(map(html_table, tables)) + "\n</div>\n"


def html_table(table: Table) -> str:
    """Return a table that can be read aloud: a caption, and headings with their scope."""
    lines = ["<table>", f"<caption>{html.escape(table.caption)}</caption>", "<thead>"]
    lines += _heading_rows(table.columns)
    lines += ["</thead>", "<tbody>"]
    for row in table.texts():
        lines.append(f"<tr>{''.join(map(_cell, table.columns, row, itertools.count()))}</tr>")
    return "\n".join((*lines, "</tbody>", "</table>"))


def _cell(column: Column, text: str, index: int) -> str:
    text = html.escape(text)
    if not index:
        return f'<th scope="row">{text}</th>'
    return f'<td class="number">{text}</td>' if column.is_number else f"<td>{text}</td>"


def _heading_rows(columns: tuple[Column, ...]) -> list[str]:
    """Return one row of headings, or two where some belong together."""
    if not any(column.group for column in columns):
        return [f"<tr>{''.join(_heading(column) for column in columns)}</tr>"]
    upper, lower = [], []
    for group, members in itertools.groupby(columns, lambda column: column.group):
        inside = list(members)
        if group:
            span = f' colspan="{len(inside)}"' if len(inside) > 1 else ""
            upper.append(f'<th scope="colgroup"{span}>{html.escape(group)}</th>')
            lower += [_heading(column) for column in inside]
        else:
            upper += [_heading(column, ' rowspan="2"') for column in inside]
    return [f"<tr>{''.join(upper)}</tr>", f"<tr>{''.join(lower)}</tr>"]


def _heading(column: Column, span: str = "") -> str:
    kind = ' class="number"' if column.is_number else ""
    return f'<th scope="col"{kind}{span}>{html.escape(column.heading)}</th>'
