# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Rules that hold for the whole checkout. Each failure says what to do."""

from __future__ import annotations

import ast
import functools
import inspect
import json
import pathlib
import re
import shlex
import subprocess

import pytest
import support

import bitfold

ROOT = support.ROOT
CODE = {".h", ".cc", ".c", ".cpp", ".cu", ".cuh", ".inc"}  # C++ and what is like it
SOURCES = CODE | {".py"}


@functools.cache
def files() -> tuple[pathlib.Path, ...]:
    """Return the files of the checkout, without what git ignores."""
    try:
        listing = subprocess.run(
            ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
            cwd=ROOT,
            capture_output=True,
            text=True,
            check=True,
        ).stdout.split("\0")
    except (OSError, subprocess.CalledProcessError):
        pytest.skip("the checkout's files are listed by git, which cannot be run here")
    return tuple(sorted(ROOT / name for name in listing if name and (ROOT / name).is_file()))


def text(path: pathlib.Path) -> str:
    """Return a file's text; nothing for a binary one or none."""
    try:
        return path.read_text()
    except (FileNotFoundError, UnicodeDecodeError):
        return ""


def where(path: pathlib.Path) -> str:
    """Return a path as the checkout's own."""
    return path.relative_to(ROOT).as_posix()


# ---- Flags that can change a bit ---------------------------------------------------------------

# Spelled in two parts, so that this file does not find itself.
_NUMERIC_FLAGS = [
    "-f" + flag
    for flag in (
        "fp-contract",
        "fast-math",
        "no-fast-math",
        "unsafe-math-optimizations",
        "associative-math",
        "reciprocal-math",
        "finite-math-only",
        "no-signed-zeros",
        "no-signaling-nans",
        "rounding-math",
        "no-rounding-math",
        "excess-precision",
        "float-store",
        "fp-model",
        "denormal-fp-math",
        "no-trapping-math",
        "wrapv",
        "no-wrapv",
        "gpu-flush-denormals-to-zero",
        "no-gpu-flush-denormals-to-zero",
        "cuda-flush-denormals-to-zero",
        "no-cuda-flush-denormals-to-zero",
        "gpu-app" + "rox-transcendentals",
        "no-gpu-app" + "rox-transcendentals",
        "cuda-app" + "rox-transcendentals",
        "no-cuda-app" + "rox-transcendentals",
    )
] + ["-O" + "fast", "-m" + "arch=", "-m" + "cpu=", "-m" + "tune=", "-m" + "fma", "-m" + "avx"]
_NUMERIC_FLAGS += ["-m" + "fpmath", "-nv" + "ptx"]
# The device compiler takes each with one dash or two.
_NUMERIC_FLAGS += [
    dashes + flag
    for dashes in ("-", "--")
    for flag in ("use_" + "fast_math", "ft" + "z", "f" + "mad", "prec-" + "div", "prec-" + "sqrt")
]
_PRAGMAS = ["pragma GCC " + "optimize", "STDC FP_" + "CONTRACT", "float_" + "control"]
_PRAGMAS += ["__attribute__((" + "optimize", "__attribute__((" + "target"]
_FLAG = re.compile(
    "|".join(rf"(?<![\w-]){re.escape(f)}" for f in _NUMERIC_FLAGS)
    + "|"
    + "|".join(map(re.escape, _PRAGMAS))
)


def _without_comments(path: pathlib.Path) -> str:
    content = text(path)
    if path.suffix in CODE:
        return re.sub(r"//.*", "", re.sub(r"/\*.*?\*/", "", content, flags=re.DOTALL))
    return re.sub(r"(?m)(^|\s)#(?!\s*pragma).*$", "", content)


def test_flags_that_change_bits_have_one_address():
    """Only cmake/numerics.cmake sets a flag that can change a bit of a result."""
    # The second one checks that the flags arrived, and names those that must not.
    allowed = {"cmake/numerics.cmake", "tests/cpp/numerics_test.cc"}
    # Targets only add instructions; test_machine_code.py sees to it that none fuses.
    allowed.add("src/vector/target_code.h")
    found = []
    for path in files():
        if where(path) in allowed or path.suffix == ".md":
            continue
        for match in _FLAG.finditer(_without_comments(path)):
            found.append(f"{where(path)}: {match.group()}")
    assert not found, (
        "these flags can change a bit of a result; set them in cmake/numerics.cmake, with the "
        "reason, or not at all:\n" + "\n".join(found)
    )


