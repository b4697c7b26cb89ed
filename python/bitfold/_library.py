# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Loads the op library, once, into the TensorFlow it was built for."""

from __future__ import annotations

import pathlib

from bitfold import _build_info

_PACKAGE_DIR = pathlib.Path(__file__).resolve().parent


def library_path() -> str:
    """Return the path of the shared library with the ops and the exported functions.

    For ``tf.load_op_library`` in a process that does not import bitfold, for ``ctypes``, and for
    linking C programs.

    Example:
        >>> import bitfold
        >>> bitfold.library_path().endswith("libbitfold.so")
        True
    """
    return str(_PACKAGE_DIR / "libbitfold.so")


def include_dir() -> str:
    """Return the folder to compile C and C++ callers with.

    It holds ``bitfold/single_step.h`` and ``bitfold/fpx.h``.

    Example:
        >>> import bitfold, os
        >>> os.path.exists(os.path.join(bitfold.include_dir(), "bitfold", "single_step.h"))
        True
    """
    return str(_PACKAGE_DIR / "include")


def check_versions(running: str, built_for: str = _build_info.TENSORFLOW_VERSION) -> None:
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
        f"bitfold {_build_info.VERSION} was built for TensorFlow {built_for}, but TensorFlow "
        f"{running} is running. Either install the one it was built for: "
        f"pip install tensorflow-cpu=={built_for} (or tensorflow=={built_for}); or rebuild "
        "bitfold from its sources against yours: pip install --no-build-isolation "
        "--force-reinstall --no-deps <folder of bitfold's sources>."
    )


def load():
    """Load the library and return the module of its generated ops."""
    try:
        import tensorflow as tf
    except ImportError as error:
        version = _build_info.TENSORFLOW_VERSION
        raise ImportError(
            f"bitfold {_build_info.VERSION} needs TensorFlow {version}, which cannot be imported "
            f"({error}). Install it: pip install tensorflow-cpu=={version} (or "
            f"tensorflow=={version})."
        ) from error
    check_versions(tf.__version__)
    return tf.load_op_library(library_path())
