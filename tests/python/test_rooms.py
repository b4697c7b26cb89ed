# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The house: which room stands on which, and that no include or import points up.

The tables here are the one statement of it; docs/design.md draws the picture.
"""

from __future__ import annotations

import ast
import pathlib
import re
from collections.abc import Iterator

import pytest
from support import ROOT

# ---- C++ ---------------------------------------------------------------------------------------

# Each room of src/, and include/, with what lies directly below it. A file may include files of its
# own room and of every room that is reached by going down.
BELOW = {
    "ops": ("cpu", "device"),
    "c_api": ("frame",),
    "cpu": ("chain",),
    "chain": ("vector",),
    "vector": ("frame",),
    "frame": ("include",),
    "device": ("include",),
    "include": (),
}
# Who may include the runtime's headers: the ops, and of the frame what ops alone use.
RUNTIME = (
    "tensorflow/",
    "absl/",
    "xla/",
    "tsl/",
    "Eigen/",
    "unsupported/",
    "google/",
    "third_party/",
)
RUNTIME_USERS = re.compile(
    r"src/ops/.*|src/frame/(op_(frame|scratch|cancellation|workers)\.h"
    r"|op_(frame|registration)\.cc|log\.cc)"
)
# Who may include the device toolkit's.
TOOLKIT = re.compile(r"cu(da|rand|blas|dnn)\w*(\.h|/.*)")
# Compiled for the host, the kernels get the toolkit's stand-in from the tests.
STAND_IN = ("src/device/device.h", "support/device_emulation.h")

SUFFIXES = {".h", ".cc", ".c", ".cu", ".cuh", ".inc"}
_INCLUDE = re.compile(r'(?m)^[ \t]*#[ \t]*include[ \t]*([<"])([^>"]+)[>"]')


def _reach(room: str) -> set[str]:
    """Return a room and all below it."""
    return {room}.union(*(_reach(below) for below in BELOW[room]))


def _sources(*folders: str) -> list[pathlib.Path]:
    found = (path for folder in folders for path in (ROOT / folder).rglob("*"))
    return sorted(path for path in found if path.suffix in SUFFIXES)


def _where(path: pathlib.Path) -> str:
    return path.relative_to(ROOT).as_posix()


def _includes(path: pathlib.Path) -> Iterator[tuple[str, bool]]:
    """Yield what a file includes, and whether by quotes."""
    for mark, name in _INCLUDE.findall(path.read_text()):
        yield name, mark == '"'


def _room(path: str) -> str:
    """Return the room of a path of the checkout, "" for one outside the house."""
    first, _, rest = path.partition("/")
    if first == "include":
        return "include"
    return rest.partition("/")[0] if first == "src" and "/" in rest else ""


def test_every_room_has_its_floor():
    """A folder of src/ stands in the table, and each room of the table in src/."""
    folders = {path.name for path in (ROOT / "src").iterdir() if path.is_dir()}
    assert folders == set(BELOW) - {"include"}, (
        "give each folder of src/ its place in BELOW of tests/python/test_rooms.py and in the "
        "picture of docs/design.md"
    )
    loose = [_where(p) for p in _sources("src") if not _room(_where(p))]
    assert not loose, f"put these files into a room of src/: {', '.join(loose)}"


def _misplaced(path: pathlib.Path) -> Iterator[str]:
    """Yield what is wrong with each include of a file of the house."""
    own = _where(path)
    allowed = _reach(_room(own))
    for name, quoted in _includes(path):
        target = next((f"{root}/{name}" for root in ("src", "include") if
                       (ROOT / root / name).is_file()), "")  # fmt: skip
        if target:
            if _room(target) not in allowed:
                yield f'{own} includes "{name}", which lies above or beside it'
        elif name.startswith(RUNTIME):
            if not RUNTIME_USERS.fullmatch(own):
                yield f'{own} includes "{name}" of the runtime'
        elif TOOLKIT.fullmatch(name):
            if _room(own) != "device":
                yield f"{own} includes <{name}> of the device toolkit"
        elif quoted and (own, name) != STAND_IN:
            yield f'{own} includes "{name}", which is neither in src/ nor in include/'


@pytest.mark.parametrize("room", BELOW)
def test_includes_point_down(room):
    """What a room includes lies in it or below it; the runtime is known to the ops alone."""
    folder = "include" if room == "include" else f"src/{room}"
    found = [text for path in _sources(folder) for text in _misplaced(path)]
    below = ", ".join(sorted(_reach(room) - {room})) or "nothing"
    assert not found, (
        f"{folder} stands on {below}. Move what both need to a room below, or pass it down as an "
        "argument; what needs the runtime belongs into src/ops:\n" + "\n".join(found)
    )


def test_the_oracle_stands_alone():
    """tests/reference includes its own headers and the standard library's, nothing of the house."""
    found = []
    for path in _sources("tests/reference"):
        for name, quoted in _includes(path):
            own = (path.parent / name).is_file() and "/" not in name
            standard = not quoted and re.fullmatch(r"[a-z0-9_]+(\.h)?", name)
            if not (own or standard):
                found.append(f"{_where(path)} includes {name}")
    assert not found, (
        "an oracle that shares a line with what it checks repeats its errors: write the rule anew "
        "in tests/reference, from docs/arithmetic.md and not from the code:\n" + "\n".join(found)
    )