def _device_numerics(compiler: str) -> list[str]:
    """Return the flags of cmake/numerics.cmake for the device alone."""
    content = re.sub(r"#.*", "", (ROOT / "cmake" / "numerics.cmake").read_text())
    blocks = re.findall(rf"set\(BITFOLD_DEVICE_NUMERICS_{compiler}\s([^)]*)\)", content)
    return " ".join(blocks).split()


def test_numerics_flags_are_complete():
    """The flags that the results rest on are set, each of them always."""
    names = ("fp-contract=off", "no-fast-math", "no-unsafe-math-optimizations", "no-rounding-math")
    needed = ["-f" + name for name in names]
    missing = set(needed) - set(support.numerics_flags())
    names = ("no-gpu-flush-denormals-to-zero", "no-gpu-app" + "rox-transcendentals")
    missing |= {"-f" + name for name in names} - set(_device_numerics("CLANG"))
    names = ("f" + "mad=false", "prec-" + "div=true", "prec-" + "sqrt=true", "ft" + "z=false")
    missing |= {"--" + name for name in names} - set(_device_numerics("NVCC"))
    assert not missing, f"cmake/numerics.cmake no longer sets {sorted(missing)}"


def test_every_translation_unit_has_the_flags():
    """Each command of the package's build carries each flag of cmake/numerics.cmake."""
    database = ROOT / "build" / "package" / "compile_commands.json"
    if not database.exists():
        pytest.skip("build/package/compile_commands.json is absent: build the package there first")
    commands = json.loads(database.read_text())
    assert commands, f"{where(database)} is empty"
    bad = []
    for command in commands:
        words = command.get("arguments") or shlex.split(command["command"])
        source = pathlib.Path(command["file"]).name
        bad += [f"{source} lacks {f}" for f in support.numerics_flags() if f not in words]
        others = [w for w in words if _FLAG.match(w) and w not in support.numerics_flags()]
        bad += [f"{source} has {w}" for w in others]
    assert not bad, (
        "link the target to bitfold_arithmetic (which brings bitfold_numerics), and set no other "
        "numeric flag:\n" + "\n".join(bad)
    )


def test_every_device_compilation_has_the_flags():
    """Each compilation of device code carries the flags of cmake/numerics.cmake, and no others."""
    rules = ROOT / "build" / "package" / "build.ninja"
    if not rules.exists():
        pytest.skip("build/package/build.ninja is absent: build the package there first")
    commands = re.findall(r"(?m)^  COMMAND = (.* -c \S+\.cu .*)$", rules.read_text())
    if not commands:
        pytest.skip("the package was built without device code")
    bad = []
    for command in commands:
        words = shlex.split(command)
        source = pathlib.Path(words[words.index("-c") + 1]).name
        for_nvcc = "-ccbin" in words
        needed = [("-Xcompiler=" if for_nvcc else "") + f for f in support.numerics_flags()]
        needed += _device_numerics("NVCC" if for_nvcc else "CLANG")
        bad += [f"{source} lacks {f}" for f in needed if f not in words]
        bad += [f"{source} has {w}" for w in words if _FLAG.search(w) and w not in needed]
    assert not bad, (
        "bitfold_add_device_sources of cmake/cuda.cmake must give each device compilation the "
        "flags of cmake/numerics.cmake, and no other numeric flag:\n" + "\n".join(bad)
    )


# What is not one correctly rounded operation, or leaves the assembler free to fuse it.
_LOOSE = re.compile(
    rb"\S*\bfma\.\S+|\S+\.app" + rb"rox\S*|\S+\.ftz\S*|div\.full\S*"
    rb"|\S*\b(?:add|sub|mul)(?:\.sat)?\.f(?:16x2|16|32|64)\b"
)


