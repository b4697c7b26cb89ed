# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Executors, workers and shards that fail, and studies that are interrupted."""

from __future__ import annotations

import concurrent.futures
import os
import signal
import threading

import pytest
import remote
from small_study import IMAGES, SETTINGS, SHARD, Failing, after_parts

import bitfold
from bitfold.network.shards import workers


def test_a_shard_that_fails(network, data, threads, monkeypatch):
    """Is tried three times; the error has the setting, the shard and the worker's own words."""
    x, y = data
    y = y.copy()
    y[3 * SHARD + 2] = remote.BAD
    tried = []
    compute = workers.compute

    def counting(parcel, key, shard):
        tried.append((key, shard.index))
        return compute(parcel, key, shard)

    monkeypatch.setattr(workers, "compute", counting)
    text = (
        r"3 failures of shard 3, full width; the last, process \d+ on .*: ValueError: the label 99"
    )
    with pytest.raises(bitfold.WorkerError, match=text):
        bitfold.study(
            network, x, y, metric=remote.share_of_zeros, shard_size=SHARD, executor=threads
        )
    assert tried.count((None, 3)) == 3


def test_an_executor_that_fails(network, data, expected):
    """Gets the same shards again; what it says is in the error."""
    errors = [OSError("a cable"), concurrent.futures.CancelledError(), MemoryError("no")]
    found = bitfold.study(
        network, *data, arithmetics=SETTINGS[:1], shard_size=SHARD, executor=Failing(*errors)
    )
    assert found.layers == expected.layers
    assert found.results == expected.results[:1]
    with pytest.raises(
        bitfold.WorkerError, match=r"3 failures of shard 0, .*, executor: OSError: a"
    ):
        network.evaluate(*data, executor=Failing(*[OSError("a cable")] * 3))


def test_workers_of_another_version(network, data, threads, monkeypatch):
    """Say who they are and what they have; nobody tries again."""
    caller = threading.get_ident()
    own = workers._versions()

    def versions():
        return own if threading.get_ident() == caller else (("bitfold", "0.1"), own[1])

    monkeypatch.setattr(workers, "_versions", versions)
    text = r"process \d+ on .*, shard 0, full width: Need bitfold .* and .*, got bitfold 0\.1 and"
    with pytest.raises(bitfold.WorkerError, match=text):
        bitfold.study(network, *data, executor=threads)


def test_an_interrupt(network, data, expected, threads, tmp_path, monkeypatch):
    """Ends the study at once, with the file whole; it goes on from there."""
    path = tmp_path / "parts"
    keywords = dict(arithmetics=SETTINGS[:1], shard_size=SHARD, resume=path)
    process, parts = os.getpid(), 2 * IMAGES // SHARD
    # A process that was started in the background ignores interrupts.
    handler = signal.signal(signal.SIGINT, signal.default_int_handler)
    with monkeypatch.context() as patch:
        before = after_parts(patch, 8, lambda: os.kill(process, signal.SIGINT))
        with pytest.raises(KeyboardInterrupt):
            bitfold.study(network, *data, **keywords, executor=threads)
    signal.signal(signal.SIGINT, handler)
    after = after_parts(monkeypatch, 0, lambda: None)
    found = bitfold.study(network, *data, **keywords, executor=threads)
    assert found.layers == expected.layers
    assert found.results == expected.results[:1]
    assert before == [8]
    assert after == [parts - 8]
