# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A table, wherever it is shown: headings, values, and how these are written."""

from __future__ import annotations

import dataclasses
import math
from typing import Any

from bitfold.studies import words


@dataclasses.dataclass(frozen=True)
class Column:
    """A column of a table.

    Attributes:
        heading: what stands above it.
        kind: how its values are written, a key of `words.FORMATS`.
        group: what stands above the headings of neighbours that belong together.
    """

    heading: str
    kind: str = "text"
    group: str = ""

    @property
    def is_number(self) -> bool:
        """Whether values stand at the right."""
        return self.kind not in ("text", "flag")

    def text(self, value: Any) -> str:
        """Return a value as it is read; nothing for None."""
        if value is None:
            return ""
        if isinstance(value, float) and not math.isfinite(value) and self.kind != "decibels":
            return "undefined"
        return words.FORMATS[self.kind](value)


@dataclasses.dataclass(frozen=True)
class Table:
    """Rows with headings; the first column names the row.

    Attributes:
        caption: what it shows, a sentence.
        columns: of each row.
        rows: values as they are, None where there is none.
    """

    caption: str
    columns: tuple[Column, ...]
    rows: tuple[tuple[Any, ...], ...]

    def texts(self) -> list[list[str]]:
        """Return the rows as they are read."""
        return [
            [column.text(value) for column, value in zip(self.columns, row, strict=True)]
            for row in self.rows
        ]
