# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Runs batches of calls in other processes, whose end by any signal is seen and attributed."""

from __future__ import annotations

import dataclasses
import functools
import importlib.util
import json
import os
import pathlib
import signal
import subprocess
import sys
from collections.abc import Sequence
from typing import Any

import aborts

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
BUILD = ROOT / "build" / "asan-ubsan"
MEGABYTE = 1 << 20

# Freed and fresh memory has one of two patterns: blocks are not cached by the thread, and none is
# so large that the kernel would map it, which zeroes it.
FILLS = tuple(
    {
        "MALLOC_PERTURB_": fill,
        "GLIBC_TUNABLES": "glibc.malloc.tcache_count=0:glibc.malloc.mmap_threshold=4294967296",
    }
    for fill in ("85", "254")
)

SANITIZER_EXIT = 77
ASAN_OPTIONS = {
    "detect_leaks": 0,  # of the runtime and the interpreter, at whose end they are not freed
    "detect_odr_violation": 0,
    "allocator_may_return_null": 1,
    "max_allocation_size_mb": 1024,
    "quarantine_size_mb": 32,
    "exitcode": SANITIZER_EXIT,
    "handle_abort": 0,  # assertions are told apart by their text
    "detect_stack_use_after_return": 0,
}


@dataclasses.dataclass(frozen=True)
class Outcome:
    """What came of a job: "ok", "error", "abort" (a documented one), "memory" or "finding"."""

    kind: str
    text: str = ""
    details: str = ""

    @property
    def is_finding(self) -> bool:
        """Whether something is wrong."""
        return self.kind == "finding"


@dataclasses.dataclass
class Result:
    """The outcomes of a batch, and a digest of the lines that its processes printed."""

    outcomes: list[Outcome]
    lines: list[str]

    @property
    def findings(self) -> list[int]:
        """The indices of the jobs that show something wrong."""
        return [i for i, outcome in enumerate(self.outcomes) if outcome.is_finding]


def release_library() -> pathlib.Path:
    """Return the library of the installed package."""
    spec = importlib.util.find_spec("bitfold")
    assert spec is not None, "bitfold is not installed: run make setup"
    return pathlib.Path(spec.submodule_search_locations[0]) / "libbitfold.so"


def sanitized_library() -> pathlib.Path:
    """Return the library under the sanitizers; `build` makes it."""
    return BUILD / "src" / "libbitfold.so"


@functools.cache
def build() -> None:
    """Build the library under the sanitizers, or what has changed of it.

    The stage of C++ tests builds in the same folder: one waits for the other.
    """
    variables = {"CMAKE_GENERATOR": "Ninja", **os.environ}
    variables["PATH"] = f"{pathlib.Path(sys.executable).parent}:{os.environ['PATH']}"
    parallel = ("-j", str(os.cpu_count()), "--target", "bitfold")
    BUILD.parent.mkdir(exist_ok=True)
    for command in (
        ("cmake", "--preset", BUILD.name, "-Wno-dev"),
        ("cmake", "--build", "--preset", BUILD.name, *parallel),
    ):
        subprocess.run(
            ("flock", f"{BUILD}.lock", *command),
            cwd=ROOT,
            env=variables,
            stdout=subprocess.DEVNULL,
            check=True,
        )


@functools.cache
def faults_library() -> pathlib.Path:
    """Build and return the library that makes allocations and threads fail."""
    path = ROOT / "build" / "robustness" / "libfaults.so"
    path.parent.mkdir(parents=True, exist_ok=True)
    flags = ("-std=c++17", "-O1", "-fPIC", "-shared", "-Wall", "-Wextra", "-Werror")
    command = ("c++", *flags, str(HERE / "faults.cc"), "-o", str(path), "-ldl")
    subprocess.run(command, check=True)
    return path


def _compiler_library(name: str) -> str:
    command = ("c++", f"-print-file-name={name}")
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()


@functools.cache
def sanitizer_environment() -> dict[str, str]:
    """Return what a process needs to load the library under the sanitizers."""
    options = ":".join(f"{key}={value}" for key, value in ASAN_OPTIONS.items())
    # The C++ library, too: the sanitizer looks for its functions before anything else loads it.
    preload = " ".join(_compiler_library(name) for name in ("libasan.so", "libstdc++.so"))
    return {
        "LD_PRELOAD": preload,
        "ASAN_OPTIONS": options,
        "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1",
    }


def run_python(code: str, environment: dict[str, str]) -> str:
    """Run code in a fresh interpreter and return its standard output."""
    variables = {**os.environ, "TF_CPP_MIN_LOG_LEVEL": "2", **environment}
    command = [sys.executable, "-c", code]
    return subprocess.run(
        command, env=variables, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True
    ).stdout.decode()


