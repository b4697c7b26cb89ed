# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Imports without what the runtime says of itself while it is loaded; knows nothing of it."""

from __future__ import annotations

import importlib
import os
import signal
import sys
import tempfile
from types import ModuleType


def imported(name: str) -> ModuleType:
    """Return a module; what is written while it is imported is shown only where that fails."""
    os.environ.setdefault("TF_CPP_MIN_LOG_LEVEL", "2")
    sys.stderr.flush()
    kept = os.dup(2)
    with tempfile.TemporaryFile() as said:
        os.dup2(said.fileno(), 2)
        try:
            return importlib.import_module(name)
        except BaseException:
            said.seek(0)
            os.write(kept, said.read())
            raise
        finally:
            sys.stderr.flush()
            os.dup2(kept, 2)
            os.close(kept)


def begin_worker() -> None:
    """Begin a worker process: an interrupt is for the process that the user talks to."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    imported("bitfold")
