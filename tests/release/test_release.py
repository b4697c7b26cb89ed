# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What is released: what it contains, what it says of itself, and that it works elsewhere.

Elsewhere is a fresh virtual environment, in which no compiler is found and no file of the checkout.
"""

from __future__ import annotations

import email
import pathlib
import re
import shutil
import tarfile
import zipfile

import pytest
from environments import ROOT, Environment

import build_wheel
import runtime_extras

VERSION = re.search(r"(?m)^  VERSION ([\d.]+)$", (ROOT / "CMakeLists.txt").read_text())[1]
INFO = f"bitfold-{VERSION}.dist-info"


@pytest.fixture(scope="module")
def contents(wheel) -> list[str]:
    """The names of the wheel's files."""
    with zipfile.ZipFile(wheel) as archive:
        return archive.namelist()


@pytest.fixture(scope="module")
def elsewhere(wheel):
    """An environment in which the wheel is installed with the runtime that it asks for."""
    environment = Environment("elsewhere")
    constraints = ROOT / "requirements" / "constraints.txt"
    environment.install(f"{wheel}[cpu,report]", "pytest", "-c", constraints)
    yield environment
    environment.remove()


# ---- What they contain -------------------------------------------------------------------------


def test_source_distribution(sdist):
    """The sources, their tests and documents; nothing that was built, fetched or is a machine's."""
    with tarfile.open(sdist) as archive:
        names = {name.partition("/")[2] for name in archive.getnames()}
    wanted = ("CMakeLists.txt", "LICENSE", "Makefile", "README.md", "cmake/exports.map",
              "python/bitfold/py.typed", "scripts/runtime_extras.py", "tests/python/support.py",
              "requirements/constraints.txt", "docs/design.md")  # fmt: skip
    assert not [name for name in wanted if name not in names]
    bad = re.compile(r"(\.venv|\.cuda|\.git|\.ci|build|dist)/|.*(__pycache__|\.so|\.o|\.tflite)$")
    assert not [name for name in names if bad.match(name)]


def test_wheel_has_what_it_must(contents):
    """Every module, the library, the exported functions' headers, the licence."""
    modules = [
        path.relative_to(ROOT / "python").as_posix()
        for package in ("bitfold", "bitfold_command")
        for path in (ROOT / "python" / package).rglob("*.py")
    ]
    exports = (ROOT / "cmake" / "exports.map").read_text()
    headers = re.findall(r"# (bitfold/\w+\.h)", exports)
    assert len(headers) >= 5
    wanted = [
        *modules,
        "bitfold/_frame/build_info.py",
        "bitfold/libbitfold.so",
        "bitfold/py.typed",
        *(f"bitfold/include/{header}" for header in headers),
        f"{INFO}/licenses/LICENSE",
        f"{INFO}/entry_points.txt",
    ]
    assert not [name for name in wanted if name not in contents]


# What may lie beside the modules; a new kind of file gets its line here.
_KINDS = (
    r"bitfold/(lib/)?libbitfold\w*\.so(\.\d+)*",
    r"bitfold/include/bitfold/([a-z]+/)*\w+\.h",
    r"bitfold/(lib|share)/.*\.(cmake|pc)",
    r"bitfold/py\.typed",
    r"(bitfold|bitfold_command)/([a-z_0-9]+/)*[a-z_0-9]+\.py",
    rf"{re.escape(INFO)}/(METADATA|WHEEL|RECORD|entry_points\.txt|licenses/LICENSE)",
)


def test_wheel_has_nothing_else(contents):
    """No tests, templates, sources of C++ or compiled Python."""
    kinds = re.compile("|".join(_KINDS))
    assert not [name for name in contents if not kinds.fullmatch(name) and name[-1] != "/"]


def test_no_folder_of_this_machine(wheel):
    """No file says where it was made."""
    folders = {f"{folder}/".encode() for folder in (ROOT, pathlib.Path.home())}
    with zipfile.ZipFile(wheel) as archive:
        found = [n for n in archive.namelist() if any(f in archive.read(n) for f in folders)]
    assert not found


# ---- What they say -----------------------------------------------------------------------------


def test_name(wheel):
    """The runtime, any Python 3 and the oldest platform whose libraries have all symbols."""
    platform = build_wheel.platform_tag(build_wheel.audit(wheel))
    assert platform.startswith("manylinux_")
    runtime = f"1tf{runtime_extras.runtime_version()}"
    assert wheel.name == f"bitfold-{VERSION}-{runtime}-py3-none-{platform}.whl"


def test_metadata(wheel):
    """The extras name the runtime that the library was built for."""
    with zipfile.ZipFile(wheel) as archive:
        metadata = email.message_from_bytes(archive.read(f"{INFO}/METADATA"))
        tag = email.message_from_bytes(archive.read(f"{INFO}/WHEEL"))
    series = runtime_extras.runtime_version().rpartition(".")[0]
    required = metadata.get_all("Requires-Dist")
    assert f'tensorflow-cpu=={series}.*; extra == "cpu"' in required
    assert f'tensorflow=={series}.*; extra == "gpu"' in required
    assert metadata["Version"] == VERSION
    assert f"py3-none-{wheel.stem.rpartition('-')[2]}" in tag.get_all("Tag")


# ---- That it works elsewhere -------------------------------------------------------------------


def test_there_is_no_compiler(elsewhere):
    """What follows needs none."""
    code = "import shutil; print([shutil.which(c) for c in ('c++', 'g++', 'cc', 'cmake', 'make')])"
    assert elsewhere.run("-c", code).strip() == str([None] * 5)


def test_examples_in_docstrings(elsewhere):
    """Each runs as the documentation shows it."""
    last = elsewhere.run("-m", "pytest", "-q", "--doctest-modules", "--pyargs", "bitfold")
    assert re.search(r"\b\d{2,} passed", last)


def test_a_network(elsewhere):
    """From a Keras model to a report; the command reads what was written."""
    shutil.copy(pathlib.Path(__file__).with_name("network_run.py"), elsewhere.empty)
    said = elsewhere.run("network_run.py", ".")
    assert f"network: {elsewhere.python.parents[1]}/lib" in said
    assert (elsewhere.empty / "report.html").stat().st_size > 10_000
    assert elsewhere.run("-m", "bitfold", "--version").strip() == VERSION
    assert "depthwise" in elsewhere.run("-m", "bitfold", "info", "model.tflite")
    given = ("model.tflite", "--data", "images.npz", "--widths", "12,20", "--json")
    assert '"layers"' in elsewhere.run("-m", "bitfold", "study", *given)