def test_device_code_rounds_every_operation():
    """The library's device code has only operations that round once, correctly, to nearest."""
    library = pathlib.Path(bitfold.library_path()).read_bytes()
    texts = re.findall(rb"\.version \d+\.\d+\s+\.target sm_[^\0]*", library)
    if not texts:
        pytest.skip("the package was built without device code")
    found = {match.decode() for code in texts for match in _LOOSE.findall(code)}
    assert not found, (
        "the device code has operations that are fused, inexact, flush subnormals or may be "
        "fused later. Find the function of the device library behind each and use the rounded one "
        "(__fsqrt_rn for sqrtf), or restore the flag in cmake/numerics.cmake:\n"
        + "\n".join(sorted(found))
    )


# ---- What belongs to an op ---------------------------------------------------------------------

# The files that register ops, in the order of their names.
OP_SOURCES = [
    path.stem
    for path in sorted((ROOT / "src" / "ops").glob("*.cc"))
    if re.search(r"(?m)^\s*\w*REGISTER_\w+\(", text(path))
]
# What is exported to C but registers no op has the same company; its header has the format's name.
UNITS = [*OP_SOURCES, "HFloat"]
HEADERS = {"HFloat": "fpx"}


@pytest.mark.parametrize("stem", UNITS)
@pytest.mark.parametrize(
    ("path", "what"),
    [
        ("include/bitfold/{}.h", "its definition, apart from the runtime"),
        ("tests/cpp/{}_test.cc", "the definition against the oracle"),
        ("tests/fuzz/{}_fuzz.cc", "the same on what a fuzzer makes up"),
        ("tests/python/test_{}.py", "the op through the runtime"),
        ("bench/{}_bench.cc", "how fast the definition is"),
    ],
)
def test_op_has_its_files(stem, path, what):
    """An op comes with a header, tests, a fuzz target and a benchmark."""
    path = path.format(HEADERS.get(stem, stem) if path.startswith("include") else stem)
    assert (ROOT / path).is_file(), f"write {path} ({what}); docs/adding-an-op.md tells how"


@pytest.mark.parametrize("stem", OP_SOURCES)
def test_op_is_called_at_random(stem):
    """The random caller draws valid calls of each file's ops, to spoil them."""
    path = ROOT / "tests" / "robustness" / "valid_calls" / f"{stem}.py"
    missing = [name for name in _registered(stem) if f'"{name}"' not in text(path)]
    assert not missing, f"write what draws valid calls of {' and '.join(missing)} in {where(path)}"


def _included(path: pathlib.Path) -> set[str]:
    """Return the headers of tests/ that a file of them includes, by way of others too."""
    tests = ROOT / "tests"
    folders = tests, tests / "cpp", tests / "reference", path.parent
    found: set[str] = set()
    waiting = [path]
    while waiting:
        for name in re.findall(r'(?m)^#include "([^"]+)"', text(waiting.pop())):
            header = next((f / name for f in folders if (f / name).is_file()), None)
            if header is not None and where(header) not in found:
                found.add(where(header))
                waiting.append(header)
    return found


@pytest.mark.parametrize("stem", UNITS)
@pytest.mark.parametrize("path", ["tests/cpp/{}_test.cc", "tests/fuzz/{}_fuzz.cc"])
def test_op_is_compared_with_the_oracle(stem, path):
    """The C++ test and the fuzz target of an op know the oracle."""
    path = path.format(stem)
    headers = _included(ROOT / path)
    assert any(header.startswith("tests/reference/") for header in headers), (
        f"compare with the oracle in {path}: write the op's model in tests/reference, without "
        "looking at the code, and include its header"
    )


@pytest.mark.parametrize("stem", OP_SOURCES)
def test_op_is_compared_with_the_oracle_in_python(stem):
    """So does the test through the runtime, itself or by a module that it shares with others."""
    path = ROOT / "tests" / "python" / f"test_{stem}.py"
    shared = [path.with_name(f"{m}.py") for m in re.findall(r"(?m)^import (\w+)$", text(path))]
    assert any(re.search(r"\breference\b", text(p)) for p in (path, *shared) if p.is_file()), (
        f"compare with the oracle in {where(path)}: give the model a C interface in "
        "tests/reference/*_c.cc and call it by `reference.lines`"
    )


