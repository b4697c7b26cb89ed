# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Loads the op library, once, into the TensorFlow it was built for, after looking at both."""

from __future__ import annotations

import contextlib
import ctypes
import os
import pathlib

_PACKAGE_DIR = pathlib.Path(__file__).resolve().parents[1]

try:
    from bitfold._frame import build_info
except ImportError:
    raise ImportError(
        f"bitfold is not built in {_PACKAGE_DIR}: these are its sources. In the checkout run "
        "`make setup`, which builds and installs it, and use .venv/bin/python, with no PYTHONPATH "
        "that leads here."
    ) from None

VERSION = build_info.VERSION

# Exported by the library and by nothing else.
_MARKER = "accumulator_int_verification"

# The widest instruction set that loops may use, where it is not the machine's.
_TARGET = "BITFOLD_TARGET"
_TARGETS = ("portable", "avx2", "avx512", "avx512_vnni")


def library_path() -> str:
    """Return the path of the shared library with the ops and the exported functions.

    For ``tf.load_op_library`` in a process that does not import bitfold, for ``ctypes``, and for
    linking C programs. One copy of the library registers its ops in a process, the first:
    ``tf.load_op_library`` refuses a second one.

    Example:
        >>> import bitfold
        >>> bitfold.library_path().endswith("libbitfold.so")
        True
    """
    return str(_PACKAGE_DIR / "libbitfold.so")


def include_dir() -> str:
    """Return the folder to compile C and C++ callers with.

    It holds ``bitfold/single_step.h``, ``bitfold/fpx.h``, ``bitfold/image_threads.h`` and
    ``bitfold/warning_counts.h``.

    Example:
        >>> import bitfold, os
        >>> os.path.exists(os.path.join(bitfold.include_dir(), "bitfold", "single_step.h"))
        True
    """
    return str(_PACKAGE_DIR / "include")


def check_file(path: str, size: int = build_info.LIBRARY_SIZE) -> None:
    """Raise ImportError unless the library is there, as long as it was when it was installed.

    The loader maps a file without reading it. Of one that was cut short, by a full disk or a copy
    that was interrupted, pages are missing, and the process ends with a signal when it touches one.

    Args:
        path: the library.
        size: the number of its bytes.

    Raises:
        ImportError: naming the file, both sizes and the remedy.
    """
    try:
        found = os.path.getsize(path)
    except OSError as error:
        what = f"cannot be read ({error.strerror})"
    else:
        if found == size:
            return
        what = f"has {found} bytes where {size} were installed"
    raise ImportError(
        f"bitfold {VERSION} is damaged: {path} {what}. Install it again: pip install "
        "--force-reinstall --no-deps <the wheel or folder that it came from>."
    )


def check_versions(running: str, built_for: str = build_info.TENSORFLOW_VERSION) -> None:
    """Raise ImportError unless the TensorFlow that runs is the one the library was built for.

    The runtime keeps no binary interface between versions: a mismatch would fail with a missing
    symbol, or not fail and corrupt memory.

    Args:
        running: the version of the TensorFlow in this process.
        built_for: the version the library was compiled against.

    Raises:
        ImportError: naming both versions and the remedy.
    """
    if running == built_for:
        return
    raise ImportError(
        f"bitfold {VERSION} was built for TensorFlow {built_for}, but TensorFlow "
        f"{running} is running. Either install the one it was built for: "
        f"pip install tensorflow-cpu=={built_for} (or tensorflow=={built_for}); or rebuild "
        "bitfold from its sources against yours: pip install --no-build-isolation "
        "--force-reinstall --no-deps <folder of bitfold's sources>."
    )


def check_only_copy(path: str) -> None:
    """Raise ImportError where the process has loaded another copy of the library.

    Only the first copy registers its ops; loaded now, this one would have none.

    Args:
        path: the library that is about to be loaded, or is already.

    Raises:
        ImportError: naming both files.
    """
    for other in _loaded_copies():
        if not os.path.samefile(other, path):
            raise ImportError(
                f"bitfold {VERSION} cannot load {path}: this process has loaded another copy of "
                f"the library, {other}, and one copy alone can register the ops. "
                "Load one of them: import bitfold from one place, and give tf.load_op_library "
                "bitfold.library_path()."
            )


def _loaded_copies() -> list[str]:
    """Return the files whose code in this process is a copy of the library, whatever their names.

    Nothing where the system has no /proc.
    """
    code = []  # first address, end, file
    with contextlib.suppress(OSError), open("/proc/self/maps") as maps:
        for line in maps:
            span, access, _, _, _, *name = line.rstrip("\n").split(maxsplit=5)
            if "x" in access and name and name[0].startswith("/"):
                first, end = (int(address, 16) for address in span.split("-"))
                code.append((first, end, name[0]))
    copies = set()
    for file in {file for _, _, file in code}:
        with contextlib.suppress(OSError, AttributeError):
            loaded = ctypes.CDLL(file, mode=os.RTLD_NOLOAD)
            # A library that is linked with a copy finds that copy's function: ask who holds it.
            function = ctypes.cast(getattr(loaded, _MARKER), ctypes.c_void_p).value or 0
            copies |= {holder for first, end, holder in code if first <= function < end}
    return sorted(copies)


def _check_target() -> None:
    """Raise ValueError unless the environment names an instruction set, or none.

    The library takes a name that it does not know for no limit.
    """
    if (name := os.environ.get(_TARGET)) and name not in _TARGETS:
        raise ValueError(f"Need {_TARGET} to be one of {', '.join(_TARGETS)}, got {name!r}")


def load():
    """Load the library and return the module of its generated ops."""
    _check_target()
    check_file(library_path())
    try:
        import tensorflow as tf
    except ImportError as error:
        version = build_info.TENSORFLOW_VERSION
        raise ImportError(
            f"bitfold {VERSION} needs TensorFlow {version}, which cannot be imported "
            f"({error}). Install it: pip install tensorflow-cpu=={version} (or "
            f"tensorflow=={version})."
        ) from error
    check_versions(tf.__version__)
    check_only_copy(library_path())
    module = tf.load_op_library(library_path())
    if not hasattr(module, "h_add"):
        raise ImportError(
            f"bitfold {VERSION} finds no ops in {library_path()}: the process loaded this file "
            "before under another name, and the runtime lists a library's ops once. Give "
            "tf.load_op_library bitfold.library_path(), and no link to it."
        )
    return module
