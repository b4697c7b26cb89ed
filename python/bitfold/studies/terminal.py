# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Findings as tables for a terminal."""

from __future__ import annotations

import dataclasses
import sys
import textwrap
from collections.abc import Sequence
from typing import TextIO

import rich.table
from rich.console import Console
from rich.markup import escape
from rich.measure import Measurement

from bitfold.studies import cause_rows, rows, sentences, words
from bitfold.studies.columns import Table
from bitfold.studies.records import ChannelBits, Findings
from bitfold.studies.series import all_series

# Where the output is not a terminal, lines are as long as what they hold.
_WIDTH = 1000
_HEADING = 12
# Series of widths that have a table of their own; the report has all.
_MOST_SERIES = 2


def print_findings(findings: Findings, file: TextIO | None = None) -> None:
    """Print what a study found: sentences and tables, plain lines where there is no terminal.

    Args:
        findings: what to print.
        file: where to; `sys.stdout` by default.

    Example:
        >>> from bitfold.studies.records import Findings
        >>> from bitfold.studies.terminal import print_findings
        >>> print_findings(Findings("network", 1, None, None, None, (), {}))
        network
        1 image went through 0 layers with an accumulator; without labels there is no metric.
        No layer has an accumulator; those of a model in floats have none.
    """
    console = _console(file)
    console.print(words.printable(findings.title), style="bold", markup=False)
    for sentence in sentences.overall(findings):
        console.print(sentence, markup=False, soft_wrap=True)
    for table in _tables(findings):
        _print_table(console, table)
    for layer in findings.layers:
        for remark in layer.remarks:
            console.print(f"{words.printable(layer.name)}: {remark}", markup=False, soft_wrap=True)


def print_channels(name: str, channels: Sequence[ChannelBits], file: TextIO | None = None) -> None:
    """Print the channels of a layer.

    Args:
        name: of the layer.
        channels: its channels.
        file: where to; `sys.stdout` by default.
    """
    console = _console(file)
    _print_table(console, rows.channels_of(words.printable(name), channels))


def _console(file: TextIO | None) -> Console:
    file = sys.stdout if file is None else file
    # In a notebook, too, lines go to the file, not to the page.
    console = Console(file=file, highlight=False, force_jupyter=False)
    if not console.is_terminal:
        console.width = _WIDTH
    return console


def _tables(findings: Findings) -> list[Table]:
    tables = [_without_remarks(rows.layers(findings))] if findings.layers else []
    if findings.results:
        tables.append(rows.results(findings))
    tables += _wrong_by_width(findings)
    tables += cause_rows.attributions(findings)
    tables += [rows.choices(findings, search) for search in findings.searches]
    return tables


def _wrong_by_width(findings: Findings) -> list[Table]:
    """Return where sums go wrong, of the first series; the last table names the others."""
    found = [
        (series, table)
        for series in all_series(findings)
        if (table := _where_wrong(rows.wrong_by_width(series, is_alone=True))).rows
    ]
    tables = [table for _, table in found[:_MOST_SERIES]]
    if others := [series.name for series, _ in found[_MOST_SERIES:]]:
        caption = f"{tables[-1].caption} The report has the same of {words.listed(others)}."
        tables[-1] = dataclasses.replace(tables[-1], caption=caption)
    return tables


def _without_remarks(table: Table) -> Table:
    """Return a table without its remarks, which would fold into many lines."""
    return _with_columns(table, [i for i, c in enumerate(table.columns) if c.heading != "remarks"])


def _where_wrong(table: Table) -> Table:
    """Return a table of shares without the rows and columns that are zero throughout."""
    kept = [0, *(i for i in range(1, len(table.columns)) if any(row[i] for row in table.rows))]
    left = tuple(row for row in table.rows if any(row[1:]))
    caption = table.caption
    if len(left) < len(table.rows):
        caption += f" Of the other {words.some(len(table.rows) - len(left), 'layer')} no sum."
    return _with_columns(dataclasses.replace(table, caption=caption, rows=left), kept)


def _with_columns(table: Table, kept: list[int]) -> Table:
    return dataclasses.replace(
        table,
        columns=tuple(table.columns[index] for index in kept),
        rows=tuple(tuple(row[index] for index in kept) for row in table.rows),
    )


def _print_table(console: Console, table: Table) -> None:
    """Print a table; one that is too wide in pieces, each with the first column."""
    console.print(f"\n{table.caption}", markup=False, soft_wrap=True)
    kept = [0]
    for index in range(1, len(table.columns)):
        if len(kept) > 1 and not _fits(console, _with_columns(table, [*kept, index])):
            console.print(_drawn(_with_columns(table, kept)))
            console.print()
            kept = [0]
        kept.append(index)
    console.print(_drawn(_with_columns(table, kept)))


def _fits(console: Console, table: Table) -> bool:
    """Return whether nothing in a table has to be folded."""
    options = console.options.update(max_width=_WIDTH)
    return Measurement.get(console, options, _drawn(table)).maximum <= console.width


def _drawn(table: Table) -> rich.table.Table:
    drawn = rich.table.Table(box=None, pad_edge=False)
    for column in table.columns:
        heading = textwrap.fill(column.heading, _HEADING, break_long_words=False)
        heading = f"{column.group}\n{heading}" if column.group else heading
        justify = "right" if column.is_number else "left"
        drawn.add_column(escape(heading), justify=justify, overflow="fold", vertical="bottom")
    for row in table.texts():
        drawn.add_row(*map(escape, row))
    return drawn