@pytest.mark.parametrize("stem", UNITS)
def test_op_is_documented(stem):
    """An op's rules have a section in docs/arithmetic.md."""
    document = ROOT / "docs" / "arithmetic.md"
    assert document.is_file(), "docs/arithmetic.md is missing"
    assert re.search(rf"(?m)^## {re.escape(stem)}\b", document.read_text()), (
        f'write a section "## {stem}" in docs/arithmetic.md: the rules that the op follows'
    )


def _registered(stem: str) -> list[str]:
    """Return the ops that a source file registers, in its order."""
    content = (ROOT / "src" / "ops" / f"{stem}.cc").read_text()
    return re.findall(r'(?m)^\s*(?:REGISTER_OP|BITFOLD_REGISTER_\w+)\("(\w+)"', content)


REGISTERED = [name for stem in OP_SOURCES for name in _registered(stem)]


@functools.cache
def _wrappers() -> dict[str, str]:
    """Return which function of bitfold.ops calls a generated op, by its name without _."""
    wrappers = {}
    for path in sorted((ROOT / "python" / "bitfold" / "ops").glob("*.py")):
        for function in ast.parse(path.read_text()).body:
            for node in ast.walk(function):
                if isinstance(node, ast.Attribute) and ast.unparse(node.value) == "raw_ops":
                    wrappers[node.attr.replace("_", "")] = getattr(function, "name", "")
    return wrappers


@pytest.mark.parametrize("name", REGISTERED)
def test_op_has_its_wrapper(name):
    """An op is called by a public function of bitfold.ops."""
    wrapper = _wrappers().get(name.lower())
    assert wrapper in bitfold.ops.__all__, (
        f"write a function that calls the generated op of {name} in a module of python/bitfold/ops "
        "and list it in the package's __all__"
    )


@pytest.mark.parametrize("stem", OP_SOURCES)
def test_op_is_timed_beside_the_stock_op(stem):
    """`make bench` has a case that calls a wrapper of each file's ops."""
    cases = "".join(map(text, (ROOT / "bench").glob("*_cases.py")))
    wrappers = [_wrappers().get(name.lower(), "") for name in _registered(stem)]
    assert any(re.search(rf"\bops\.{wrapper}\b", cases) for wrapper in wrappers if wrapper), (
        f"write a case in a module bench/*_cases.py that calls {' or '.join(wrappers)} of "
        "bitfold.ops beside what the stock ops offer"
    )


@pytest.mark.parametrize("name", REGISTERED)
def test_op_is_in_the_changelog(name):
    """Users read there what came."""
    assert f"`{name}`" in (ROOT / "CHANGELOG.md").read_text(), f"name `{name}` in CHANGELOG.md"


@pytest.mark.parametrize("stem", OP_SOURCES)
def test_ops_register_in_the_first_copy_only(stem):
    """Ops and kernels register inside functions that a second copy of the library does not call."""
    content = text(ROOT / "src" / "ops" / f"{stem}.cc")
    assert not re.search(r"(?m)^(\w*REGISTER_\w+\(|.*OpKernelRegistrar k)", content), (
        f"src/ops/{stem}.cc: register inside BITFOLD_WHEN_LOADED(name) {{ ... }}, "
        "frame/op_registration.h"
    )


def test_registration_order_is_the_files_order():
    """Static initialisers run in link order, which is that of the names of the ops' files."""
    from tensorflow.core.framework import op_def_pb2
    from tensorflow.python.client import pywrap_tf_session

    operations = op_def_pb2.OpList()
    handle = pywrap_tf_session.TF_LoadLibrary(bitfold.library_path())
    operations.ParseFromString(pywrap_tf_session.TF_GetOpList(handle))
    assert [op.name for op in operations.op] == REGISTERED, (
        "the library registers its ops in another order than src/ops has files: link these in the "
        "order of their names, in src/CMakeLists.txt, or install the package again"
    )


