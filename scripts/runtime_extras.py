# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The extras that bring the runtime: each patch release of the version that the library is for.

The build asks for them, so the metadata of a wheel says which runtime it belongs to, whatever that
was.
"""

from __future__ import annotations

import importlib.metadata
import pathlib
import re
import tomllib
from collections.abc import Mapping
from typing import Any

_WHEELS = {"cpu": "tensorflow-cpu", "gpu": "tensorflow"}


def dynamic_metadata(settings: Mapping[str, Any], project: Mapping[str, Any]) -> dict[str, Any]:
    """Return the part of the project's table that depends on the runtime of the build."""
    del settings, project
    version = runtime_version()
    series = re.fullmatch(r"(\d+\.\d+)\.\d+", version)  # pre-releases have none
    accepted = f"=={series[1]}.*" if series else f"=={version}"
    return {"optional-dependencies": {e: [w + accepted] for e, w in _WHEELS.items()}}


def runtime_version() -> str:
    """Return the version of the runtime that is installed, or what the build would install."""
    for wheel in _WHEELS.values():
        try:
            return importlib.metadata.version(wheel)
        except importlib.metadata.PackageNotFoundError:
            continue
    # A source distribution is made without the runtime, too.
    pyproject = pathlib.Path(__file__).parents[1] / "pyproject.toml"
    requires = tomllib.loads(pyproject.read_text())["build-system"]["requires"]
    (pin,) = (r for r in requires if r.startswith("tensorflow-cpu=="))
    return pin.partition("==")[2]
