# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Executors and data that are refused."""

from __future__ import annotations

import concurrent.futures
import multiprocessing

import dask
import numpy as np
import pytest
import tensorflow as tf
from small_study import Failing

import bitfold
from bitfold.network.shards import executing
from bitfold.network.shards.processes import Processes
from bitfold_command.main import main


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
    executor = Failing()
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
