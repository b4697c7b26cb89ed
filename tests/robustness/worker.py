# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The process that runs calls: loads TensorFlow and the library once, then each batch in a fork.

It has run no op when it forks, so that each fork is as good as new and costs milliseconds. Batches
come as lines of JSON on standard input; see `children.Runtime`, which starts it. Answers are lines
of JSON, too: ["start", job], ["done", job, outcome], and ["exit", status, standard error, lines].
"""

from __future__ import annotations

import ctypes
import hashlib
import json
import os
import resource
import signal
import sys
import tempfile
from typing import Any

import calls
import execution
import tensorflow as tf
from tensorflow.python.eager import context

REAL_TIME = 12  # times the limit of processor time: the machine may be busy


class Answers:
    """Where lines of JSON are written to."""

    def __init__(self, descriptor: int) -> None:
        """Write to a file descriptor."""
        self._descriptor = descriptor

    def send(self, *fields: Any) -> None:
        """Write one line, at once."""
        os.write(self._descriptor, json.dumps(fields).encode() + b"\n")


def call_of(job: dict[str, Any]) -> calls.Call:
    """Return the call that a job names or holds."""
    return calls.random_call(job["seed"]) if "seed" in job else calls.Call.from_json(job["call"])


def limit_memory(more: int) -> None:
    """Limit the address space to what is used now and `more` bytes."""
    with open("/proc/self/statm") as file:
        used = int(file.read().split()[0]) * resource.getpagesize()
    resource.setrlimit(resource.RLIMIT_AS, (used + more, used + more))


def limit_time(seconds: float) -> None:
    """End this process by a signal when it takes longer; 0 takes the limit away."""
    signal.setitimer(signal.ITIMER_PROF, seconds)
    signal.setitimer(signal.ITIMER_REAL, REAL_TIME * seconds)


def redirect_output(kind: str, capture: int) -> None:
    """Let standard output be a file, /dev/full, a pipe that nobody reads, or nothing."""
    if kind == "closed":
        os.close(1)
    elif kind == "full":
        os.dup2(os.open("/dev/full", os.O_WRONLY), 1)
    elif kind == "pipe":
        reader, writer = os.pipe()
        os.dup2(writer, 1)
        os.close(writer)
        os.close(reader)
    else:
        os.dup2(capture, 1)


def run_with_fault(job: dict[str, Any], library: str) -> dict[str, Any]:
    """Run a call undisturbed, then with a fault at the k-th occasion."""
    kind, k = job["fault"]
    shim = ctypes.CDLL(None)
    assert shim.FaultsWatch(os.path.realpath(library).encode()) == 1
    prepared = execution.PreparedCall(call_of(job))
    plain = prepared.run()
    shim.FaultsArm(kind, k)
    try:
        faulty = prepared.run()
    finally:
        occasions = shim.FaultsDisarm()
    return {"plain": plain, "faulty": faulty, "occasions": occasions}


def run_batch(batch: dict[str, Any], library: str, answers: Answers) -> None:
    """Run the jobs of a batch."""
    jobs, mode, seconds = batch["jobs"], batch.get("mode", "serial"), batch["seconds"]
    if mode == "serial":
        for index, job in enumerate(jobs):
            answers.send("start", index)
            limit_time(seconds)
            outcome = (
                run_with_fault(job, library) if "fault" in job else execution.run(call_of(job))
            )
            answers.send("done", index, outcome)
        limit_time(0)
        return
    together = {
        "threads": execution.run_on_threads,
        "function": execution.run_in_function,
        "fork": execution.run_after_fork,
        "spawn": lambda many: execution.run_after_spawn(library, many),
    }
    limit_time(seconds * len(jobs))
    for index, outcome in enumerate(together[mode]([call_of(job) for job in jobs])):
        answers.send("done", index, outcome)


def run_child(batch: dict[str, Any], library: str, answers: Answers, out: int, err: int) -> None:
    """Run a batch in this fork, which then ends."""
    status = 70
    try:
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        os.dup2(err, 2)
        redirect_output(batch.get("output", "capture"), out)
        context.context().ensure_initialized()
        if batch.get("memory"):
            limit_memory(batch["memory"])
        run_batch(batch, library, answers)
        ctypes.CDLL(None).fflush(None)
        status = 0
    except BaseException as error:  # a fork never returns
        os.write(2, f"{type(error).__name__}: {error}\n".encode())
    finally:
        os._exit(status)


def summary(file: Any) -> str:
    """Return a digest of the lines of a file, whatever their order, and their number."""
    file.seek(0)
    lines = sorted(file.read().split(b"\n"))
    return f"{len(lines) - 1} lines {hashlib.sha1(b'|'.join(lines)).hexdigest()[:16]}"


def head_and_tail(file: Any) -> str:
    """Return the first and the last bytes of a file as text."""
    file.seek(0)
    text = file.read().decode(errors="replace")
    return text if len(text) <= 12000 else text[:6000] + "\n...\n" + text[-6000:]


def main() -> None:
    """Serve batches until standard input ends."""
    library = sys.argv[1]
    answers = Answers(os.dup(1))
    os.dup2(2, 1)  # what libraries print is no answer
    tf.load_op_library(library)
    answers.send("ready")
    for line in sys.stdin:
        batch = json.loads(line)
        with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err:
            child = os.fork()
            if child == 0:
                run_child(batch, library, answers, out.fileno(), err.fileno())
            _, status = os.waitpid(child, 0)
            answers.send("exit", status, head_and_tail(err), summary(out))


if __name__ == "__main__":
    main()
