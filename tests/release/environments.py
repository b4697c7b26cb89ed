# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Virtual environments that know neither the checkout nor, if so wanted, a compiler."""

from __future__ import annotations

import os
import pathlib
import shutil
import subprocess
import venv
from collections.abc import Sequence

ROOT = pathlib.Path(__file__).resolve().parents[2]
# TensorFlow takes 1.5 GB: in the checkout's own folder of what is built, and gone afterwards.
FOLDER = ROOT / "build" / "release"


class Environment:
    """A fresh virtual environment; its commands run in an empty folder."""

    def __init__(self, name: str) -> None:
        """Make the environment anew."""
        self._folder = FOLDER / name
        shutil.rmtree(self._folder, ignore_errors=True)
        self._programs = self._folder / "bin"
        self.python = self._programs / "python"
        self.empty = self._folder / "empty"
        venv.create(self._folder, with_pip=True)
        self.empty.mkdir()

    def remove(self) -> None:
        """Give the disk back."""
        shutil.rmtree(self._folder)

    def install(self, *arguments: object) -> None:
        """Install packages by pip."""
        pip = (self.python, "-m", "pip", "--disable-pip-version-check", "install", "--quiet")
        self._passes([*pip, *arguments], self._variables(compilers=False) | _network())

    def run(self, *arguments: object) -> str:
        """Run this Python where there is no compiler; return what it printed."""
        return self._passes([self.python, *arguments], self._variables(compilers=False))

    def fails(self, *arguments: object) -> str:
        """The same for what must fail; return the last line of its errors."""
        done = self._run([self.python, *arguments], self._variables(compilers=False))
        assert done.returncode, f"{arguments} passed:\n{done.stdout}"
        return done.stderr.rstrip().splitlines()[-1]

    def typed(self, line: str) -> str:
        """Run a line as a shell of someone who activated this environment and has a compiler."""
        return self._passes(["bash", "-ec", line], self._variables(compilers=True) | _network())

    def _variables(self, *, compilers: bool) -> dict[str, str]:
        path = [str(self._programs), *([os.environ["PATH"]] if compilers else [])]
        return {
            "PATH": os.pathsep.join(path),
            "HOME": str(self.empty),
            "LANG": "C.UTF-8",
            "TF_CPP_MIN_LOG_LEVEL": "2",
        }

    def _run(
        self, command: Sequence[object], variables: dict[str, str]
    ) -> subprocess.CompletedProcess[str]:
        words = [str(word) for word in command]
        return subprocess.run(
            words, cwd=self.empty, env=variables, capture_output=True, text=True, check=False
        )

    def _passes(self, command: Sequence[object], variables: dict[str, str]) -> str:
        done = self._run(command, variables)
        assert not done.returncode, (
            f"{' '.join(map(str, command))} ended with {done.returncode}:\n"
            f"{done.stdout[-8000:]}\n{done.stderr[-8000:]}"
        )
        return done.stdout


def _network() -> dict[str, str]:
    """Return how this machine reaches the package index, and what it has of it."""
    words = ("PIP_", "SSL_", "HTTP_", "HTTPS_", "NO_PROXY", "REQUESTS_", "CCACHE_")
    found = {k: v for k, v in os.environ.items() if k.upper().startswith(words)}
    cache = pathlib.Path.home() / ".cache" / "pip"
    return {"PIP_CACHE_DIR": str(cache)} | found
