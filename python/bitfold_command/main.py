# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Where the command begins: runs a task, turns errors into a line and a status."""

from __future__ import annotations

import importlib.metadata
import os
import sys
from collections.abc import Sequence

from bitfold_command import quiet
from bitfold_command.parser import make_parser

DONE, DIFFERENT, WRONG, INTERRUPTED = 0, 1, 2, 130


def main(arguments: Sequence[str] | None = None) -> int:
    """Run the command; return its exit status."""
    parser = make_parser()
    options = parser.parse_args(arguments)
    if options.version:
        print(importlib.metadata.version("bitfold"))
        return DONE
    if options.task is None:
        parser.print_help(sys.stderr)
        return WRONG
    try:
        status = quiet.imported(f"bitfold_command.{options.task}").run(options)
        sys.stdout.flush()
        return status
    except KeyboardInterrupt:
        print("bitfold: interrupted", file=sys.stderr)
        return INTERRUPTED
    except SystemExit as error:
        # How rich ends where nobody reads any more; standard output is nowhere then.
        if not isinstance(error.__context__, BrokenPipeError):
            raise
        return DONE
    except BrokenPipeError:
        # Who reads the results has enough; nothing is left to be flushed at the end.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return DONE
    except (OSError, ValueError, TypeError, ImportError, MemoryError) as error:
        print(f"bitfold: {_sentence(error)}", file=sys.stderr)
        return WRONG
    except RuntimeError as error:
        if not _is_of_workers(error):
            raise
        print(f"bitfold: {error}", file=sys.stderr)
        return WRONG


def _is_of_workers(error: RuntimeError) -> bool:
    from bitfold import WorkerError  # imported already, where workers have failed

    return isinstance(error, WorkerError)


def _sentence(error: Exception) -> str:
    """Return what went wrong, as people say it."""
    if isinstance(error, OSError) and error.strerror and error.filename is not None:
        return f"{error.filename}: {error.strerror}"
    if isinstance(error, MemoryError):
        return "out of memory; a smaller --batch-size needs less"
    return str(error) or type(error).__name__