class Runtime:
    """A process with TensorFlow and a library, which runs each batch in a fork of itself."""

    def __init__(
        self, library: pathlib.Path | None = None, environment: dict[str, str] | None = None
    ) -> None:
        """Start the process; the library is the installed one unless another is given."""
        inherited = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
        defaults = {
            "TF_CPP_MIN_LOG_LEVEL": "2",
            "OPENBLAS_NUM_THREADS": "1",
            # Without these kernels the runtime's allocator of host memory is the C library's, where
            # with them it keeps and divides large blocks: neither a fill pattern nor the sanitizer
            # would see those, and what it cannot allocate it tries to again for ten seconds.
            "TF_ENABLE_ONEDNN_OPTS": "0",
            "MALLOC_ARENA_MAX": "1",  # each reserves address space, which the memory limit is on
        }
        self._log = subprocess.DEVNULL if "ROBUSTNESS_LOG" not in os.environ else None
        self._process = subprocess.Popen(
            [sys.executable, str(HERE / "worker.py"), str(library or release_library())],
            env={**inherited, **defaults, **(environment or {})},
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=self._log,
        )
        if self._answer()[0] != "ready":
            raise RuntimeError("the worker did not start")

    @classmethod
    def sanitized(cls) -> Runtime:
        """Return a runtime with the library under the sanitizers."""
        build()
        return cls(sanitized_library(), sanitizer_environment())

    def close(self) -> None:
        """End the process."""
        self._process.stdin.close()
        self._process.wait()

    def __enter__(self) -> Runtime:
        """Return the runtime."""
        return self

    def __exit__(self, *exception: object) -> None:
        """End the process."""
        self.close()

    def _answer(self) -> list[Any]:
        line = self._process.stdout.readline()
        if not line:
            raise RuntimeError(
                f"the worker ended with status {self._process.wait()}; ROBUSTNESS_LOG=1 shows why"
            )
        return json.loads(line)

    def run(
        self,
        jobs: Sequence[dict[str, Any]],
        *,
        seconds: float = 5,
        memory: int = 768,
        enough: int = 100,
        **options: Any,
    ) -> Result:
        """Run jobs in order; one that ends its process does not keep those after it from running.

        Args:
            jobs: each {"seed": n} or {"call": text}, and perhaps {"fault": [kind, k]}.
            seconds: the limit of processor time of a job.
            memory: the limit of what a batch may allocate, in MiB; 0 for none.
            enough: after how many findings the rest is left out.
            options: "mode" and "output", see worker.py.
        """
        result = Result([], [])
        while len(result.outcomes) < len(jobs) and len(result.findings) < enough:
            batch = {
                "jobs": list(jobs[len(result.outcomes) :]),
                "seconds": seconds,
                "memory": memory * MEGABYTE,
                **options,
            }
            self._run_batch(batch, result)
        return result

    def _run_batch(self, batch: dict[str, Any], result: Result) -> None:
        """Run a batch until its process ends; append at least one outcome."""
        done = 0
        self._process.stdin.write(json.dumps(batch).encode() + b"\n")
        self._process.stdin.flush()
        while True:
            answer = self._answer()
            if answer[0] == "done":
                result.outcomes.append(outcome_of(answer[2]))
                done += 1
            elif answer[0] == "exit":
                break
        _, status, stderr, lines = answer
        result.lines.append(lines)
        if done == len(batch["jobs"]) and status == 0:
            return
        end = outcome_of_end(status, stderr, batch["seconds"])
        if batch.get("mode", "serial") == "serial" and done < len(batch["jobs"]):
            result.outcomes.append(end)
        else:  # whose fault it is cannot be told
            missing = max(len(batch["jobs"]) - done, 1)
            del result.outcomes[len(result.outcomes) + missing - len(batch["jobs"]) :]
            result.outcomes += [end] * (len(batch["jobs"]) - done or len(batch["jobs"]))


def outcome_of(answer: Any) -> Outcome:
    """Return the outcome of a job that the worker has reported."""
    if not isinstance(answer, dict):
        return Outcome(*answer)
    plain, faulty, occasions = (answer[key] for key in ("plain", "faulty", "occasions"))
    reached = f"{occasions} occasions"
    if faulty == plain:
        return Outcome("ok", "same", reached)
    if faulty[0] == "error" and faulty[1].startswith("ResourceExhaustedError"):
        return Outcome("error", faulty[1], reached)
    return Outcome("finding", f"with a fault: {faulty}, without: {plain}", reached)


def outcome_of_end(status: int, stderr: str, seconds: float) -> Outcome:
    """Return the outcome of the job that ended its process."""
    if os.WIFSIGNALED(status):
        number = os.WTERMSIG(status)
        if number in (signal.SIGPROF, signal.SIGALRM):
            return Outcome("finding", f"no answer after {seconds} s of processor time")
        if number == signal.SIGABRT and (text := aborts.abort_text(stderr)):
            return Outcome("abort", text)
        return Outcome("finding", f"{signal.Signals(number).name}: {_last_line(stderr)}", stderr)
    code = os.WEXITSTATUS(status)
    if "allocation-size-too-big" in stderr or "out-of-memory" in stderr:
        # How the sanitizer ends the process when `operator new` fails: another test's affair.
        return Outcome("memory")
    for line in stderr.splitlines():
        if "ERROR: AddressSanitizer" in line or "runtime error:" in line:
            return Outcome("finding", line.strip(), stderr)
    return Outcome("finding", f"exit status {code}: {_last_line(stderr)}", stderr)


def _last_line(text: str) -> str:
    lines = [line for line in text.splitlines() if line.strip()]
    return lines[-1].strip() if lines else "nothing on standard error"
