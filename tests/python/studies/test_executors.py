# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Studies by workers: they find what this process finds, whatever becomes of the workers."""

from __future__ import annotations

import concurrent.futures
import json
import os
import signal
import time
from collections.abc import Iterator

import distributed
import numpy as np
import pytest
import remote
import tensorflow as tf
from small_study import PARTS, SETTINGS, SHARD, A, after_parts, images, plain

import bitfold
from bitfold.network.shards.processes import Processes
from bitfold_command.main import main


@pytest.fixture(scope="module")
def cluster(tmp_path_factory) -> Iterator[distributed.Client]:
    """A client of two workers, one of which has other instructions than this process."""
    environments = [{}, {"BITFOLD_TARGET": "avx2"}]
    with (
        remote.cluster(tmp_path_factory.mktemp("cluster"), environments) as file,
        distributed.Client(scheduler_file=file, set_as_default=False) as client,
    ):
        yield client


@pytest.fixture(scope="module")
def processes(cluster) -> Iterator[Processes]:
    """Two spawned processes, started beside those of the cluster."""
    with Processes(2) as pool:
        yield pool


def test_threads(network, data, expected, threads):
    """Of this process: each has its own runners."""
    found = bitfold.study(network, *data, arithmetics=SETTINGS, shard_size=SHARD, executor=threads)
    assert plain(found) == expected
    narrow = network.with_arithmetic(A(13))
    assert narrow.evaluate(*data, executor=threads) == narrow.evaluate(*data)


def test_shards_make_no_difference(network, data, expected, threads):
    """Nor do batches: all counts are those of this process."""
    for shard_size, batch_size in ((1000, 7), (33, 11)):
        found = bitfold.study(
            network, *data, arithmetics=SETTINGS, shard_size=shard_size, batch_size=batch_size,
            executor=threads,
        )  # fmt: skip
        assert plain(found) == expected


@pytest.mark.slow
def test_a_cluster_has_the_network_before_its_tasks(network, data, cluster):
    """All workers, or the few tasks of a small study would go to the one that had it first."""
    cluster.wait_for_workers(2, timeout=300)
    begin = time.time()
    narrow = network.with_arithmetic(A(13))
    assert narrow.evaluate(*data, executor=cluster.get_executor()) == narrow.evaluate(*data)
    copied = [
        event
        for worker in _workers(cluster)
        for when, event in cluster.get_events(worker)
        if when >= begin and event.get("action") == "replicate-add"
    ]
    assert len(copied) == 1  # from the one to the other


@pytest.mark.slow
def test_a_cluster_loses_a_worker(network, data, expected, cluster, monkeypatch):
    """The other one computes what it had in work: no count differs, and nothing is counted twice.

    Until then both compute, one of them with other instructions.
    """
    cluster.wait_for_workers(2, timeout=300)
    names = {info["name"]: address for address, info in _workers(cluster).items()}
    pids = cluster.run(os.getpid)
    in_work = []

    def kill():
        in_work.extend(cluster.processing()[names["worker0"]])
        os.kill(pids[names["worker0"]], signal.SIGKILL)

    finished = after_parts(monkeypatch, PARTS // 3, kill)
    found = bitfold.study(
        network, *data, arithmetics=SETTINGS, shard_size=SHARD, executor=cluster.get_executor()
    )
    assert plain(found) == expected
    assert finished == [PARTS]
    assert in_work
    assert list(_workers(cluster)) == [names["worker1"]]
    (target,) = cluster.run(os.getenv, "BITFOLD_TARGET").values()
    (share,) = cluster.run(tf.config.threading.get_intra_op_parallelism_threads).values()
    assert (target, share) == ("avx2", 1)


def _workers(client: distributed.Client) -> dict[str, dict]:
    return client.scheduler_info(n_workers=-1)["workers"]


@pytest.mark.slow
def test_the_command_on_a_cluster(network, data, cluster, tmp_path, capfd):
    """Studies and searches, with the numbers of this process."""
    network.save(tmp_path / "network.bitfold")
    np.savez(tmp_path / "data.npz", x=data[0], y=data[1])
    common = [str(tmp_path / "network.bitfold"), "--data", str(tmp_path / "data.npz")]
    chosen = ["--json", "--metric-loss", "0.1", "--widths", "12:20"]
    scheduler = ["--scheduler", cluster.scheduler.address]
    found = []
    for workers_ in ([], scheduler):
        assert main(["narrowest", *common, *chosen, *workers_]) == 0
        findings = json.loads(capfd.readouterr().out)["findings"]
        findings["seconds"] = 0
        findings["searches"][0]["seconds"] = 0
        found.append(findings)
    assert found[0] == found[1]


@pytest.mark.slow
def test_spawned_processes_lose_one(network, data, expected, processes, monkeypatch):
    """They are replaced, and compute again what was in work."""
    spawned = processes._pool

    def kill():
        os.kill(next(iter(spawned._processes)), signal.SIGKILL)

    finished = after_parts(monkeypatch, PARTS // 3, kill)
    found = bitfold.study(
        network, *data, arithmetics=SETTINGS, shard_size=SHARD, executor=processes
    )
    assert plain(found) == expected
    assert finished == [PARTS]
    assert processes._pool is not spawned


@pytest.mark.slow
def test_a_broken_pool(network, data, expected, processes, monkeypatch, tmp_path):
    """Of the standard library says what to do, and the study goes on from what was finished."""
    path = tmp_path / "parts"
    keywords = dict(arithmetics=SETTINGS, shard_size=SHARD, resume=path)
    pool = processes._pool
    with monkeypatch.context() as patch:
        kill = lambda: os.kill(next(iter(pool._processes)), signal.SIGKILL)  # noqa: E731
        before = after_parts(patch, PARTS // 3, kill)
        with pytest.raises(bitfold.WorkerError, match="A new one goes on with the finished shards"):
            bitfold.study(network, *data, **keywords, executor=pool)
    after = after_parts(monkeypatch, 0, lambda: None)
    assert plain(bitfold.study(network, *data, **keywords)) == expected
    assert before[0] + after[0] == PARTS
    assert before[0] >= PARTS // 3


def test_no_images(network, threads):
    """Are no work."""
    x, y = images(0, 1), np.zeros(0, int)
    assert np.isnan(network.evaluate(x, y, executor=threads))
    assert bitfold.study(network, x, y, executor=threads).findings.images == 0


def test_metrics_by_parts(network, threads):
    """What counts is that of this process; what adds real numbers is the same by any workers.

    Sums of quarters are exact in whatever order.
    """
    x, y = images(2500, 4), np.random.default_rng(5).integers(0, 4, 2500)
    for metric in (None, "sparse_categorical_accuracy", remote.quarters):
        here = network.evaluate(x, y, metric=metric)
        assert network.evaluate(x, y, metric=metric, executor=threads) == here
    loss = "sparse_categorical_crossentropy"
    by_two = network.evaluate(x, y, metric=loss, executor=threads)
    with concurrent.futures.ThreadPoolExecutor(1) as one:
        assert network.evaluate(x, y, metric=loss, executor=one) == by_two
