# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Builds a wheel for the TensorFlow of .venv, whose name says for which systems and runtime it is.

    .venv/bin/python scripts/build_wheel.py [--sources FOLDER] [--output FOLDER]

The platform in its name is the oldest whose libraries have all that the op library asks for, as
auditwheel knows them. The build tag names the runtime, so that wheels for several can lie in one
folder.
BITFOLD_GPU=OFF in the environment leaves device code out; otherwise it must build.
"""

from __future__ import annotations

import argparse
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

from runtime_extras import runtime_version

ROOT = pathlib.Path(__file__).resolve().parents[1]

# What the library takes from outside the wheel, besides the system's own libraries.
OF_THE_RUNTIME = {"libtensorflow_framework.so.2"}


def audit(wheel: pathlib.Path) -> dict:
    """Return what auditwheel finds out about a wheel.

    `sym_tag` is the oldest platform that has the symbols, `versioned_symbols` the versions that are
    asked for, `external_libs` what is not the system's.
    """
    command = (sys.executable, "-m", "auditwheel", "show", "--json", str(wheel))
    shown = subprocess.run(command, capture_output=True, text=True, check=False)
    if shown.returncode:
        raise SystemExit(f"auditwheel cannot read {wheel.name}:\n{shown.stdout}{shown.stderr}")
    return json.loads(shown.stdout)


def platform_tag(found: dict) -> str:
    """Return the platform that a wheel's name must say, of what `audit` found: its symbols'."""
    if foreign := set(found["external_libs"]) - OF_THE_RUNTIME:
        raise SystemExit(f"The wheel needs {', '.join(sorted(foreign))}, which nobody brings.")
    if found["unsupported_isa"]:
        raise SystemExit("The wheel needs instructions that not every machine has.")
    return found["sym_tag"]


def newest_symbols(found: dict) -> dict[str, str]:
    """Return the newest version of each kind of symbol, of what `audit` found."""
    newest: dict[str, str] = {}
    for versions in found["versioned_symbols"].values():
        for version in versions:
            kind, _, number = version.partition("_")
            newest[kind] = max(newest.get(kind, "0"), number, key=parts)
    return newest


def parts(version: str) -> list[int]:
    """Return the numbers of a version, which compare as it does."""
    return [int(number) for number in version.split(".")]


def build(sources: pathlib.Path, output: pathlib.Path) -> pathlib.Path:
    """Build the sources with the runtime and the tools of this Python; return the wheel.

    Args:
        sources: the checkout, or what was unpacked of a source distribution.
        output: the folder to put the wheel into.
    """
    settings = {
        "build-dir": ROOT / "build" / ("package" if sources == ROOT else "wheel"),
        "wheel.build-tag": f"1tf{runtime_version()}",
        "cmake.define.BITFOLD_GPU": os.environ.get("BITFOLD_GPU", "ON"),
    }
    if sources != ROOT:
        settings["cmake.define.BITFOLD_CUDA_TREE"] = ROOT / ".cuda"
    output.mkdir(parents=True, exist_ok=True)
    tools = pathlib.Path(sys.executable).parent
    environment = os.environ | {"PATH": f"{tools}{os.pathsep}{os.environ['PATH']}"}
    with tempfile.TemporaryDirectory() as folder:
        pip = (sys.executable, "-m", "pip", "--disable-pip-version-check", "wheel", "--quiet")
        options = [f"--config-settings={name}={value}" for name, value in settings.items()]
        without = ("--no-build-isolation", "--no-deps", "-w", folder)
        subprocess.run([*pip, *without, *options, str(sources)], check=True, env=environment)
        (built,) = pathlib.Path(folder).iterdir()
        found = audit(built)
        retag = (sys.executable, "-m", "wheel", "tags", "--remove", "--platform-tag")
        name = [*retag, platform_tag(found), str(built)]
        subprocess.run(name, check=True, stdout=subprocess.DEVNULL)
        (built,) = pathlib.Path(folder).iterdir()
        wheel = pathlib.Path(shutil.move(built, output / built.name))
    newest = ", ".join(f"{kind} {version}" for kind, version in newest_symbols(found).items())
    print(f"{wheel.stat().st_size / 1e6:.1f} MB; newest symbols: {newest}. Install it with:")
    print(f'pip install "{wheel}[cpu]"  # or [gpu]')
    return wheel


def main() -> None:
    """Build and say what it is."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--sources", type=pathlib.Path, default=ROOT, help="an unpacked sdist")
    parser.add_argument("--output", type=pathlib.Path, default=ROOT / "dist")
    options = parser.parse_args()
    build(options.sources.resolve(), options.output)


if __name__ == "__main__":
    main()