# ---- Exports -----------------------------------------------------------------------------------


def _declared(header: pathlib.Path) -> list[str]:
    """Return the functions and variables that a header declares to C; none of a header for C++."""
    content = re.sub(r"/\*.*?\*/|//.*", "", header.read_text(), flags=re.DOTALL)
    if not re.search(r'#ifdef __cplusplus\s+extern "C" {', content):
        return []
    functions = re.findall(r"\b(\w+)\s*\([^()]*\)\s*;", content)
    return functions + re.findall(r"\bextern \w+ (\w+);", content)


@pytest.mark.parametrize(
    ("exports", "headers"),
    [("exports.map", "*.h"), ("steps_exports.map", "fpx.h"), ("steps_exports.map", "s*_step.h")],
)
def test_exports_are_the_installed_functions(exports, headers):
    """A library's map names what the installed headers declare to C, header by header."""
    content = re.sub(r"/\*.*?\*/", "", (ROOT / "cmake" / exports).read_text()).split("local:")[0]
    stated = re.split(r"(?m)^\s*# bitfold/(\w+\.h)$", content)[1:]
    names = {
        header: re.findall(r"(?m)^\s*(\w+);", lines)
        for header, lines in zip(stated[::2], stated[1::2], strict=True)
    }
    folder = pathlib.Path(bitfold.include_dir()) / "bitfold"
    declared = {path.name: found for path in folder.glob(headers) if (found := _declared(path))}
    assert declared
    assert {name: sorted(names.get(name, [])) for name in declared} == {
        name: sorted(found) for name, found in declared.items()
    }, (
        f"cmake/{exports} and the installed headers must name the same functions; reinstall the "
        "package if the headers are newer"
    )
    if headers == "*.h":
        assert set(names) == set(declared)


def test_installed_headers_are_current():
    """The installed headers are the checkout's."""
    for header in (pathlib.Path(bitfold.include_dir()) / "bitfold").glob("*.h"):
        source = ROOT / "include" / "bitfold" / header.name
        assert header.read_bytes() == source.read_bytes(), (
            f"include/bitfold/{header.name} changed since the package was installed: install it "
            "again"
        )


def test_installed_modules_are_current():
    """The installed modules are the checkout's, so that the tests test what one reads."""
    package = pathlib.Path(bitfold.__file__).parent
    sources = ROOT / "python" / "bitfold"
    for source in sorted(sources.rglob("*.py")):
        name = source.relative_to(sources)
        installed = package / name
        current = installed.read_bytes() if installed.is_file() else None
        assert current == source.read_bytes(), (
            f"python/bitfold/{name} changed since the package was installed: install it again"
        )
    extra = {path.relative_to(package) for path in package.rglob("*.py")}
    extra -= {path.relative_to(sources) for path in sources.rglob("*.py")}
    assert extra == {pathlib.Path("_frame/build_info.py")}, (
        "modules are installed that the checkout no longer has: install the package again"
    )


# ---- Texts -------------------------------------------------------------------------------------


def test_copyright_headers():
    """Every source file begins with the copyright and licence lines."""
    bad = []
    for path in files():
        if path.suffix not in SOURCES:
            continue
        head = [line for line in text(path).splitlines()[:4] if not line.startswith("#!")]
        plain = [line.lstrip("/*# ").rstrip() for line in head]
        expected = ["Copyright 2026 The Bitfold Authors.", "SPDX-License-Identifier: Apache-2.0"]
        if plain[:2] != expected:
            bad.append(where(path))
    assert not bad, (
        "begin these files with the two lines 'Copyright 2026 The Bitfold Authors.' and "
        "'SPDX-License-Identifier: Apache-2.0', as comments:\n" + "\n".join(bad)
    )


