# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What is released, made once from this checkout: a source distribution, and a wheel of it."""

from __future__ import annotations

import pathlib
import shutil
import subprocess
import sys
import tarfile

import pytest
from environments import FOLDER, ROOT

sys.path.insert(0, str(ROOT / "scripts"))

import build_wheel


@pytest.fixture(scope="session")
def sdist() -> pathlib.Path:
    """The source distribution."""
    folder = FOLDER / "sdist"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    code = "import sys; from scikit_build_core.build import build_sdist; build_sdist(sys.argv[1])"
    subprocess.run(
        [sys.executable, "-c", code, folder], cwd=ROOT, check=True, stdout=subprocess.DEVNULL
    )
    (file,) = folder.iterdir()
    return file


@pytest.fixture(scope="session")
def sources(sdist) -> pathlib.Path:
    """The folder that it unpacks to."""
    folder = sdist.parent / "unpacked"
    shutil.rmtree(folder, ignore_errors=True)
    with tarfile.open(sdist) as archive:
        archive.extractall(folder)
    (top,) = folder.iterdir()
    return top


@pytest.fixture(scope="session")
def wheel(sources) -> pathlib.Path:
    """The wheel, built from what was unpacked: the source distribution has all that it takes."""
    folder = FOLDER / "wheel"
    shutil.rmtree(folder, ignore_errors=True)
    return build_wheel.build(sources, folder)
