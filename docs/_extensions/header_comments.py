#!/usr/bin/env python3
# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Shows doxygen the plain comments of a C header as documentation: `header_comments.py FILE`.

The headers are written for whoever reads them, without marks and commands. What doxygen would take
for one is escaped; the licence is dropped from the first comment, which is that of the file.
"""

from __future__ import annotations

import pathlib
import re
import sys

_COMMENT = re.compile(r"/\* (.*?)\*/", re.DOTALL)
_LICENCE = re.compile(r"\ACopyright .*\n \* SPDX-.*\n \*\n( \* )?")


def _documented(match: re.Match[str]) -> str:
    body = match[1]
    alone = not match.string[: match.start()].rpartition("\n")[2].strip()
    mark = "/** " if alone else "/**< "
    if _LICENCE.match(body):
        mark, body = "/** \\file\n * ", _LICENCE.sub("", body)
    body = re.sub(r"([\\@%<>&#\"])", r"\\\1", body)
    body = re.sub(r"`([^`\n]+)`", r"<tt>\1</tt>", body)
    # Lines that stand further in are formulas or examples: as they are, without the star.
    body = re.sub(r"(?m)^ \* {5,}(\S.*)$", r" * \\verbatim\n\1\n\\endverbatim", body)
    return f"{mark}{body}*/"


def main() -> None:
    """Print the header."""
    text = pathlib.Path(sys.argv[1]).read_text()
    # A comment behind an #endif or before a preprocessor's line documents nothing.
    text = re.sub(r"(?m)^(#\w+.*?|\})\s*/\*.*?\*/", r"\1", text)
    print(_COMMENT.sub(_documented, text))


if __name__ == "__main__":
    main()
