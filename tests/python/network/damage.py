# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Reads damaged model files, one seed each: what happens is a graph or a ValueError.

A process of its own, as its memory is bounded: `python damage.py FIRST COUNT`. It prints what it
did, and the seed of what should not have happened.
"""

from __future__ import annotations

import collections
import random
import resource
import signal
import struct
import sys

from packing import small_graph

from bitfold.network.model_file import read
from bitfold.network.model_packer import pack

# What reading a small file may take, beyond what the process has when it starts.
MEMORY = 256 << 20
SECONDS = 20

HOSTILE = (0, 1, 3, 4, 8, 0x7F, 0xFFFF, 0x10000, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFFFFF0)


def damaged(source: bytes, rng: random.Random) -> bytes:
    """Return a file with up to four kinds of damage."""
    file = bytearray(source)
    for _ in range(rng.randint(1, 4)):
        kind, at = rng.randrange(6), rng.randrange(len(file))
        if kind == 0:
            file[at] ^= 1 << rng.randrange(8)
        elif kind == 1:
            file[at] = rng.randrange(256)
        elif kind == 2 and len(file) >= 8:
            at = min(at & ~3, len(file) - 4)
            struct.pack_into("<I", file, at, rng.choice(HOSTILE))
        elif kind == 3 and len(file) >= 8:
            at = min(at & ~3, len(file) - 4)
            near = struct.unpack_from("<i", file, at)[0] + rng.randint(-8, 8)
            struct.pack_into("<i", file, at, max(-(2**31), min(near, 2**31 - 1)))
        elif kind == 4:
            length, source_at = rng.randrange(1, 64), rng.randrange(len(file))
            file[at : at + length] = file[source_at : source_at + length]
        elif rng.random() < 0.2:
            del file[at:]
            file = file or bytearray(1)
    return bytes(file)


def check(file: bytes) -> str:
    """Read a file; what is read can be written and read again."""
    try:
        graph = read(file)
    except ValueError as error:
        if not str(error).startswith("the model file: "):
            raise AssertionError("an error that the reader did not raise") from error
        return "refused"
    try:
        copy = pack(graph)
    except ValueError:
        return "read, not packed"
    read(copy)
    return "read"


def _late(*_) -> None:
    raise TimeoutError


def main() -> None:
    """Read so many damaged files, and a file cut off at each of its bytes."""
    first, count = map(int, sys.argv[1:])
    with open("/proc/self/statm") as statm:
        present = int(statm.read().split()[0]) * resource.getpagesize()
    resource.setrlimit(resource.RLIMIT_AS, (present + MEMORY,) * 2)
    signal.signal(signal.SIGALRM, _late)
    source = pack(small_graph())
    assert check(source) == "read"
    files = ((f"length {n}", source[:n]) for n in range(len(source)))
    seeds = ((f"seed {n}", damaged(source, random.Random(n))) for n in range(first, first + count))
    tally: collections.Counter[str] = collections.Counter()
    for kind in (files, seeds):
        for name, file in kind:
            signal.alarm(SECONDS)
            try:
                tally[check(file)] += 1
            except BaseException:
                print(name)
                raise
    signal.alarm(0)
    print(dict(tally))


if __name__ == "__main__":
    main()
