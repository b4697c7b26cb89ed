# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""What the examples' consoles and pictures share: progress, borders of tables, colours."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from contextlib import contextmanager

import matplotlib

matplotlib.use("Agg")
from rich import box
from rich.console import Console
from rich.progress import BarColumn, MofNCompleteColumn, Progress, TextColumn, TimeElapsedColumn

COLOURS = ("#0072B2", "#E69F00", "#009E73", "#CC79A7", "#56B4E9", "#D55E00")
"""Colours that remain distinct for colour-blind readers."""

PLAIN_WIDTH = 110

Report = Callable[[str, int], None]
"""Told what came out, with a line of text, and how many steps of the work that took."""


def make_console() -> Console:
    """A console that writes plain lines where stdout is no terminal."""
    plain = Console()
    return plain if plain.is_terminal else Console(width=PLAIN_WIDTH, highlight=False)


@contextmanager
def progress_reports(console: Console, steps: int) -> Iterator[Report]:
    """Yield a function to call after steps: a bar on a terminal, else one line per call."""
    if not console.is_terminal:
        yield lambda line, _: console.print(line, soft_wrap=True)
        return
    columns = (
        BarColumn(), MofNCompleteColumn(), TimeElapsedColumn(),
        TextColumn("{task.description}"),
    )  # fmt: skip
    with Progress(*columns, console=console, transient=True) as progress:
        task = progress.add_task("", total=steps)
        yield lambda line, done: progress.update(task, advance=done, description=line)


def table_style(console: Console) -> box.Box:
    """Borders of a table: plain characters where stdout is no terminal."""
    return box.SIMPLE_HEAD if console.is_terminal else box.ASCII2
