# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Keeps what a talkative library prints out of the user's console, without losing it.

Compiled code writes to the file descriptors 1 and 2, Python code to `sys.stdout` and `sys.stderr`,
which a notebook or a test runner may have put elsewhere, and to loggers. All of it, where it comes
of the calling thread, goes to one file in the order it came. What Python code of other threads
prints goes where it would have gone; what their compiled code prints cannot be told apart.
"""

from __future__ import annotations

import contextlib
import ctypes
import fcntl
import logging
import os
import sys
import tempfile
import threading
from collections.abc import Iterator
from typing import Any

# File descriptors from here on are none of the standard ones, which may be closed.
_FIRST = 3

# The last of the text, where there is very much.
_MOST_BYTES = 1 << 20

_lock = threading.RLock()


class Captured:
    """What was printed.

    Attributes:
        text: whole when the capture has ended.
    """

    text = ""


@contextlib.contextmanager
def captured(loggers: tuple[str, ...] = ()) -> Iterator[Captured]:
    """Capture what this thread prints and compiled code writes.

    One capture at a time in a process: a second thread waits.

    Args:
        loggers: names of loggers whose records of this thread are captured too, as lines that begin
            with the level.
    """
    kept = Captured()
    with _lock, _unnamed_file() as file:
        try:
            with contextlib.ExitStack() as stack:
                _flush()
                for number, name in ((1, "stdout"), (2, "stderr")):
                    saved = stack.enter_context(_descriptor(number, file))
                    stack.enter_context(_stream(name, number, file, saved))
                for name in loggers:
                    stack.enter_context(_records(name, file))
                stack.callback(_flush)
                yield kept
        finally:
            start = max(0, os.fstat(file).st_size - _MOST_BYTES)
            kept.text = os.pread(file, _MOST_BYTES, start).decode("utf-8", "replace")


@contextlib.contextmanager
def _unnamed_file() -> Iterator[int]:
    """Open a file that nobody else sees, on a descriptor that is none of the standard ones."""
    with tempfile.TemporaryFile() as opened:
        number = fcntl.fcntl(opened.fileno(), fcntl.F_DUPFD_CLOEXEC, _FIRST)
    try:
        os.set_blocking(number, True)
        fcntl.fcntl(number, fcntl.F_SETFL, fcntl.fcntl(number, fcntl.F_GETFL) | os.O_APPEND)
        yield number
    finally:
        os.close(number)


@contextlib.contextmanager
def _descriptor(number: int, file: int) -> Iterator[int | None]:
    """Divert a descriptor into a file; yield one of where it led, None where it was closed."""
    try:
        saved = fcntl.fcntl(number, fcntl.F_DUPFD_CLOEXEC, _FIRST)
    except OSError:
        saved = None
    os.dup2(file, number)
    try:
        yield saved
    finally:
        if saved is None:
            os.close(number)
        else:
            os.dup2(saved, number)
            os.close(saved)


@contextlib.contextmanager
def _stream(name: str, number: int, file: int, saved: int | None) -> Iterator[None]:
    """Divert what this thread writes to a stream of `sys` into a file."""
    divided = _Divided(getattr(sys, name), number, file, saved)
    setattr(sys, name, divided)
    try:
        yield
    finally:
        divided.end()
        # Somebody may have put another stream there in between, for which this one still works.
        if getattr(sys, name) is divided:
            setattr(sys, name, divided.stream)


class _Divided:
    """A stream of which one thread's text goes to a file, the others' where it went before."""

    def __init__(self, stream: Any, number: int, file: int, saved: int | None) -> None:
        self.stream = stream
        self._file: int | None = file
        self._thread = threading.get_ident()
        self._guard = threading.RLock()
        # Where the stream leads to the descriptor that is diverted, others' text goes around it.
        self._around = saved if _leads_to(stream, number) else None

    def write(self, text: str) -> int:
        with self._guard:
            if self._file is not None and threading.get_ident() == self._thread:
                _write(self._file, text)
            elif self._around is not None:
                _write(self._around, text)
            elif self.stream is not None:
                self.stream.write(text)
        return len(text)

    def writelines(self, lines: Any) -> None:
        for line in lines:
            self.write(line)

    def flush(self) -> None:
        if self.stream is not None:
            self.stream.flush()

    def end(self) -> None:
        """Let all text go where it went before."""
        with self._guard:
            self._file = self._around = None

    def __getattr__(self, name: str) -> Any:
        return getattr(self.stream, name)


@contextlib.contextmanager
def _records(name: str, file: int) -> Iterator[None]:
    """Divert this thread's records of a logger into a file."""
    thread = threading.get_ident()

    def divert(record: logging.LogRecord) -> bool:
        if threading.get_ident() != thread:
            return True
        _write(file, f"{record.levelname}: {record.getMessage()}\n")
        return False

    logger = logging.getLogger(name)
    logger.addFilter(divert)
    try:
        yield
    finally:
        logger.removeFilter(divert)


def _leads_to(stream: Any, number: int) -> bool:
    try:
        return stream.fileno() == number
    except (AttributeError, OSError, ValueError):
        return False


def _write(number: int, text: str) -> None:
    """Write all of a text; nothing where the descriptor takes none."""
    rest = text.encode("utf-8", "replace")
    with contextlib.suppress(OSError):
        while rest:
            rest = rest[os.write(number, rest) :]


def _flush() -> None:
    """Write what streams hold back to where it belongs at present."""
    for stream in (sys.stdout, sys.stderr, sys.__stdout__, sys.__stderr__):
        with contextlib.suppress(AttributeError, OSError, ValueError):
            stream.flush()
    ctypes.CDLL(None).fflush(None)
