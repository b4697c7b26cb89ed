# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""A study's finished parts in a file, from which an interrupted one goes on.

The file is replaced as a whole after each part, so that it is readable at any moment, and a crash
loses at most the part in work.
"""

from __future__ import annotations

import json
import os
from collections.abc import Mapping

from bitfold.network import archive
from bitfold.studies.passes import Task
from bitfold.studies.tallies import Tally

_FORMAT = 1
# What a file of something else raises when it is read.
_DAMAGES = (ValueError, KeyError, TypeError, AttributeError, RecursionError)


class Parts:
    """The finished parts of a study, added up by setting; in a file where there is one.

    Attributes:
        tallies: by setting; None for the full-width pass.
    """

    def __init__(self, path: str | os.PathLike[str] | None, fingerprint: Mapping[str, str]) -> None:
        """Read what is there; write where nothing is, to see that it can be written.

        Args:
            path: of the file, or None.
            fingerprint: what tells this study from others, by what it is of.

        Raises:
            OSError: for a path that cannot be read or written.
            ValueError: for a file of another study or of another kind.
        """
        self.tallies: dict[int | None, Tally] = {}
        self._done: dict[int | None, set[int]] = {}
        self._digests: dict[int, str] = {}
        self._path = path
        self._fingerprint = dict(fingerprint)
        if path is None:
            return
        if os.path.exists(path):
            with open(path, "rb") as file:
                self._read(file.read())
        self._write()

    @property
    def needs_digests(self) -> bool:
        """Whether shards must be told from those of other data."""
        return self._path is not None

    def is_done(self, task: Task) -> bool:
        """Return whether a part is finished."""
        return task.shard in self._done.get(task.setting, ())

    def check(self, shard: int, digest: str) -> None:
        """Compare a shard with that of the finished parts.

        Raises:
            ValueError: where these were of other data.
        """
        if self._digests.setdefault(shard, digest) != digest:
            raise ValueError(f"Need the data of the study in {self._path}, got other data")

    def add(self, task: Task, tally: Tally) -> None:
        """Keep what a part counted."""
        self.tallies[task.setting] = self.tallies.get(task.setting, Tally()) + tally
        self._done.setdefault(task.setting, set()).add(task.shard)
        if self._path is not None:
            self._write()

    def _write(self) -> None:
        content = {
            "kind": "finished parts of a Bitfold study",
            "format": _FORMAT,
            "fingerprint": self._fingerprint,
            "digests": {str(shard): digest for shard, digest in self._digests.items()},
            "parts": [
                {"setting": setting, "shards": sorted(self._done[setting]),
                 "tally": tally.to_json()}
                for setting, tally in self.tallies.items()
            ],
        }  # fmt: skip
        archive.write(self._path, json.dumps(content).encode())

    def _read(self, content: bytes) -> None:
        try:
            found = json.loads(content)
            if found["format"] != _FORMAT:
                raise ValueError(f"its format is {found['format']}")
            fingerprint = found["fingerprint"]
            digests = {int(shard): str(digest) for shard, digest in found["digests"].items()}
            parts = [
                (part["setting"], set(map(int, part["shards"])), Tally.from_json(part["tally"]))
                for part in found["parts"]
            ]
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
        self._digests = digests
        for setting, shards, tally in parts:
            self._done[setting] = shards
            self.tallies[setting] = tally
