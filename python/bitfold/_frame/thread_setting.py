# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Which threads compute a convolution: the runtime's pool, or one for each image.

The library keeps the setting (``bitfold/image_threads.h``).
"""

from __future__ import annotations

import ctypes
import os

from bitfold._frame.library import library_path

VARIABLE = "BITFOLD_IMAGE_THREADS"

if os.environ.get(VARIABLE, "") not in ("", "0", "1"):  # the library takes 1 for on, as it loads
    raise ValueError(f"Need {VARIABLE} to be 0 or 1, got {os.environ[VARIABLE]!r}")

_LIBRARY = ctypes.CDLL(library_path())
_LIBRARY.bitfold_set_image_threads.argtypes = [ctypes.c_int]


def set_image_threads(on: bool) -> bool:
    """Say whether each image of a convolution has a thread of its own; one setting for the process.

    As a rule, `ops.conv2d` and the others of its family share the images of a batch, and the rows
    and channels of an image, out over TensorFlow's own CPU threads, whose number
    ``tf.config.threading.set_intra_op_parallelism_threads`` sets; small calls stay on the calling
    thread. With image threads a call starts a POSIX thread for each image instead, at most 20 of
    them at a time, whatever that number. Results and printed lines are the same: those of an image
    keep their order, lines of different images may interleave. Calls that begin later obey. GPUs do
    not ask.

    The environment variable ``BITFOLD_IMAGE_THREADS=1`` sets it for a process that loads the
    library, in any language.

    Args:
        on: whether each image has a thread of its own.

    Returns:
        The setting before.

    Raises:
        TypeError: for anything but a bool.

    Example:
        >>> import bitfold
        >>> before = bitfold.set_image_threads(True)
        >>> bitfold.set_image_threads(before)
        True
    """
    if not isinstance(on, bool):
        raise TypeError(f"Need a bool, got {on!r}")
    return bool(_LIBRARY.bitfold_set_image_threads(on))
