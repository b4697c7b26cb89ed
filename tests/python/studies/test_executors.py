# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Studies by workers: they find what this process finds, whatever becomes of the workers."""

from __future__ import annotations

import concurrent.futures
import dataclasses
import json
import multiprocessing
import os
import signal
import threading
from collections.abc import Callable, Iterator

import dask
import distributed
import keras
import numpy as np
import pytest
import remote
import tensorflow as tf

import bitfold
from bitfold.network.shards import executing, workers
from bitfold.network.shards.processes import Processes
from bitfold.studies.records import Findings
from bitfold.studies.resuming import Parts
from bitfold_command.main import main

A = bitfold.Arithmetic
SETTINGS = [A(13), A(use_fp16_acc=True), {"DEPTHWISE_CONV_2D": A(18, 1), "c1": A(12)}]
IMAGES, SHARD = 72, 6
PARTS = IMAGES // SHARD * (1 + len(SETTINGS))


@pytest.fixture(scope="module")
def network() -> bitfold.Network:
    """A network with layers of several kinds."""
    keras.utils.set_random_seed(5)
    layers = keras.layers
    model = keras.Sequential([
        keras.Input((9, 9, 2)),
        layers.Conv2D(6, 3, padding="same", activation="relu", name="c1"),
        layers.DepthwiseConv2D(3, strides=2, name="dw"),
        layers.Conv2D(5, 1, activation="relu", name="c2"),
        layers.Flatten(),
        layers.Dense(4, name="scores"),
    ])  # fmt: skip
    return bitfold.Network.from_keras(model, calibration=_images(40, 1))


@pytest.fixture(scope="module")
def data() -> tuple[np.ndarray, np.ndarray]:
    """Images and labels."""
    return _images(IMAGES, 2), np.random.default_rng(3).integers(0, 4, IMAGES)


@pytest.fixture(scope="module")
def expected(network, data) -> Findings:
    """What this process finds."""
    return _plain(bitfold.study(network, *data, arithmetics=SETTINGS, shard_size=SHARD))


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


@pytest.fixture
def threads() -> Iterator[concurrent.futures.Executor]:
    """Threads of this process."""
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        yield pool


def _images(count: int, seed: int) -> np.ndarray:
    return np.random.default_rng(seed).normal(size=(count, 9, 9, 2)).astype(np.float32)


def _plain(study: bitfold.Study) -> Findings:
    """Return what was found but for the time it took."""
    return dataclasses.replace(study.findings, seconds=0.0)


def _after(monkeypatch, parts: int, do: Callable[[], None]) -> list[int]:
    """Have something done when so many parts are finished; return how many were in the end."""
    add, finished = Parts.add, [0]

    def added(self, *arguments):
        add(self, *arguments)
        finished[0] += 1
        if finished[0] == parts:
            do()

    monkeypatch.setattr(Parts, "add", added)
    return finished


# ---- Wherever it is computed -------------------------------------------------------------------


def test_threads(network, data, expected, threads):
    """Of this process: each has its own runners."""
    found = bitfold.study(network, *data, arithmetics=SETTINGS, shard_size=SHARD, executor=threads)
    assert _plain(found) == expected
    narrow = network.with_arithmetic(A(13))
    assert narrow.evaluate(*data, executor=threads) == narrow.evaluate(*data)


