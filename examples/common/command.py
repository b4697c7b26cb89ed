# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""What the examples' command lines share. Importing it sets what must precede TensorFlow."""

from __future__ import annotations

import argparse
import os
import sys
from collections.abc import Callable
from pathlib import Path

# Both must precede TensorFlow's import; the second also silences a notice.
os.environ.setdefault("TF_CPP_MIN_LOG_LEVEL", "3")
os.environ.setdefault("TF_ENABLE_ONEDNN_OPTS", "0")


def positive(text: str) -> int:
    """Parse a whole number above zero."""
    value = int(text)
    if value < 1:
        raise argparse.ArgumentTypeError(f"{value} is not above zero")
    return value


def make_parser(
    description: str, output_dir: str, epochs: int | None, picture: str
) -> argparse.ArgumentParser:
    """Make the command line of an example that trains, with these defaults and this picture."""
    parser = argparse.ArgumentParser(
        description=description,
        epilog=f"Writes {picture} and results.json to the output directory.",
    )
    parser.add_argument(
        "--output-dir", type=Path, default=Path(output_dir),
        help="directory for the results, created where missing (default: %(default)s)",
    )  # fmt: skip
    parser.add_argument(
        "--seed", type=int, default=0, help="seed of the training (default: %(default)s)"
    )
    parser.add_argument(
        "--epochs", type=positive, default=epochs,
        help=f"epochs of the training (default: {epochs or 'what the data set needs'})",
    )  # fmt: skip
    parser.add_argument(
        "--images", type=positive, metavar="N",
        help="use only the first N images of the test split (default: all)",
    )  # fmt: skip
    return parser


def add_widths(parser: argparse.ArgumentParser, first: int, last: int) -> None:
    """Add the choice of accumulator widths; from first to last by default."""
    parser.add_argument(
        "--widths", type=positive, nargs="+", default=range(first, last + 1), metavar="BITS",
        help=f"accumulator widths under test, narrow ones first (default: {first} to {last})",
    )  # fmt: skip


def missing_bitfold() -> str | None:
    """Try to import bitfold; say what went wrong, or None if nothing did."""
    import tensorflow as tf

    try:
        import bitfold.ops  # noqa: F401
    except (ImportError, OSError, AttributeError, tf.errors.OpError) as error:
        return f"cannot import bitfold: {error}\nBuild and install the package first."
    return None


def start(run: Callable[[argparse.Namespace], None], options: argparse.Namespace) -> int:
    """Run an example where bitfold can be imported; return the exit code."""
    problem = missing_bitfold()
    if problem:
        print(f"error: {problem}", file=sys.stderr)
        return 1
    run(options)
    return 0
