# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Paths: which files a pattern means, what tells them from others, and where one cannot be read."""

from __future__ import annotations

import contextlib
import errno
import glob
import os
import re
import socket
import zipfile
import zlib
from collections.abc import Iterable, Iterator

import tensorflow as tf

Pattern = str | os.PathLike[str]

# What readers raise for a file whose content is not what it should be.
_DAMAGES = (
    ValueError,
    EOFError,
    NotImplementedError,
    RuntimeError,
    zipfile.BadZipFile,
    zlib.error,
    tf.errors.OpError,
)


def found(patterns: Pattern | Iterable[Pattern]) -> list[str]:
    """Return the absolute paths that a pattern, or several of them, mean.

    Args:
        patterns: a path, a glob pattern in which ** stands for folders, or some of these.

    Returns:
        The paths in the order of the patterns, and those of each in the order of their names.

    Raises:
        FileNotFoundError: for a pattern that no file matches.
    """
    if isinstance(patterns, str | os.PathLike):
        patterns = [patterns]
    paths = []
    for pattern in map(os.fspath, patterns):
        # A path that exists is no pattern, whatever letters it has.
        matches = [pattern] if os.path.exists(pattern) else _matches(pattern)
        if not matches:
            raise FileNotFoundError(errno.ENOENT, "Need files, found none", pattern)
        paths += map(os.path.abspath, matches)
    if not paths:
        raise ValueError("Need at least one path or pattern, got none")
    return paths


def _matches(pattern: str) -> list[str]:
    return sorted(filter(os.path.isfile, glob.glob(pattern, recursive=True)))


def stamp(path: str) -> str:
    """Return what tells a file from others without reading it: its name, size and time of change.

    Raises:
        OSError: for a path that cannot be reached.
    """
    with reading(path):
        status = os.stat(path)
    return f"{os.path.basename(path)} {status.st_size} {status.st_mtime_ns}"


@contextlib.contextmanager
def reading(path: str) -> Iterator[None]:
    """Say which file and which machine are concerned when something inside fails.

    Raises:
        OSError: for a path that cannot be reached.
        ValueError: for content that is not what it should be.
    """
    try:
        yield
    except tf.errors.NotFoundError:
        raise FileNotFoundError(errno.ENOENT, _unreachable("No such file"), path) from None
    except OSError as error:
        if error.errno is None:
            raise ValueError(_damaged(path, error)) from None
        raise OSError(error.errno, _unreachable(error.strerror), path) from None
    except _DAMAGES as error:
        raise ValueError(_damaged(path, error)) from None


def _here() -> str:
    return f"host {socket.gethostname()}, process {os.getpid()}"


def _unreachable(reason: str) -> str:
    return f"Need a file that every worker reaches by this path, got on {_here()}: {reason}"


def _damaged(path: str, error: Exception) -> str:
    reason = str(error)
    if isinstance(error, tf.errors.OpError):
        reason = re.sub(r"^{{.*?}} | \[Op:.*", "", error.message, flags=re.DOTALL)
    return f"Need data that can be read, got {path} on {_here()}: {reason or type(error).__name__}"
