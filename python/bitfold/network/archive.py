# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A network in one file: a zip archive of the model file and of the arithmetic of its layers."""

from __future__ import annotations

import dataclasses
import io
import json
import os
import tempfile
import zipfile
import zlib
from collections.abc import Collection, Mapping
from typing import Any

from bitfold._frame.library import VERSION
from bitfold.network import model_schema
from bitfold.network.arithmetic import Arithmetic

_FORMAT = 1
_MODEL, _FACTS = "model.tflite", "bitfold.json"
# What a file that was cut off or overwritten raises when it is read.
_DAMAGES = (
    zipfile.BadZipFile,
    zlib.error,
    EOFError,
    KeyError,
    TypeError,
    AttributeError,
    NotImplementedError,
    RuntimeError,
)


def pack(
    *, model: bytes, arithmetics: Mapping[int, Arithmetic], known_names: Collection[str]
) -> bytes:
    """Return the bytes of an archive."""
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
    content = io.BytesIO()
    with zipfile.ZipFile(content, "w") as archive:
        # Without the time: the same network is the same bytes, by which workers know it again.
        archive.writestr(zipfile.ZipInfo(_FACTS), json.dumps(facts, indent=1))
        archive.writestr(zipfile.ZipInfo(_MODEL), model, zipfile.ZIP_DEFLATED)
    return content.getvalue()


def unpack(content: bytes, name: str = "bytes") -> dict[str, Any]:
    """Return what was packed: the model, arithmetics and names.

    Raises:
        ValueError: for an archive that is damaged or of another kind; `name` says which.
    """
    if content[4:8] == model_schema.IDENTIFIER:
        raise ValueError(
            f"Need a file that Network.save wrote, got {name}, a model file; Network.from_tflite "
            "imports it"
        )
    try:
        with zipfile.ZipFile(io.BytesIO(content)) as archive:
            facts = json.loads(_member(archive, _FACTS))
            return {"model": _member(archive, _MODEL), **_arguments(facts)}
    except (*_DAMAGES, ValueError) as error:
        raise ValueError(f"Need a file that Network.save wrote, got {name}: {error}") from None


def write(path: str | os.PathLike[str], content: bytes) -> None:
    """Write a file that is there as a whole, or as it was before.

    Raises:
        OSError: naming the path, whatever could not be done on the way.
    """
    try:
        _write(path, content)
    except OSError as error:
        if error.errno is None:
            raise
        raise OSError(error.errno, os.strerror(error.errno), os.fspath(path)) from None


def _write(path: str | os.PathLike[str], content: bytes) -> None:
    folder = os.path.dirname(os.path.abspath(path))
    handle, temporary = tempfile.mkstemp(dir=folder, prefix=".bitfold-")
    try:
        with os.fdopen(handle, "wb") as file:
            file.write(content)
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


def _member(archive: zipfile.ZipFile, name: str) -> bytes:
    """Return a part of an archive, which may not be a thousand times longer than it is packed."""
    info = archive.getinfo(name)
    if info.file_size > 1100 * info.compress_size + 1024:
        raise zipfile.BadZipFile(f"{name} claims {info.file_size} bytes of {info.compress_size}")
    return archive.read(name)


def _arguments(facts: Any) -> dict[str, Any]:
    if facts["format"] != _FORMAT:
        raise ValueError(f"its format is {facts['format']}, of Bitfold {facts['version']}")
    arithmetics = {
        int(position): Arithmetic(**fields) for position, fields in facts["arithmetics"].items()
    }
    return {"arithmetics": arithmetics, "known_names": [str(n) for n in facts["layer_names"]]}
