# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Translates the assembly text that a library embeds into C++.

    translate.py LIBRARY OUT.cc
"""

from __future__ import annotations

import pathlib
import sys

import ptx_cpp
import ptx_text


def main(library: str, out: str) -> None:
    """Write the C++ of a library's texts."""
    texts = ptx_text.texts_in(pathlib.Path(library).read_bytes())
    if not texts:
        sys.exit(f"Need a library with device code that is not compressed, got {library}")
    try:
        modules = [ptx_text.read(text) for text in texts]
        cpp = ptx_cpp.cpp_of(modules)
    except ptx_text.UnknownTextError as error:
        sys.exit(f"{library}: {error}")
    pathlib.Path(out).write_text(cpp)


if __name__ == "__main__":
    main(*sys.argv[1:])
