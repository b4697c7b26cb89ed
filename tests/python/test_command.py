# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The command: what it prints, writes and refuses, and with which status it ends."""

from __future__ import annotations

import errno
import json
import os
import subprocess
import sys

import keras
import numpy as np
import pytest

import bitfold
import bitfold_command.study
from bitfold_command import parser
from bitfold_command.main import main

IMAGES = 60


@pytest.fixture(scope="module")
def folder(tmp_path_factory):
    """A network of two layers, its float model and data, as files."""
    path = tmp_path_factory.mktemp("command")
    keras.utils.set_random_seed(5)
    model = keras.Sequential(
        [
            keras.Input((6, 6, 2), name="image"),
            keras.layers.Conv2D(4, 3, activation="relu", name="conv"),
            keras.layers.Flatten(),
            keras.layers.Dense(3, name="dense"),
        ]
    )
    x = np.random.default_rng(5).normal(size=(IMAGES, 6, 6, 2)).astype(np.float32)
    network = bitfold.Network.from_keras(model, calibration=x)
    y = np.asarray(network(x)).argmax(axis=1)
    model.save(path / "model.keras")
    network.save(path / "network.bitfold")
    network.with_arithmetic(bitfold.Arithmetic(10)).save(path / "narrow.bitfold")
    np.savez(path / "data.npz", x=x, y=y)
    np.savez(path / "others.npz", pictures=x, weights=y)
    np.save(path / "x.npy", x)
    np.save(path / "y.npy", y)
    (path / "text.txt").write_text("no model, no array")
    (path / "cut.npz").write_bytes((path / "data.npz").read_bytes()[:200])
    return path


@pytest.fixture
def run(folder, capfd, monkeypatch):
    """Run the command in the folder; return its status, standard output and error."""
    monkeypatch.chdir(folder)

    def call(*arguments):
        try:
            status = main(arguments)
        except SystemExit as end:
            status = end.code
        return status, *capfd.readouterr()

    return call


# ---- Tasks -------------------------------------------------------------------------------------


def test_info(run):
    """The summary, or the same as JSON."""
    status, out, err = run("info", "network.bitfold")
    assert (status, err) == (0, "")
    assert "conv" in out
    assert "multiply-adds for one image" in out
    status, out, _ = run("info", "network.bitfold", "--json")
    layers = json.loads(out)["layers"]
    assert status == 0
    assert layers[0]["operator"] == "CONV_2D"
    assert sum(layer["multiply_adds"] for layer in layers) == json.loads(out)["multiply_adds"]


def test_study_is_that_of_the_package(run, folder):
    """The JSON that is printed has the findings of bitfold.study."""
    status, out, _ = run(
        "study", "network.bitfold", "--data", "data.npz", "--widths", "9:11", "--shifts", "0,1",
        "--json",
    )  # fmt: skip
    assert status == 0
    found = bitfold.studies.document.from_json(out)
    arrays = np.load(folder / "data.npz")
    expected = bitfold.study(
        bitfold.Network.load(folder / "network.bitfold"),
        arrays["x"],
        arrays["y"],
        arithmetics=[
            bitfold.Arithmetic(accumulator_size=width, mult_shift=shift)
            for shift in (0, 1)
            for width in (9, 10, 11)
        ],
    ).findings
    assert (found.layers, found.results) == (expected.layers, expected.results)
    assert found.metric == 1.0
    assert found.title == "network.bitfold"


def test_reports_and_channels(run, folder):
    """Reports in both forms, whatever is printed; a resumed study gives the same."""
    arguments = (
        "study", "network.bitfold", "--data", "data.npz", "--widths", "10", "--channels", "conv",
        "--report", "report.html", "--report", "report.json", "--resume", "parts",
    )  # fmt: skip
    status, out, _ = run(*arguments)
    assert status == 0
    assert "channel" in out
    page = (folder / "report.html").read_text()
    assert page.startswith("<!DOCTYPE html>")
    first = bitfold.Study.load(folder / "report.json").findings
    assert run(*arguments)[0] == 0
    again = bitfold.Study.load(folder / "report.json").findings
    assert (first.layers, first.results) == (again.layers, again.results)


@pytest.mark.parametrize(
    ("data", "images"),
    [
        (("--data", "x.npy", "--labels", "y.npy"), IMAGES),
        (("--data", "others.npz", "--x", "pictures", "--y", "weights"), IMAGES),
        (("--data", "data.npz", "--images", "7"), 7),
        (("--data", "data.npz", "--batch-size", "9"), IMAGES),
    ],
)
def test_data(run, data, images):
    """Arrays by their usual names, by others, and of files of their own."""
    status, out, err = run("study", "network.bitfold", *data, "--json")
    assert status == 0, err
    assert json.loads(out)["findings"]["images"] == images
    assert json.loads(out)["findings"]["metric"] == 1.0


