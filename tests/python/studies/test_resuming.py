# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The file of a study's finished parts: what is in it whatever happened."""

from __future__ import annotations

import errno
import os
import shutil

import numpy as np
import pytest

from bitfold.network import archive
from bitfold.studies import resuming
from bitfold.studies.records import Counts
from bitfold.studies.resuming import Parts
from bitfold.studies.tallies import LayerTally, Tally

FINGERPRINT = {"the network": "this", "the metric": "none"}
PARTS = [(setting, shard) for setting in (None, 0, 1) for shard in range(5)]


def _tally(setting: int | None, shard: int) -> Tally:
    """Return other numbers for each part."""
    number = 10 * shard + (setting or 7)
    extremes = np.array([[-number], [number], [-2 * number], [2 * number]], np.int64)
    layer = LayerTally(number, {"16/0": Counts(number, 1, 2, 3)}, extremes, (-number, number))
    return Tally(number, {0: layer}, {shard: [np.float32([number / 3])]}, {"a": number}, 0.5)


def _fill(path: os.PathLike[str]) -> None:
    """Finish every part that is not."""
    with Parts(path, FINGERPRINT) as parts:
        for setting, shard in PARTS:
            if setting is None:
                parts.check(shard, f"digest {shard}")
            if not parts.is_done(setting, shard):
                parts.add(setting, shard, _tally(setting, shard))


def _held(path: os.PathLike[str]) -> dict:
    """Return what a file has: of each setting the sums."""
    with Parts(path, FINGERPRINT) as parts:
        done = [part for part in PARTS if parts.is_done(*part)]
        for setting, tally in parts.tallies.items():
            added = Tally()
            for of, shard in done:
                added = added + _tally(of, shard) if of == setting else added
            assert tally.to_json() == added.to_json()
        return {part: True for part in done}


def test_a_file_cut_anywhere(tmp_path):
    """It has all parts whose lines are whole, and what is missing can be added."""
    path = tmp_path / "parts"
    _fill(path)
    whole = path.read_bytes()
    assert list(_held(path)) == PARTS
    head = whole.index(b"\n") + 1
    for end in [*range(head, head + 90), *range(head + 90, len(whole), 61), len(whole) - 1]:
        path.write_bytes(whole[:end])
        lines = whole[:end].split(b"\n")[:-1]
        assert len(_held(path)) == sum(b"tally" in line for line in lines)
        _fill(path)
        assert list(_held(path)) == PARTS


def test_a_damaged_line(tmp_path):
    """Is passed over, wherever it is."""
    path = tmp_path / "parts"
    _fill(path)
    lines = path.read_bytes().splitlines(keepends=True)
    place = next(i for i, line in enumerate(lines) if b"tally" in line)
    lines[place] = lines[place].replace(b"7", b"8", 1)
    path.write_bytes(b"".join(lines))
    assert list(_held(path)) == PARTS[1:]
    path.write_bytes(b"".join(lines) + b"\0" * 999)
    assert list(_held(path)) == PARTS[1:]


def test_many_lines_are_added_up(tmp_path, monkeypatch):
    """The file stays short, and what is written in all grows as the number of parts does."""
    monkeypatch.setattr(resuming, "_MANY", 1 << 10)
    write, replaced = archive.write, []

    def counting(path, content):
        replaced.append(len(content))
        write(path, content)

    monkeypatch.setattr(archive, "write", counting)
    written = []
    for count in (200, 400):
        replaced.clear()
        path = tmp_path / f"{count}"
        with Parts(path, FINGERPRINT) as parts:
            for shard in range(count):
                parts.add(0, shard, Tally(1, {0: LayerTally(shard)}))
        with Parts(path, FINGERPRINT) as parts:
            assert all(parts.is_done(0, shard) for shard in range(count))
            assert parts.tallies[0].layers[0].sums == sum(range(count))
        assert len(replaced) > 3
        assert path.stat().st_size < 40 * count
        written.append(sum(replaced))
    assert written[1] < 3 * written[0]


def test_a_crash_while_lines_are_added_up(tmp_path, monkeypatch):
    """The file is replaced as a whole, or stays as it was."""
    path = tmp_path / "parts"
    monkeypatch.setattr(resuming, "_MANY", 1)

    def crash(source, target):
        raise ConnectionError

    with Parts(path, FINGERPRINT) as parts, monkeypatch.context() as patch:
        patch.setattr("os.replace", crash)
        with pytest.raises(ConnectionError):  # noqa: PT012
            for part in PARTS:
                parts.add(*part, _tally(*part))
    assert 1 < len(_held(path)) < len(PARTS)
    assert [file.name for file in tmp_path.iterdir()] == ["parts"]


def test_a_disk_that_becomes_full(tmp_path, monkeypatch):
    """Ends the study with the path; what was finished before is there."""
    path = tmp_path / "parts"
    with Parts(path, FINGERPRINT) as parts:
        for part in PARTS[:3]:
            parts.add(*part, _tally(*part))
        parts._file = _Full(parts._file)
        with pytest.raises(OSError, match=r"No space left on device: '.*parts'"):
            parts.add(*PARTS[3], _tally(*PARTS[3]))
    assert list(_held(path)) == PARTS[:3]
    before = path.read_bytes()
    monkeypatch.setattr(shutil, "disk_usage", lambda _: shutil._ntuple_diskusage(9, 9, 0))
    for name in ("parts", "new"):
        with pytest.raises(OSError, match="No space left on device: "):
            Parts(tmp_path / name, FINGERPRINT)
    assert path.read_bytes() == before
    assert [file.name for file in tmp_path.iterdir()] == ["parts"]


class _Full:
    """A file that takes some bytes and no more."""

    def __init__(self, file) -> None:
        self._file, self._room = file, 20

    def write(self, line: bytes) -> int:
        if not self._room:
            raise OSError(errno.ENOSPC, os.strerror(errno.ENOSPC))
        count, self._room = self._file.write(line[: self._room]), 0
        return count

    def __getattr__(self, name: str):
        return getattr(self._file, name)


def test_two_studies_at_once(tmp_path):
    """The second is refused, not mixed with the first."""
    path = tmp_path / "parts"
    with Parts(path, FINGERPRINT) as parts:
        with pytest.raises(OSError, match=r"another study writes it: '.*parts'"):
            Parts(path, FINGERPRINT)
        parts.add(*PARTS[0], _tally(*PARTS[0]))
    assert list(_held(path)) == PARTS[:1]


@pytest.mark.parametrize(
    "content", [b"", b"{", b"[]", b"{}", b'{"format": 2}', b"\xff" * 9, b"0" * 8, b"\n" * 3]
)
def test_other_files_are_refused(tmp_path, content):
    """And stay as they are."""
    path = tmp_path / "parts"
    path.write_bytes(content)
    with pytest.raises(ValueError, match=r"Need a file of a study's finished parts, got .*parts"):
        Parts(path, FINGERPRINT)
    assert path.read_bytes() == content


def test_paths_are_refused(tmp_path):
    """That cannot be files."""
    for path in (tmp_path / "no folder" / "parts", tmp_path, "/dev/full"):
        with pytest.raises(OSError, match=str(path).removesuffix("/parts")):
            Parts(path, FINGERPRINT)


def test_another_study_is_refused(tmp_path):
    """With what differs, before anything is written."""
    path = tmp_path / "parts"
    _fill(path)
    before = path.read_bytes()
    with pytest.raises(ValueError, match=r"of another: it differs in the metric, the data$"):
        Parts(path, {"the network": "this", "the metric": "that", "the data": "all"})
    assert path.read_bytes() == before
