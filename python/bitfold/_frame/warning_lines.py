# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What becomes of the lines that ops print: printed, counted by op and node, or reported.

The library keeps the setting and the counts (``bitfold/warning_counts.h``). What it counts in a
call it adds when the call ends, and a function of the user's is called there, on the thread that
computed the call; that thread takes the interpreter's lock as any other does.
"""

from __future__ import annotations

import atexit
import ctypes
import itertools
import threading
import time
from collections.abc import Callable

from bitfold._frame.library import library_path

Counts = dict[str, int]
Listener = Callable[[str, str, Counts], object]

_KINDS = ("out_of_bounds", "corrected_weights", "softmax_overflows")
_SECONDS_AT_EXIT = 10.0  # a listener may wait for what never comes


class _Counts(ctypes.Structure):
    """The C structure."""

    _fields_ = tuple((kind, ctypes.c_int64) for kind in _KINDS)


_VISITOR = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_char_p, ctypes.POINTER(_Counts))

_LIBRARY = ctypes.CDLL(library_path())
_LIBRARY.bitfold_set_warnings.argtypes = [ctypes.c_int, _VISITOR]
_LIBRARY.bitfold_visit_warning_counts.argtypes = [ctypes.c_int, _VISITOR]
_LIBRARY.bitfold_visit_warning_counts.restype = None
_LIBRARY.bitfold_counting_word.restype = ctypes.c_char_p

_NOBODY = _VISITOR()  # a null pointer
_set_lock = threading.Lock()
_setting: str | Listener = "print"
_telling = threading.local()
_serial = itertools.count()


def _is_counting() -> bool:
    return not (isinstance(_setting, str) and _setting == "print")


def _plain(counts: ctypes.POINTER(_Counts)) -> Counts:
    return {kind: getattr(counts.contents, kind) for kind in _KINDS}


@_VISITOR
def _tell(op: bytes, node: bytes, counts: ctypes.POINTER(_Counts)) -> None:
    """Call the user's function; ctypes prints what it raises, and goes on."""
    listener = _setting
    if isinstance(listener, str) or getattr(_telling, "now", False):
        return
    _telling.now = True
    try:
        listener(op.decode(), node.decode(), _plain(counts))
    finally:
        _telling.now = False


def set_warnings(setting: str | Listener) -> str | Listener:
    """Say what ops do with the lines that they print; one setting for the process.

    There are three kinds of lines (``docs/warnings.md``): a float sum outside [-8388607, 8388607),
    an image or a matrix with a weight whose sign was corrected, and a softmax sum above 2^24 - 1.
    One call can print millions of them. Calls that begin later obey. What kernels of a GPU print,
    they print whatever the setting.

    Args:
        setting: ``"print"``, as at first: every line goes to C's standard output. ``"count"``:
            lines are neither formatted nor printed, only counted; see `warning_counts`. Or a
            function ``f(op, node, counts)``: lines are counted, and it is called once for each call
            of an op that would have printed, with the registered name of the op, the name of its
            node (eagerly the same as the op's) and a dict with the number of lines of each kind,
            ``"out_of_bounds"``, ``"corrected_weights"`` and ``"softmax_overflows"``. The call comes
            from the thread that computed the op, before the op's outputs are there, and calls from
            several threads can come at once. What it raises is printed as the exception of a
            callback, and the op goes on. It is not called for ops that it runs itself on that
            thread, and must not wait for others.

    Returns:
        The setting before.

    Raises:
        ValueError: for anything else.

    Example:
        >>> import bitfold
        >>> before = bitfold.set_warnings("count")
        >>> until_now = bitfold.warning_counts(reset=True)
        >>> sums = bitfold.ops.add([[8388607.0, 1.0]], [[1.0, 1.0]], accumulator_size=32)
        >>> bitfold.warning_counts(reset=True)[("HAdd", "HAdd")]["out_of_bounds"]
        1
        >>> bitfold.set_warnings(before)
        'count'
    """
    if not callable(setting) and not (isinstance(setting, str) and setting in ("print", "count")):
        raise ValueError(
            f'Need "print", "count" or a function of op, node and counts, got {setting!r}'
        )
    global _setting
    with _set_lock:
        before, _setting = _setting, setting
        listener = _NOBODY if isinstance(setting, str) else _tell
        _LIBRARY.bitfold_set_warnings(_is_counting(), listener)
    return before


def warning_counts(*, reset: bool = False) -> dict[tuple[str, str], Counts]:
    """Return how many lines were counted instead of printed, by op and node.

    Counts grow while the setting is ``"count"`` or a function (`set_warnings`), and those of nodes
    below a `counting_scope` always. A call of an op adds its counts when it ends.

    Args:
        reset: whether counts start anew; each line is then returned once.

    Returns:
        A dict from (registered name of the op, name of the node) to a dict with the number of lines
        of each kind: ``"out_of_bounds"``, ``"corrected_weights"`` and ``"softmax_overflows"``.
        Eagerly the node is named as the op. What printed nothing is not in it.

    Example:
        >>> import bitfold
        >>> until_now = bitfold.warning_counts(reset=True)
        >>> bitfold.warning_counts()
        {}
    """
    found: dict[tuple[str, str], Counts] = {}

    def visit(op: bytes, node: bytes, counts: ctypes.POINTER(_Counts)) -> None:
        found[op.decode(), node.decode()] = _plain(counts)

    _LIBRARY.bitfold_visit_warning_counts(reset, _VISITOR(visit))
    return found


def counting_scope(name: str) -> str:
    """Return a new name scope whose nodes always count their lines, whatever the setting.

    The library knows such nodes by a word in their names that this process alone has: they count on
    any thread, in functions, pipelines and layers, and print where another process loads them as
    part of a saved model.

    Args:
        name: what the scope's name begins with; letters, digits, ``_``, ``.``, ``-`` and ``/``.

    Returns:
        The scope, without a slash at its end. Enter ``tf.name_scope(scope + "/")`` in a
        ``tf.function``: eagerly the runtime gives nodes no names.

    Example:
        >>> import tensorflow as tf, bitfold
        >>> from bitfold._frame import warning_lines
        >>> scope = warning_lines.counting_scope("study")
        >>> @tf.function
        ... def add(x):
        ...     with tf.name_scope(scope + "/"):
        ...         return bitfold.ops.add(x, x, accumulator_size=32, name="sum")
        >>> sums = add(tf.constant([[8388607.0]]))
        >>> warning_lines.counts_below(scope)[("HAdd", "sum")]["out_of_bounds"]
        1
    """
    word = _LIBRARY.bitfold_counting_word().decode()
    return f"{name}_{word}_{next(_serial)}"


def counts_below(scope: str) -> dict[tuple[str, str], Counts]:
    """Return the counts of the nodes below a scope.

    Args:
        scope: what `counting_scope` returned.

    Returns:
        What `warning_counts` returns, the nodes' names without the scope and what stands before it.
        Nodes that are named alike, since a function was inlined in several places, are added.
    """
    found: dict[tuple[str, str], Counts] = {}
    for (op, node), counts in warning_counts().items():
        _, is_below, inner = node.partition(f"{scope}/")
        if is_below:
            sums = found.setdefault((op, inner), dict.fromkeys(_KINDS, 0))
            for kind in _KINDS:
                sums[kind] += counts[kind]
    return found


@atexit.register
def _fall_silent() -> None:
    """Before the interpreter ends no thread may be left that calls into it, or is about to."""
    end = time.monotonic() + _SECONDS_AT_EXIT
    while _LIBRARY.bitfold_set_warnings(_is_counting(), _NOBODY) and time.monotonic() < end:
        time.sleep(0.001)
