# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Code in processes of its own that may end in any way and that start at once.

They are forks of one server, which has imported TensorFlow, which takes seconds, but not the
package, and computed nothing. What the package reads from the environment the code can set before
it imports it; a test of the start itself, or of what the runtime reads, needs `support.run_python`.
"""

from __future__ import annotations

import ctypes
import multiprocessing
import os
import pathlib
import subprocess
import sys
import tempfile
import traceback

_SERVER = multiprocessing.get_context("forkserver")
_SERVER.set_forkserver_preload(["tensorflow"])
_SECONDS = 240


def run(
    code: str, *arguments: str, python_path: str | None = None
) -> subprocess.CompletedProcess[str]:
    """Run `code` in a process of its own, away from the checkout, and return what it wrote."""
    with tempfile.TemporaryDirectory() as folder:
        process = _SERVER.Process(target=_execute, args=(code, arguments, python_path, folder))
        process.start()
        process.join(_SECONDS)
        if process.exitcode is None:
            process.kill()
            process.join()
            raise subprocess.TimeoutExpired(code, _SECONDS, *_written(folder))
        return subprocess.CompletedProcess(code, process.exitcode, *_written(folder))


def _written(folder: str) -> list[str]:
    return [_stream(folder, name).read_text(errors="replace") for name in ("out", "err")]


def _stream(folder: str, name: str) -> pathlib.Path:
    return pathlib.Path(folder, name)


def _execute(code: str, arguments: tuple[str, ...], python_path: str | None, folder: str) -> None:
    """Run `code` as an interpreter's command would be, its output in files of `folder`."""
    os.chdir(folder)
    sys.argv = ["-c", *arguments]
    if python_path is not None:
        sys.path.insert(0, python_path)
    for number, name in ((1, "out"), (2, "err")):
        with _stream(folder, name).open("wb") as file:
            os.dup2(file.fileno(), number)
    status = 0
    try:
        exec(compile(code, "<code>", "exec"), {"__name__": "__main__"})
    except SystemExit as end:
        status = end.code if isinstance(end.code, int) else int(end.code is not None)
    except BaseException:
        traceback.print_exc()
        status = 1
    sys.stdout.flush()
    sys.stderr.flush()
    ctypes.CDLL(None).fflush(None)
    # Without the runtime's destructors, which would wait for threads that a fork has not.
    os._exit(status)