# Spelled in parts, so that this file does not find itself.
_TOLERANCES = [
    "all" + "close", "is" + "close", "r" + "tol", "a" + "tol", "app" + "rox", "_NE" + "AR",
    "FLOAT_" + "EQ", "DOUBLE_" + "EQ", "almost_" + "equal", "Almost" + "Equal", "FloatNe" + "ar",
]  # fmt: skip
# "approximate" and "NEAREST" are words of operators.
_TOLERANCE = re.compile(
    "|".join(rf"(?:\b|(?<=_)|(?=_)){re.escape(w)}(?!imate|EST)" for w in _TOLERANCES)
)


def test_no_tolerances():
    """Results compare as bits: no test allows a difference."""
    found = []
    for path in files():
        if where(path).startswith(("tests/", "bench/")) and path.suffix in SOURCES:
            for number, line in enumerate(text(path).splitlines(), 1):
                found += [f"{where(path)}:{number}: {m}" for m in _TOLERANCE.findall(line)]
    assert not found, (
        "compare bits (assert_bits in Python; the bit comparison of tests/cpp/support in C++), "
        "not with a tolerance:\n" + "\n".join(found)
    )


# Spelled in parts, as above.
_POINTERS = re.compile(
    "|".join((r"\bthe con" + r"tracts?\b", r"\bemulated con" + "tract", r"\bthe sp" + r"ec\b")),
    re.IGNORECASE,
)


def test_texts_give_reasons():
    """No comment or document points to something that its reader cannot see."""
    found = []
    for path in files():
        for number, line in enumerate(text(path).splitlines(), 1):
            found += [f"{where(path)}:{number}: {m}" for m in _POINTERS.findall(line)]
    assert not found, (
        "the reader has this checkout and nothing else: write what holds and why, or name the rule "
        "of docs/arithmetic.md:\n" + "\n".join(found)
    )


def test_no_paths_of_a_machine():
    """No file names a folder of the machine it was written on."""
    folders = "|".join(("ho" + "me", "wo" + "rk", "ro" + "ot"))
    pattern = re.compile(rf"(?<![\w.$])/(?:{folders})/\w")
    found = [where(p) for p in files() if pattern.search(text(p))]
    assert not found, "write paths relative to the checkout:\n" + "\n".join(found)


# ---- Documentation of the package --------------------------------------------------------------


@pytest.mark.parametrize("name", bitfold.ops.__all__)
def test_docstrings_have_every_section(name):
    """A public op says what it takes, gives and refuses, and shows itself at work."""
    function = getattr(bitfold.ops, name)
    document = inspect.getdoc(function) or ""
    for section in ("Args", "Returns", "Raises", "Example"):
        assert re.search(rf"(?m)^{section}:$", document), (
            f"give bitfold.ops.{name} a docstring section '{section}:'"
        )
    example = document.split("\nExample:\n")[1]
    assert ">>> " in example, f"the example of bitfold.ops.{name} must run as a doctest"
    arguments = document.split("\nArgs:\n")[1].split("\nReturns:\n")[0]
    described = re.findall(r"(?m)^    \**(\w+): ", arguments)
    assert described == list(inspect.signature(function).parameters), (
        f"describe each parameter of bitfold.ops.{name}, in order, under 'Args:'"
    )


# Its example would need pandas, which no test does.
_WITHOUT_EXAMPLE = {bitfold.Study.to_dataframe}


@pytest.mark.parametrize("of", [bitfold.Network, bitfold.Study])
def test_methods_show_themselves_at_work(of):
    """What people call all day has an example at each method."""
    methods = {name: getattr(of, name) for name in vars(of) if not name.startswith("_")}
    silent = [
        name
        for name, method in methods.items()
        if inspect.isroutine(method) and method not in _WITHOUT_EXAMPLE
        and ">>> " not in inspect.getdoc(method)
    ]  # fmt: skip
    assert not silent, f"give {of.__name__}'s {', '.join(silent)} an example that runs as a doctest"


def test_public_functions_are_all_listed():
    """What is public in bitfold.ops is what `__all__` says."""
    public = {
        name
        for name, value in vars(bitfold.ops).items()
        if inspect.isfunction(value) and not name.startswith("_")
        and value.__module__ == "bitfold.ops"
    }  # fmt: skip
    assert public == set(bitfold.ops.__all__)
