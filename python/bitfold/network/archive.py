# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A network in one file: a zip archive of the model file and of the arithmetic of its layers."""

from __future__ import annotations

import dataclasses
import json
import os
import tempfile
import zipfile
from collections.abc import Collection, Mapping
from typing import Any

from bitfold._frame.library import VERSION
from bitfold.network.arithmetic import Arithmetic

_FORMAT = 1
_MODEL, _FACTS = "model.tflite", "bitfold.json"


def write(
    path: str | os.PathLike[str],
    *,
    model: bytes,
    arithmetics: Mapping[int, Arithmetic],
    known_names: Collection[str],
) -> None:
    """Write a network. The file is there as a whole, or as it was before."""
    facts = {
        "format": _FORMAT,
        "version": VERSION,
        "arithmetics": {
            str(position): dataclasses.asdict(arithmetic)
            for position, arithmetic in arithmetics.items()
            if arithmetic != Arithmetic()
        },
        "layer_names": list(known_names),
    }
    folder = os.path.dirname(os.path.abspath(path))
    handle, temporary = tempfile.mkstemp(dir=folder, prefix=".bitfold-")
    try:
        with os.fdopen(handle, "wb") as file, zipfile.ZipFile(file, "w") as archive:
            archive.writestr(_FACTS, json.dumps(facts, indent=1))
            archive.writestr(_MODEL, model, zipfile.ZIP_DEFLATED)
        os.chmod(temporary, 0o666 & ~_mask())
        os.replace(temporary, path)
    except BaseException:
        os.unlink(temporary)
        raise


def _mask() -> int:
    """Return the bits that new files do not get."""
    mask = os.umask(0)
    os.umask(mask)
    return mask


def read(path: str | os.PathLike[str]) -> dict[str, Any]:
    """Return the arguments of the network that was written.

    Raises:
        OSError: for a path that cannot be read.
        ValueError: for a file that is damaged or of another kind.
    """
    try:
        with zipfile.ZipFile(path) as archive:
            facts = json.loads(_member(archive, _FACTS))
            model = _member(archive, _MODEL)
    except (
        zipfile.BadZipFile,
        KeyError,
        EOFError,
        UnicodeDecodeError,
        NotImplementedError,
    ) as error:
        raise ValueError(f"Need a file that Network.save wrote, got {path}: {error}") from None
    except json.JSONDecodeError as error:
        raise ValueError(f"Need a file that Network.save wrote, got {path}: {error}") from None
    return {"model": model, **_arguments(facts, path)}


def _member(archive: zipfile.ZipFile, name: str) -> bytes:
    """Return a part of an archive, which may not be a thousand times longer than it is packed."""
    info = archive.getinfo(name)
    if info.file_size > 1100 * info.compress_size + 1024:
        raise zipfile.BadZipFile(f"{name} claims {info.file_size} bytes of {info.compress_size}")
    return archive.read(name)


def _arguments(facts: Any, path: Any) -> dict[str, Any]:
    try:
        if facts["format"] != _FORMAT:
            raise ValueError(
                f"Need format {_FORMAT}, got {facts['format']} of Bitfold {facts['version']}"
            )
        arithmetics = {
            int(position): Arithmetic(**fields) for position, fields in facts["arithmetics"].items()
        }
        return {"arithmetics": arithmetics, "known_names": [str(n) for n in facts["layer_names"]]}
    except (KeyError, TypeError, AttributeError) as error:
        raise ValueError(f"Need a file that Network.save wrote, got {path}: {error!r}") from None
