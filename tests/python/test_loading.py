# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What `import bitfold` refuses: a damaged library, a second copy, sources that are not built.

Each case is a process of its own, with a copy of the installed package to damage.
"""

from __future__ import annotations

import os
import pathlib
import shutil

import forks
import pytest
import support

import bitfold
from bitfold._frame import build_info, library, self_check
from bitfold._frame.library import check_file

PACKAGE = pathlib.Path(bitfold.__file__).parent
_ADD = "import bitfold; print(bitfold.ops.add([[1]], [[2]]).numpy().item())"


@pytest.fixture
def copy(tmp_path) -> pathlib.Path:
    """A copy of the package, which PYTHONPATH puts before the installed one."""
    shutil.copytree(PACKAGE, tmp_path / "bitfold")
    # Where the library looks for the runtime: beside the package.
    (tmp_path / "tensorflow").symlink_to(PACKAGE.parent / "tensorflow")
    return tmp_path / "bitfold"


def _refusal(code: str, *arguments: str, python_path: pathlib.Path | None = None) -> str:
    """Return the last line of a process that must have ended with an ImportError of ours."""
    path = str(python_path) if python_path else None
    result = forks.run(code, *arguments, python_path=path)
    assert result.returncode == 1, f"status {result.returncode}\n{result.stdout}\n{result.stderr}"
    last = result.stderr.rstrip().splitlines()[-1]
    assert last.startswith("ImportError: bitfold "), result.stderr
    assert "circular" not in result.stderr
    return last


# ---- The file ----------------------------------------------------------------------------------


def test_a_copy_works_by_itself(copy):
    """What the cases below damage runs as long as nothing is damaged."""
    output = support.passes(forks.run(_ADD, python_path=str(copy.parent)))
    assert output.strip() == "3"


def test_the_size_is_that_of_the_installed_library():
    """The build writes it after the last step that changes the file."""
    assert os.path.getsize(bitfold.library_path()) == build_info.LIBRARY_SIZE
    assert check_file(bitfold.library_path()) is None


@pytest.mark.parametrize("size", [0, 100, 0.5, -1, 1.5])
def test_a_library_of_another_size_is_refused(copy, size):
    """Cut short or with something behind it: an error instead of a signal, and what to do."""
    library = copy / "libbitfold.so"
    whole = library.stat().st_size
    wrong = whole + size if size < 0 else int(size * whole) if size % 1 else size
    os.truncate(library, wrong)
    last = _refusal(_ADD, python_path=copy.parent)
    assert f"{library} has {wrong} bytes where {whole} were installed" in last
    assert "pip install --force-reinstall" in last


def test_a_missing_library_is_refused(copy):
    """The same for no file at all."""
    (copy / "libbitfold.so").unlink()
    last = _refusal(_ADD, python_path=copy.parent)
    assert f"{copy / 'libbitfold.so'} cannot be read (No such file or directory)" in last
    assert "pip install --force-reinstall" in last


# ---- A patch release of the runtime ------------------------------------------------------------


@pytest.fixture
def of_a_patch_release(copy) -> pathlib.Path:
    """A copy of the package that was built for another patch release than the one that runs."""
    other = build_info.TENSORFLOW_VERSION.rpartition(".")[0] + ".99"
    _replace(copy / "_frame" / "build_info.py", build_info.TENSORFLOW_VERSION, other)
    return copy


def _replace(file: pathlib.Path, old: str, new: str) -> None:
    content = file.read_bytes()
    assert old.encode() in content
    file.write_bytes(content.replace(old.encode(), new.encode()))


def test_the_self_check_passes():
    """Here the versions agree, and nothing is wrong."""
    assert self_check.failures(bitfold.raw_ops) == []


def test_a_patch_release_is_accepted(of_a_patch_release):
    """The library is loaded, and no line is printed about it."""
    result = forks.run(_ADD, python_path=str(of_a_patch_release.parent))
    assert support.passes(result).strip() == "3"
    assert "OP_REQUIRES" not in result.stderr


@pytest.mark.parametrize(
    ("old", "new", "wrong"),
    [
        (
            "[[-106, 7]]",
            "[[-106, 8]]",
            "an addition of integers gave [[-106, 7]] instead of [[-106",
        ),
        ("shape.as_list()", "shape.as_text()", "the shape of a result failed with AttributeError"),
        ('"multipliers" in', '"something" in', "a refusal gave False instead of True"),
    ],
)
def test_a_patch_release_in_which_ops_are_wrong(of_a_patch_release, old, new, wrong):
    """What went wrong, both versions and the remedies."""
    _replace(of_a_patch_release / "_frame" / "self_check.py", old, new)
    last = _refusal(_ADD, python_path=of_a_patch_release.parent)
    assert f"and does not work in TensorFlow {build_info.TENSORFLOW_VERSION}: {wrong}" in last
    assert "pip install tensorflow-cpu==" in last


def test_a_patch_release_without_a_symbol(of_a_patch_release):
    """The loader's words, both versions and the remedies."""
    symbol = "_ZN10tensorflow15OpKernelContext"
    _replace(of_a_patch_release / "libbitfold.so", symbol, symbol.replace("Context", "Kontext"))
    last = _refusal(_ADD, python_path=of_a_patch_release.parent)
    assert f"and TensorFlow {build_info.TENSORFLOW_VERSION} cannot load it" in last
    assert "undefined symbol: _ZN10tensorflow15OpKernelKontext" in last
    assert "pip install tensorflow-cpu==" in last