def test_data_without_labels(run):
    """A study needs none, a search does."""
    status, out, _ = run("study", "network.bitfold", "--data", "x.npy", "--json")
    assert status == 0
    assert json.loads(out)["findings"]["metric"] is None
    status, _, err = run("narrowest", "network.bitfold", "--data", "x.npy")
    assert status == 2
    assert "Need labels for a search" in err


def test_narrowest(run, folder):
    """What is saved computes in what was found."""
    status, out, err = run(
        "narrowest", "network.bitfold", "--data", "data.npz", "--metric-loss", "0.1",
        "--save", "found.bitfold", "--json",
    )  # fmt: skip
    assert status == 0, err
    assert "evaluation 1" in err
    findings = bitfold.studies.document.from_json(out)
    (found,) = findings.searches
    assert findings.title == "network.bitfold"
    network = bitfold.Network.load(folder / "found.bitfold")
    widths = {x.name: x.arithmetic.accumulator_size for x in network.layers if x.has_accumulator}
    assert widths == {choice.name: choice.width for choice in found.choices}
    arrays = np.load(folder / "data.npz")
    assert network.evaluate(arrays["x"], arrays["y"]) == found.metric >= 0.9


def test_compare_networks(run):
    """Nothing differs from itself; a narrow network differs, layer by layer."""
    status, out, _ = run("compare", "network.bitfold", "network.bitfold", "--data", "data.npz")
    assert (status, out) == (0, "no difference\n")
    status, out, _ = run(
        "compare", "network.bitfold", "narrow.bitfold", "--data", "data.npz", "--json"
    )
    assert status == 1
    rows = {row["layer"]: row for row in json.loads(out)}
    a, b = (bitfold.Network.load(name) for name in ("network.bitfold", "narrow.bitfold"))
    x = np.load("data.npz")["x"]
    traces = [network.trace(x)[a.layers[0].output_indices[0]] for network in (a, b)]
    assert rows["conv"]["values"] == traces[0].size
    assert rows["conv"]["differing"] == (traces[0] != traces[1]).sum()
    assert rows["conv"]["largest difference"] == np.abs(np.subtract(*map(np.int64, traces))).max()


def test_compare_studies(run):
    """Numbers that differ, by what and where."""
    for name, widths in (("a.json", "10"), ("b.json", "9,10")):
        run("study", "network.bitfold", "--data", "data.npz", "--widths", widths, "--report", name)
    assert run("compare", "a.json", "a.json")[:2] == (0, "no difference\n")
    status, out, _ = run("compare", "a.json", "b.json", "--json")
    assert status == 1
    assert {row["in"].rpartition(", ")[2] for row in json.loads(out)} == {"9 bits"}


# ---- What is refused ---------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("arguments", "text"),
    [
        ("info nowhere.tflite", "nowhere.tflite: No such file or directory"),
        ("info text.txt", "Need a .tflite file or one that Network.save wrote, got text.txt"),
        ("info model.keras", "Need a quantised model, got the float model model.keras"),
        ("info data.npz", "Need a file that Network.save wrote, got data.npz"),
        ("study network.bitfold --data text.txt", "Need arrays as .npz or .npy, got text.txt"),
        ("study network.bitfold --data cut.npz", "Need arrays as .npz or .npy, got cut.npz"),
        ("study network.bitfold --data others.npz --x a", "Need one of the arrays ['pictures'"),
        ("study network.bitfold --data others.npz", "Need the name of the images by --x"),
        ("study network.bitfold --data x.npy --x a", "Need a .npz for names of arrays"),
        ("study network.bitfold --data data.npz --channels no", "Need layers of ['conv', 'dense']"),
        ("study network.bitfold --data data.npz --mixture no=9", "got 'no'"),
        ("study network.bitfold --data data.npz --widths 33", "Need 0 <= accumulator_size <= 32"),
        ("study network.bitfold --data data.npz --metric no", "Keras metric, as"),
        ("study network.bitfold --data data.npz --metric mse", "labels [60] and outputs [60, 3]"),
        ("study network.bitfold --data data.npz --scale 2", "Need encoded pictures for --scale"),
        ("narrowest network.bitfold --data data.npz --widths 3:6", "Need widths of"),
        ("study network.bitfold --data data.npz --resume data.npz", "data.npz"),
        ("compare network.bitfold a.json", "Need two networks or two studies"),
        ("compare network.bitfold network.bitfold", "Need --data to compare networks on"),
    ],
)
def test_refusals(run, arguments, text):
    """One line on standard error, no traceback, status 2."""
    status, out, err = run(*arguments.split())
    assert status == 2
    assert out == ""
    assert err.startswith("bitfold: ")
    assert text in err
    assert err.count("\n") == 1