def test_shards_make_no_difference(network, data, expected, threads):
    """Nor do batches: all counts are those of this process."""
    for shard_size, batch_size in ((1000, 7), (33, 11)):
        found = bitfold.study(
            network, *data, arithmetics=SETTINGS, shard_size=shard_size, batch_size=batch_size,
            executor=threads,
        )  # fmt: skip
        assert _plain(found) == expected


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

    finished = _after(monkeypatch, PARTS // 3, kill)
    found = bitfold.study(
        network, *data, arithmetics=SETTINGS, shard_size=SHARD, executor=cluster.get_executor()
    )
    assert _plain(found) == expected
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

    finished = _after(monkeypatch, PARTS // 3, kill)
    found = bitfold.study(
        network, *data, arithmetics=SETTINGS, shard_size=SHARD, executor=processes
    )
    assert _plain(found) == expected
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
        before = _after(patch, PARTS // 3, kill)
        with pytest.raises(bitfold.WorkerError, match="A new one goes on with the finished shards"):
            bitfold.study(network, *data, **keywords, executor=pool)
    after = _after(monkeypatch, 0, lambda: None)
    assert _plain(bitfold.study(network, *data, **keywords)) == expected
    assert before[0] + after[0] == PARTS
    assert before[0] >= PARTS // 3


# ---- What fails --------------------------------------------------------------------------------


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


class _Failing(concurrent.futures.Executor):
    """Computes here and now, but for the first calls, which end in errors."""

    def __init__(self, *errors: BaseException) -> None:
        self.errors = list(errors)

    def submit(self, function, /, *arguments):
        future = concurrent.futures.Future()
        if self.errors:
            error = self.errors.pop(0)
            if isinstance(error, concurrent.futures.CancelledError):
                future.cancel()
            else:
                future.set_exception(error)
        else:
            future.set_result(function(*arguments))
        return future


def test_an_executor_that_fails(network, data, expected):
    """Gets the same shards again; what it says is in the error."""
    errors = [OSError("a cable"), concurrent.futures.CancelledError(), MemoryError("no")]
    found = bitfold.study(
        network, *data, arithmetics=SETTINGS[:1], shard_size=SHARD, executor=_Failing(*errors)
    )
    assert found.layers == expected.layers
    assert found.results == expected.results[:1]
    with pytest.raises(
        bitfold.WorkerError, match=r"3 failures of shard 0, .*, executor: OSError: a"
    ):
        network.evaluate(*data, executor=_Failing(*[OSError("a cable")] * 3))


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
        before = _after(patch, 8, lambda: os.kill(process, signal.SIGINT))
        with pytest.raises(KeyboardInterrupt):
            bitfold.study(network, *data, **keywords, executor=threads)
    signal.signal(signal.SIGINT, handler)
    after = _after(monkeypatch, 0, lambda: None)
    found = bitfold.study(network, *data, **keywords, executor=threads)
    assert found.layers == expected.layers
    assert found.results == expected.results[:1]
    assert before == [8]
    assert after == [parts - 8]


# ---- What is refused ---------------------------------------------------------------------------


class _Client:
    """Has an executor, as a client of Dask, and is none."""

    def get_executor(self) -> None:
        """Stand for the client's."""


def test_executors_are_refused(network, data):
    """That are none, and those whose workers would hang."""
    for wrong in ("processes", 2, _Client()):
        with pytest.raises(TypeError, match=r"Need a concurrent\.futures\.Executor, got"):
            bitfold.study(network, *data, executor=wrong)
        with pytest.raises(TypeError, match=r"Need a concurrent\.futures\.Executor, got"):
            network.evaluate(*data, executor=wrong)
    with pytest.raises(TypeError, match=r"of a Dask client take get_executor\(\)"):
        network.evaluate(*data, executor=_Client())
    forks = concurrent.futures.ProcessPoolExecutor(
        1, mp_context=multiprocessing.get_context("fork")
    )
    with pytest.raises(ValueError, match="Need worker processes that are spawned, got forks"):
        network.evaluate(*data, executor=forks)
    with pytest.raises(ValueError, match="Need workers >= 1, got 0"):
        Processes(0)
    ended = concurrent.futures.ThreadPoolExecutor(1)
    ended.shutdown()
    with pytest.raises(bitfold.WorkerError, match="Need an executor that takes work"):
        network.evaluate(*data, executor=ended)


def test_data_are_refused(network, data, monkeypatch, tmp_path):
    """That no worker could read, and those that are too large to be sent."""
    x, y = data
    dataset = tf.data.Dataset.from_tensor_slices(data).batch(6)
    executor = _Failing()
    for call in (network.evaluate, lambda *given, **more: bitfold.study(network, *given, **more)):
        with pytest.raises(ValueError, match="Need arrays or files for an executor"):
            call(dataset, executor=executor)
    with pytest.raises(ValueError, match="Need labels y"):
        network.evaluate(x, executor=executor)
    with pytest.raises(TypeError, match="Need a metric that can be sent to workers"):
        network.evaluate(x, y, metric=lambda labels, outputs: outputs, executor=executor)
    np.savez(tmp_path / "images.npz", x=x, y=y)
    mapped = bitfold.data.npz(tmp_path / "images.npz", x="x", y="y").map(lambda x, y: (x, y))
    with pytest.raises(ValueError, match="with functions of a module and no lambdas"):
        network.evaluate(mapped, executor=Processes(1))
    monkeypatch.setattr(executing, "_MOST_SENT", 1 << 15)
    with pytest.raises(ValueError, match=r"Need data by reference for workers, .*, got 0 MB"):
        network.evaluate(x, y, executor=executor)


def test_no_images(network, threads):
    """Are no work."""
    x, y = _images(0, 1), np.zeros(0, int)
    assert np.isnan(network.evaluate(x, y, executor=threads))
    assert bitfold.study(network, x, y, executor=threads).findings.images == 0


def test_commands_are_refused(capfd, monkeypatch, tmp_path, network, data):
    """A scheduler that is not there, and one without Dask, are named in a line."""
    network.save(tmp_path / "network.bitfold")
    np.save(tmp_path / "x.npy", data[0])
    common = ["study", str(tmp_path / "network.bitfold"), "--data", str(tmp_path / "x.npy")]
    with dask.config.set({"distributed.comm.timeouts.connect": "0.2s"}):
        assert main([*common, "--scheduler", "tcp://127.0.0.1:1"]) == 2
    assert "127.0.0.1:1" in capfd.readouterr().err.splitlines()[-1]
    monkeypatch.setitem(__import__("sys").modules, "distributed", None)
    assert main([*common, "--scheduler", "tcp://127.0.0.1:1"]) == 2
    assert "bitfold: Need Dask for a scheduler" in capfd.readouterr().err