# ---- Python ------------------------------------------------------------------------------------

PACKAGE = ROOT / "python" / "bitfold"

# The package's floors from the top: what a module imports lies in its own room or on a floor below.
# Rooms of one floor do not know one another. What is built from several ops (networks, studies,
# training, commands) gets floors of its own between the door and the helpers.
FLOORS = (
    ("bitfold.__main__",),  # the command, which stands outside as bitfold_command
    ("bitfold",),  # the door: what `import bitfold` offers
    # What an arithmetic does to a network; learning it; data in files.
    ("bitfold.data", "bitfold.studies", "bitfold.training"),
    ("bitfold.network",),  # trained networks
    ("bitfold.detection", "bitfold.fpx", "bitfold.resize", "bitfold.tables"),  # an op's company
    ("bitfold.ops",),  # single ops
    ("bitfold.gradients",),  # of what real function an op's gradient is
    ("bitfold._frame",),  # loading, arguments, shapes, layers
)
_FLOOR = {room: floor for floor, rooms in enumerate(FLOORS) for room in rooms}


def _module(path: pathlib.Path) -> str:
    name = ".".join(path.relative_to(PACKAGE.parent).with_suffix("").parts)
    return name.removesuffix(".__init__")


MODULES = {_module(path): path for path in sorted(PACKAGE.rglob("*.py"))}
# Written when the package is installed.
_GENERATED = {"bitfold._frame.build_info"}


def _package_room(module: str) -> str:
    return ".".join(module.split(".")[:2])


def _imported(tree: ast.AST) -> Iterator[tuple[int, str]]:
    """Yield line and module of every import of the package, submodules by their own name."""
    for node in ast.walk(tree):
        if isinstance(node, ast.Import):
            for name in node.names:
                yield node.lineno, name.name
        elif isinstance(node, ast.ImportFrom):
            assert not node.level, f"line {node.lineno}: write the module's whole name"
            for name in node.names:
                inner = f"{node.module}.{name.name}"
                known = inner in MODULES or inner in _GENERATED
                yield node.lineno, inner if known else node.module


def test_every_module_has_its_floor():
    """A room of the package stands on one floor of the table, and each room of the table exists."""
    rooms = {_package_room(module) for module in MODULES}
    assert rooms == set(_FLOOR), (
        "give each module and folder of python/bitfold its floor in FLOORS of "
        "tests/python/test_rooms.py"
    )


@pytest.mark.parametrize("module", MODULES)
def test_imports_point_down(module):
    """What a module imports of the package lies in its own room or on a floor below."""
    own = _package_room(module)
    found = []
    for line, other in _imported(ast.parse(MODULES[module].read_text())):
        if other.partition(".")[0] != "bitfold":
            continue
        room = _package_room(other)
        if room != own and _FLOOR[room] <= _FLOOR[own]:
            found.append(f"{_where(MODULES[module])}:{line} imports {other}")
    assert not found, (
        "move what both need to a floor below, or hand it down when the package is imported (as "
        "the ops enter themselves with accepts_symbolic):\n" + "\n".join(found)
    )


@pytest.mark.parametrize("module", MODULES)
def test_no_import_of_the_package_is_late(module):
    """An import in a function hides a circle."""
    tree = ast.parse(MODULES[module].read_text())
    functions = [n for n in ast.walk(tree) if isinstance(n, ast.FunctionDef | ast.AsyncFunctionDef)]
    late = {
        f"{_where(MODULES[module])}:{line} imports {other}"
        for function in functions
        for line, other in _imported(function)
        if other.partition(".")[0] == "bitfold"
    }
    assert not late, (
        "import at the top of the module; if that makes a circle, move what both need to a floor "
        "below:\n" + "\n".join(sorted(late))
    )


# Who may use the runtime's model files: its schema, its interpreter, its converter.
MODEL_FILE_USERS = {
    f"bitfold.network.{name}"
    for name in ("converter", "kernels", "model_file", "model_packer", "model_schema")
}


def _model_file_uses(tree: ast.AST) -> Iterator[int]:
    """Yield the lines that use the runtime's package for model files, however it is reached."""
    for node in ast.walk(tree):
        if isinstance(node, ast.Import):
            names = [name.name for name in node.names]
        elif isinstance(node, ast.ImportFrom):
            names = [f"{node.module}.{name.name}" for name in node.names]
        else:
            reached = isinstance(node, ast.Attribute) and node.attr == "lite"
            names = ["tensorflow.lite"] if reached and ast.unparse(node.value) == "tf" else []
        if any(f"{name}.".startswith("tensorflow.lite.") for name in names):
            yield node.lineno


def test_one_place_knows_model_files():
    """Where a network came from is known to its reader and its converter, and to nothing else."""
    found = {
        module: list(_model_file_uses(ast.parse(path.read_text())))
        for module, path in MODULES.items()
    }
    users = {module for module, lines in found.items() if lines}
    assert users == MODEL_FILE_USERS, (
        "take what a file holds from the records of bitfold.network.graph, and run the runtime's "
        f"kernels by bitfold.network.kernels: {sorted(users ^ MODEL_FILE_USERS)}"
    )