def test_a_report_that_cannot_be_written_loses_nothing(run, folder, monkeypatch):
    """What was found is printed; the error names the file that was asked for."""
    monkeypatch.setattr(os, "replace", _fail)
    status, out, err = _study(run, "--report", "full.html")
    assert status == 2
    assert "60 images went through" in out
    assert err == "bitfold: full.html: No space left on device\n"
    assert not [name for name in os.listdir(folder) if name.startswith(".bitfold-")]


def _study(run, *options):
    return run("study", "network.bitfold", "--data", "data.npz", *options)


def _fail(*_):
    raise OSError(errno.ENOSPC, "full", "a temporary file")


def test_a_reader_that_has_enough(run, monkeypatch):
    """Nobody reads the tables to their end: that is no failure."""

    def print_findings(*_):
        try:
            raise BrokenPipeError
        except BrokenPipeError as error:
            raise SystemExit(1) from error

    monkeypatch.setattr(bitfold_command.study.bitfold.Study, "print", print_findings)
    assert _study(run) == (0, "", "")


@pytest.mark.parametrize(
    ("arguments", "text"),
    [
        ("", "usage: bitfold"),
        ("compare a.bitfold b.bitfold --data x.npy --metric mse", "arguments: --metric mse"),
        ("nonsense", "invalid choice: 'nonsense'"),
        ("study network.bitfold", "the following arguments are required: --data"),
        ("study a --data b --widths 24:14", "need 24 <= 14"),
        ("study a --data b --widths wide", "need numbers as 16, 14:24 or 14,16,20"),
        ("study a --data b --mixture conv", "need LAYER=WIDTH or LAYER=WIDTH/SHIFT"),
        ("study a --data b --images 0", "need a whole number above 0"),
        ("study a --data b --report report.txt", "need a path that ends in .html or .json"),
        ("study a --data b --report no/report.html", "there is no folder no for report.html"),
        ("narrowest a --data b --metric-loss -1", "need a number of 0 or more"),
        ("narrowest a --data b --metric-loss nan", "need a number of 0 or more"),
    ],
)
def test_usage(run, arguments, text):
    """Before anything is read."""
    status, out, err = run(*arguments.split())
    assert (status, out) == (2, "")
    assert text in err


# ---- Words -------------------------------------------------------------------------------------


def test_numbers():
    """Both ends count; each number once."""
    assert parser.numbers("14:16") == (14, 15, 16)
    assert parser.numbers("20, 16,15:17") == (15, 16, 17, 20)


def test_arithmetics():
    """All combinations, then half precision, then the unit, then mixtures."""
    line = "study a --data b --widths 16,18 --shifts 0,7 --half-precision --unit-requantisation"
    line += " --mixture conv*=14/4,DEPTHWISE_CONV_2D=20"
    options = parser.make_parser().parse_args(line.split())
    make = bitfold.Arithmetic
    plain = [make(16), make(18), make(16, 7), make(18, 7), make(use_fp16_acc=True)]
    found = bitfold_command.study.arithmetics(options)
    assert found[:5] == plain
    assert found[5] == make(16, requantisation="unit")
    assert len(found) == 11
    assert found[-1] == {"conv*": make(14, 4), "DEPTHWISE_CONV_2D": make(20)}


@pytest.mark.parametrize("task", ["info", "study", "narrowest", "compare"])
def test_help(run, task):
    """Each task has examples that can be typed: their options exist."""
    status, out, _ = run(task, "--help")
    assert status == 0
    examples = [line for line in out.splitlines() if line.startswith(f"  bitfold {task}")]
    assert examples
    known = parser.make_parser()
    for line in examples:
        words = line.replace("'", "").split("  #")[0].split(" | ")[0].split("     ")[0].split()
        words = ["report.html" if word.endswith(".parts") else word for word in words]
        assert known.parse_args(words[1:]).task == task


def test_both_ways_to_start(folder):
    """As a script and as a module; help takes no second and needs no runtime."""
    code = "import sys; from bitfold_command.main import main; sys.modules['tensorflow'] = None; "
    result = subprocess.run(
        [sys.executable, "-c", code + "main(['--help'])"], capture_output=True, text=True
    )
    assert result.returncode == 0, result.stderr
    result = subprocess.run(
        [sys.executable, "-m", "bitfold", "--version"], capture_output=True, text=True, cwd=folder
    )
    assert result.stdout == f"{bitfold.__version__}\n"
