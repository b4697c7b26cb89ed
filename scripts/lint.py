# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Checks formats and runs the linters; changes nothing.

    .venv/bin/python scripts/lint.py [--all | --no-tidy] [--junit FILE]

clang-tidy reads what the preset `tests` compiles, as it compiles it: the sources in src; its
analyzer, which follows paths, goes less far. With --all it goes as far as it can there, and
clang-tidy reads the sources in tests, too, less far: half an hour on two cores.
"""

from __future__ import annotations

import argparse
import json
import os
import pathlib
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
from concurrent.futures import ThreadPoolExecutor

from rich.console import Console
from rich.progress import track

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "tests"
# Of functions that are called the analyzer follows small ones alone: a fifth of its time.
SHALLOW = [f"--extra-arg={a}" for a in ("-Xclang", "-analyzer-config", "-Xclang", "mode=shallow")]
# Reads the installed headers with words of its own for their integers: other findings, none true.
UNREAD = {"tests/proofs/text_rules.cc"}
FORMATTED = ("*.h", "*.cc", "*.cu", "*.c", "*.inc")


def compiled_sources(folder: str) -> list[str]:
    """Return the sources of the compile commands that lie in a folder of the checkout."""
    commands = json.loads((BUILD / "compile_commands.json").read_text())
    sources = {pathlib.Path(command["file"]).resolve() for command in commands}
    inside = [source for source in sources if source.is_relative_to(ROOT / folder)]
    return sorted({source.relative_to(ROOT).as_posix() for source in inside} - UNREAD)


def formatted_files() -> list[str]:
    """Return the files that clang-format formats: git's, and new ones."""
    listing = ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard", *FORMATTED]
    names = subprocess.run(listing, cwd=ROOT, capture_output=True, text=True, check=True).stdout
    return [name for name in names.split("\0") if name and (ROOT / name).exists()]


def formats() -> dict[str, list[str]]:
    """Return the command of each check but clang-tidy's by its name."""
    ruff = [sys.executable, "-m", "ruff"]
    return {
        "clang-format": ["clang-format", "--dry-run", "-Werror", *formatted_files()],
        "ruff format": [*ruff, "format", "--check", "."],
        "ruff check": [*ruff, "check", "."],
    }


def tidy(folder: str, *, deep: bool) -> dict[str, list[str]]:
    """Return the command for each source of a folder by its name."""
    command = ["clang-tidy", "-p", str(BUILD), "--quiet", "--warnings-as-errors=*"]
    command += [] if deep else SHALLOW
    return {f"clang-tidy {source}": [*command, source] for source in compiled_sources(folder)}


def run(command: list[str]) -> str | None:
    """Return what a check found, or None where it found nothing."""
    try:
        done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
    except OSError as error:
        return str(error)
    return f"{done.stdout}{done.stderr}" if done.returncode else None


def main() -> int:
    """Run the checks on all cores; return the exit status."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    which = parser.add_mutually_exclusive_group()
    which.add_argument("--all", action="store_true", help="clang-tidy deeper, and over tests, too")
    which.add_argument("--no-tidy", action="store_true", help="no clang-tidy")
    parser.add_argument("--junit", type=pathlib.Path, help="where to write the results")
    options = parser.parse_args()

    commands = formats()
    if not options.no_tidy:
        commands |= tidy("src", deep=options.all)
    if options.all:
        commands |= tidy("tests", deep=False)
    suite = ElementTree.Element("testsuite", name="lint")
    failed = 0
    console = Console(stderr=True)
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        done = zip(commands, pool.map(run, commands.values()), strict=True)
        shown = track(done, "lint", len(commands), console=console, disable=not console.is_terminal)
        for name, findings in shown:
            case = ElementTree.SubElement(suite, "testcase", name=name)
            if findings is not None:
                failed += 1
                ElementTree.SubElement(case, "failure", message=name)
                print(f"{name}:\n{findings}", flush=True)
    print(f"lint: {len(commands)} checks, {failed} with findings")
    if options.junit:
        options.junit.parent.mkdir(parents=True, exist_ok=True)
        ElementTree.ElementTree(suite).write(options.junit)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
