# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""When the lines of kernels on a GPU appear (``bitfold/device_lines.h``)."""

from __future__ import annotations

import ctypes

from bitfold._frame.library import library_path


def flush_device_lines() -> None:
    """Wait for the GPUs that ops ran on, and write the lines that the ops printed there.

    A GPU keeps the lines of its kernels until it is waited for or something else is launched.
    Copying a result to the host is no such wait, so the lines of the last kernels appear with this
    call, and a process that ends without it loses them. Without a GPU only C's standard output is
    written out.

    Raises:
        RuntimeError: if a GPU failed; the message has the CUDA runtime's code.

    Example:
        >>> import bitfold
        >>> bitfold.flush_device_lines()
    """
    # Not while modules are imported: the runtime must load the library first.
    library = ctypes.CDLL(library_path())
    code = library.bitfold_flush_device_lines()
    if code != 0:
        raise RuntimeError(f"Need every GPU that ops ran on to end its work, got CUDA error {code}")
