# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A study's finished parts in a file, from which an interrupted one goes on.

The file has a line for what the study is, and then a line for each part as it is finished, with a
checksum. A line that a crash has cut off is no part and is passed over, so that the file can be
read at any moment, and a crash loses at most the parts in work. When the lines have become many
they are added up, and the file is replaced as a whole: what is written in all stays in proportion
to the number of parts.
"""

from __future__ import annotations

import errno
import fcntl
import json
import os
import re
import shutil
import time
import zlib
from collections.abc import Iterator, Mapping
from typing import Any, BinaryIO

from bitfold.network import archive
from bitfold.studies.tallies import Tally

_FORMAT = 2
# What a file of something else raises when it is read.
_CHECKSUM = re.compile(rb"[0-9a-f]{8}")
_DAMAGES = (ValueError, KeyError, TypeError, AttributeError, RecursionError)
# Lines are added up when they are this many bytes and as many times what adding up would leave.
_MANY = 1 << 20
_TIMES = 4
# After so many seconds what was written must be on the disk, even if the machine crashes.
_SECONDS = 1.0
# With less room than this on the disk no study begins.
_LEAST_ROOM = 1 << 20


class Parts:
    """The finished parts of a study, added up by setting; in a file where there is one.

    Used as a context, which closes the file.

    Attributes:
        tallies: by setting; None for the full-width pass.
    """

    def __init__(self, path: str | os.PathLike[str] | None, fingerprint: Mapping[str, str]) -> None:
        """Read what is there; write where nothing is, to see that it can be written.

        Args:
            path: of the file, or None.
            fingerprint: what tells this study from others, by what it is of.

        Raises:
            OSError: for a path that cannot be read or written, or that another study writes, and
                for a disk that is full.
            ValueError: for a file of another study or of another kind.
        """
        self.tallies: dict[int | None, Tally] = {}
        self._done: dict[int | None, set[int]] = {}
        self._digests: dict[int, str] = {}
        self._path = path
        self._fingerprint = dict(fingerprint)
        self._file: BinaryIO | None = None
        self._whole = self._added = 0
        self._secured = time.monotonic()
        if path is None:
            return
        _need_room(path)
        if self._is_whole():
            self._open()
        else:
            self._replace()

    def __enter__(self) -> Parts:
        """Return this."""
        return self

    def __exit__(self, *_: object) -> None:
        """Close the file, with all that was added on the disk."""
        if self._file is not None:
            os.fsync(self._file.fileno())
            self._file.close()

    @property
    def needs_digests(self) -> bool:
        """Whether shards must be told from those of other data."""
        return self._path is not None

    def is_done(self, setting: int | None, shard: int) -> bool:
        """Return whether a part is finished."""
        return shard in self._done.get(setting, ())

    def check(self, shard: int, digest: str) -> None:
        """Compare a shard with that of the finished parts.

        Raises:
            ValueError: where these were of other data.
        """
        if shard not in self._digests:
            self._digests[shard] = digest
            if self._file is not None:
                self._append({"shard": shard, "digest": digest})
        elif self._digests[shard] != digest:
            raise ValueError(f"Need the data of the study in {self._path}, got other data")

    def add(self, setting: int | None, shard: int, tally: Tally) -> None:
        """Keep what a part counted.

        Raises:
            OSError: where it cannot be written; what was kept before is still there.
        """
        self._add(setting, [shard], tally)
        if self._file is not None:
            self._append(_part(setting, [shard], tally))
            if self._added > max(_MANY, _TIMES * self._whole):
                self._replace()

    def _add(self, setting: int | None, shards: list[int], tally: Tally) -> None:
        self.tallies[setting] = self.tallies.get(setting, Tally()) + tally
        self._done.setdefault(setting, set()).update(shards)

    def _append(self, content: Mapping[str, Any]) -> None:
        line = _line(content)
        self._added += len(line)
        try:
            while line:
                line = line[self._file.write(line) :]
        except OSError as error:
            raise OSError(error.errno, error.strerror, os.fspath(self._path)) from None
        if time.monotonic() - self._secured > _SECONDS:
            os.fsync(self._file.fileno())
            self._secured = time.monotonic()

    def _replace(self) -> None:
        """Write a file of as few lines as there can be in place of what is there."""
        archive.write(self._path, b"".join(map(_line, self._lines())))
        if self._file is not None:
            self._file.close()
        self._open()

    def _open(self) -> None:
        """Have a file to which lines are added."""
        self._file = open(self._path, "ab", buffering=0)  # noqa: SIM115
        _lock(self._file, self._path)
        self._whole, self._added = self._file.tell(), 0

    def _lines(self) -> Iterator[dict[str, Any]]:
        yield {
            "kind": "finished parts of a Bitfold study",
            "format": _FORMAT,
            "fingerprint": self._fingerprint,
        }
        for shard, digest in self._digests.items():
            yield {"shard": shard, "digest": digest}
        for setting, tally in self.tallies.items():
            yield _part(setting, sorted(self._done[setting]), tally)

    def _is_whole(self) -> bool:
        """Read the file; return whether it is there, and no line of it is damaged."""
        path = self._path
        if not os.path.exists(path):
            return False
        if not os.path.isfile(path) and not os.path.isdir(path):  # a device may have no end
            raise OSError(errno.EINVAL, "is no file", os.fspath(path))
        with open(path, "rb") as file:
            _lock(file, path)
            lines = file.read().split(b"\n")
        self._read_head(lines[0])
        are_whole = [self._has_read(line) for line in lines[1:-1]]
        return all(are_whole) and not lines[-1]

    def _read_head(self, line: bytes) -> None:
        try:
            head = _content(line)
            if head["format"] != _FORMAT:
                raise ValueError(f"its format is {head['format']}")
            fingerprint = head["fingerprint"]
            different = [
                name
                for name in {**self._fingerprint, **fingerprint}
                if fingerprint.get(name) != self._fingerprint.get(name)
            ]
        except _DAMAGES as error:
            raise ValueError(
                f"Need a file of a study's finished parts, got {self._path}: {error}"
            ) from None
        if different:
            raise ValueError(
                f"Need finished parts of this study, got {self._path} of another: it differs in "
                f"{', '.join(different)}"
            )

    def _has_read(self, line: bytes) -> bool:
        """Take what a line holds; False for one that is damaged, as a crash leaves it."""
        try:
            found = _content(line)
            if "digest" in found:
                self._digests[int(found["shard"])] = str(found["digest"])
            else:
                shards, tally = list(map(int, found["shards"])), Tally.from_json(found["tally"])
                self._add(found["setting"], shards, tally)
        except _DAMAGES:
            return False
        return True


def _part(setting: int | None, shards: list[int], tally: Tally) -> dict[str, Any]:
    return {"setting": setting, "shards": shards, "tally": tally.to_json()}


def _line(content: Mapping[str, Any]) -> bytes:
    text = json.dumps(content, separators=(",", ":")).encode()
    return b"%08x %s\n" % (zlib.crc32(text), text)


def _content(line: bytes) -> Any:
    """Return what a line holds.

    Raises:
        ValueError: for one that is not whole.
    """
    checksum, _, text = line.partition(b" ")
    if not _CHECKSUM.fullmatch(checksum) or int(checksum, 16) != zlib.crc32(text):
        raise ValueError("a line is damaged")
    return json.loads(text)


def _need_room(path: str | os.PathLike[str]) -> None:
    """Raise OSError where a disk is full."""
    folder = os.path.dirname(os.path.abspath(path))
    if shutil.disk_usage(folder).free < _LEAST_ROOM:
        raise OSError(errno.ENOSPC, os.strerror(errno.ENOSPC), os.fspath(path))


def _lock(file: BinaryIO, path: str | os.PathLike[str]) -> None:
    """Make sure that no other study writes the file.

    Raises:
        BlockingIOError: where one does.
    """
    try:
        fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError as error:
        raise BlockingIOError(error.errno, "another study writes it", os.fspath(path)) from None
    except OSError:
        return  # a file system without locks