# ---- A second copy -----------------------------------------------------------------------------

_LOAD_THEN_IMPORT = """
import sys
import tensorflow as tf
tf.load_op_library(sys.argv[1])
"""


@pytest.mark.parametrize("name", ["libbitfold.so", "other name.so"])
def test_a_copy_that_was_loaded_before_is_named(copy, name):
    """Both files, before the second load makes every op fail."""
    other = (copy / "libbitfold.so").rename(copy / name)
    last = _refusal(_LOAD_THEN_IMPORT + _ADD, str(other))
    assert f"cannot load {bitfold.library_path()}: " in last
    assert f"has loaded another copy of the library, {other}," in last


def test_a_second_package_is_refused(copy):
    """Two packages in one process, as after a change of sys.path and a fresh import."""
    code = (
        "import sys, bitfold\n"
        "for name in [n for n in sys.modules if n.partition('.')[0] == 'bitfold']:\n"
        "    del sys.modules[name]\n"
        "sys.path.insert(0, sys.argv[1])\n" + _ADD
    )
    last = _refusal(code, str(copy.parent))
    assert f"cannot load {copy / 'libbitfold.so'}: " in last
    assert f"another copy of the library, {bitfold.library_path()}," in last


def test_the_package_s_own_library_may_be_loaded_before():
    """That is no second copy."""
    code = _LOAD_THEN_IMPORT + _ADD
    output = support.passes(forks.run(code, bitfold.library_path()))
    assert output.strip() == "3"


def test_a_link_to_the_library_that_was_loaded_before_is_refused(tmp_path):
    """The runtime would give a module without ops; the error says how it came to that."""
    link = tmp_path / "link.so"
    link.symlink_to(bitfold.library_path())
    last = _refusal(_LOAD_THEN_IMPORT + _ADD, str(link))
    assert f"finds no ops in {bitfold.library_path()}" in last
    assert "loaded this file before under another name" in last


# ---- A second copy after the first -------------------------------------------------------------

_IMPORT_THEN = """
import ctypes, sys
import bitfold, tensorflow as tf
from tensorflow.python.framework import kernels

def registered():
    found = kernels.get_all_registered_kernels().kernel  # the compiler's own come when first used
    return sorted(str(k) for k in found if k.device_type in ("CPU", "GPU"))

def works():
    value = tf.constant([[100, 3]])
    assert bitfold.ops.add(value, [[50, 4]], accumulator_size=8).numpy().tolist() == [[-106, 7]]
    twice = tf.function(lambda x: bitfold.ops.add(x, x, accumulator_size=8))
    assert twice(value).numpy().tolist() == [[-56, 6]]

before = registered()
"""
_THEN_ALL_IS_AS_BEFORE = """
works()
assert registered() == before
print("works")
"""


@pytest.mark.parametrize("first_works", [False, True])
def test_a_copy_that_is_loaded_after_is_refused(copy, first_works):
    """An error that names both files; the first copy's ops go on working, and twice is no worse."""
    code = (
        _IMPORT_THEN
        + "works()\n" * first_works
        + """
try:
    tf.load_op_library(sys.argv[1])
except tf.errors.FailedPreconditionError as error:
    print(error)
else:
    raise AssertionError("a second copy was loaded")
assert not hasattr(tf.load_op_library(sys.argv[1]), "h_add")
"""
        + _THEN_ALL_IS_AS_BEFORE
    )
    library = str(copy / "libbitfold.so")
    lines = support.passes(forks.run(code, library)).splitlines()
    assert f"bitfold cannot register the ops of {library}: " in lines[0]
    assert f"has loaded another copy of the library, {bitfold.library_path()}," in lines[0]
    assert lines[-1] == "works"


@pytest.mark.parametrize("first_works", [False, True])
def test_a_copy_that_is_loaded_for_its_functions_is_logged(copy, first_works):
    """By ctypes: its functions work, its ops are not registered, and the log names both files."""
    code = (
        _IMPORT_THEN
        + "works()\n" * first_works
        + """
second = ctypes.CDLL(sys.argv[1])
assert second.accumulator_int_verification(100, 50, 8) == -106
"""
        + _THEN_ALL_IS_AS_BEFORE
    )
    library = str(copy / "libbitfold.so")
    result = forks.run(code, library)
    assert support.passes(result).splitlines()[-1] == "works"
    (logged,) = [line for line in result.stderr.splitlines() if "another copy" in line]
    assert logged.startswith("E0000") or " E " in logged
    assert f"bitfold cannot register the ops of {library}: " in logged
    assert f"has loaded another copy of the library, {bitfold.library_path()}," in logged


# ---- Sources -----------------------------------------------------------------------------------


def test_sources_that_are_not_built():
    """PYTHONPATH at the checkout's own folder: what to run, and no word of circular imports."""
    last = _refusal(_ADD, python_path=support.ROOT / "python")
    assert f"bitfold is not built in {support.ROOT / 'python' / 'bitfold'}" in last
    assert "make setup" in last


def test_an_unknown_instruction_set(monkeypatch):
    """Is refused before the library, which would take it for no limit."""
    monkeypatch.setenv("BITFOLD_TARGET", "sse")
    with pytest.raises(
        ValueError, match=r"Need BITFOLD_TARGET to be one of .*avx512, .* got 'sse'"
    ):
        library.load()
