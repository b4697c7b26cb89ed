# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The words of the command line."""

from __future__ import annotations

import argparse
import os
import pathlib
import re

_EXIT = """exit status: 0 done; 1 what is compared differs; 2 wrong usage or input, or a search
that found nothing; 130 interrupted. Results go to standard output, progress and errors to
standard error."""

_INFO = """examples:
  bitfold info model.tflite
  bitfold info model.tflite --json | jq '.layers[].name'"""
_STUDY = """examples:
  bitfold study model.tflite --data images.npz --widths 14:24 --shifts 0:4 --report report.html
  bitfold study model.tflite --data images.npy --labels labels.npy --widths 16,18 --half-precision
  bitfold study model.tflite --data images.npz --widths 16 --mixture 'block1*=14/4,conv_out=20'
  bitfold study model.tflite --data images.npz --widths 14:24 --resume study.parts --json
  bitfold study model.tflite --data 'images/*.npz' --widths 14:24 --workers 8
  bitfold study model.tflite --data pictures --scale 0.0078125 --offset -1 --widths 14:24
  bitfold study model.tflite --data pictures --widths 14:24 --scheduler tls://head:8786"""
_NARROWEST = """examples:
  bitfold narrowest model.tflite --data images.npz
  bitfold narrowest model.tflite --data images.npz --shifts 0:4 --save narrow.bitfold
  bitfold narrowest model.tflite --data images.npz --metric-loss 0.01 --report report.html"""
_COMPARE = """examples:
  bitfold compare before.json after.json              two studies that were saved
  bitfold compare model.tflite narrow.bitfold --data images.npz     two networks"""


class Interval(tuple):
    """Numbers as they were typed: 14:24 with both ends, or 14,16,20."""

    __slots__ = ()


def numbers(text: str) -> Interval:
    """Return the numbers of "14:24", "16" or "14,16,20:22", in ascending order, each once."""
    found = set()
    for part in text.split(","):
        match = re.fullmatch(r"\s*(\d{1,2})(?::(\d{1,2}))?\s*", part)
        if not match:
            raise argparse.ArgumentTypeError(f"need numbers as 16, 14:24 or 14,16,20; got {text!r}")
        first, last = int(match[1]), int(match[2] or match[1])
        if last < first:
            raise argparse.ArgumentTypeError(f"need {first} <= {last} in {part!r}")
        found.update(range(first, last + 1))
    return Interval(sorted(found))


def mixture(text: str) -> dict[str, tuple[int, int]]:
    """Return width and shift by layer of "conv1=16/2,DEPTHWISE_CONV_2D=20"."""
    found = {}
    for part in text.split(","):
        match = re.fullmatch(r"\s*(.+?)\s*=\s*(\d{1,2})(?:/(\d{1,2}))?\s*", part)
        if not match:
            raise argparse.ArgumentTypeError(
                f"need LAYER=WIDTH or LAYER=WIDTH/SHIFT between commas; got {part!r}"
            )
        found[match[1]] = (int(match[2]), int(match[3] or 0))
    return found


def output(text: str) -> pathlib.Path:
    """Return a path that can be written, as far as that can be told beforehand."""
    path = pathlib.Path(text)
    folder = path.parent
    if path.is_dir():
        raise argparse.ArgumentTypeError(f"need a file, got the folder {text}")
    if not folder.is_dir():
        raise argparse.ArgumentTypeError(f"there is no folder {folder} for {path.name}")
    if not os.access(path if path.exists() else folder, os.W_OK):
        raise argparse.ArgumentTypeError(f"cannot write {text}")
    return path


def report(text: str) -> pathlib.Path:
    """Return the path of a report, which its ending names the form of."""
    path = output(text)
    if path.suffix.lower() not in (".html", ".json"):
        raise argparse.ArgumentTypeError(f"need a path that ends in .html or .json, got {text}")
    return path


def _positive(text: str) -> int:
    if not text.isdecimal() or not int(text):
        raise argparse.ArgumentTypeError(f"need a whole number above 0, got {text!r}")
    return int(text)


def _sample(text: str) -> str | int:
    return text if text in ("sample", "all") else _positive(text)


def _share(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        value = -1.0
    if not 0 <= value < float("inf"):
        raise argparse.ArgumentTypeError(f"need a number of 0 or more, got {text!r}")
    return value


def make_parser() -> argparse.ArgumentParser:
    """Return the parser of the whole command."""
    parser = argparse.ArgumentParser(
        prog="bitfold",
        description="A trained network in an accelerator's arithmetic, bit for bit.",
        epilog=_EXIT,
    )
    parser.add_argument("--version", action="store_true", help="print the version")
    tasks = parser.add_subparsers(dest="task", metavar="TASK")

    _add_info(tasks)
    _add_study(tasks)
    _add_narrowest(tasks)
    _add_compare(tasks)
    return parser


def _add_info(tasks: argparse._SubParsersAction) -> None:
    info = _task(tasks, "info", "the layers of a network", _INFO)
    _add_model(info)


def _add_study(tasks: argparse._SubParsersAction) -> None:
    study = _task(tasks, "study", "what accumulators do to a network, layer by layer", _STUDY)
    _add_model(study)
    _add_data(study)
    _add_arithmetics(study)
    _add_reports(study)
    _add_workers(study)
    study.add_argument(
        "--channels", metavar="LAYER", action="append", default=[],
        help="print the channels of a layer, too; may be repeated",
    )  # fmt: skip
    study.add_argument(
        "--float-model", metavar="FILE",
        help="the float model, .keras or .tflite: what adds which error, layer by layer",
    )  # fmt: skip
    study.add_argument(
        "--partial-sums", type=_sample, default="sample", metavar="sample|all|COUNT",
        help="the images whose partial sums are looked at: the first 16 and every 256th (sample), "
        "all, or one in so many (default: %(default)s)",
    )  # fmt: skip
    study.add_argument(
        "--resume", type=output, metavar="FILE",
        help="keep finished parts there, and go on from them",
    )  # fmt: skip


def _add_narrowest(tasks: argparse._SubParsersAction) -> None:
    narrowest = _task(
        tasks, "narrowest", "the narrowest accumulators that keep the metric", _NARROWEST
    )
    _add_model(narrowest)
    _add_data(narrowest)
    narrowest.add_argument(
        "--metric-loss", type=_share, default=0.005, metavar="LOSS",
        help="by how much the metric may be worse (default: %(default)s)",
    )  # fmt: skip
    narrowest.add_argument(
        "--widths", type=numbers, metavar="WIDTHS", help="widths to choose from (default: 8:32)"
    )
    narrowest.add_argument(
        "--shifts", type=numbers, metavar="SHIFTS", help="shifts to choose from (default: 0)"
    )
    narrowest.add_argument(
        "--sample", type=_positive, metavar="COUNT",
        help="reject by the first so many images before all are tried",
    )  # fmt: skip
    narrowest.add_argument(
        "--save", type=output, metavar="FILE", help="write the network in the arithmetic found"
    )
    _add_reports(narrowest)
    _add_workers(narrowest)


def _add_compare(tasks: argparse._SubParsersAction) -> None:
    compare = _task(tasks, "compare", "two networks on data, or two saved studies", _COMPARE)
    compare.add_argument("a", metavar="A", help="a model, a saved network, or a study's .json")
    compare.add_argument("b", metavar="B", help="another of the same kind")
    compare.add_argument("--json", action="store_true", help="print JSON instead of tables")
    _add_images(compare, required=False)
    # What the two differ in needs no labels; those of data that has some are not looked at.
    compare.set_defaults(labels=None, y=None)


def _task(tasks: argparse._SubParsersAction, name: str, what: str, examples: str):
    return tasks.add_parser(
        name,
        help=what,
        description=f"{what[0].upper()}{what[1:]}.",
        epilog=examples,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )


def _add_model(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("model", help="a quantised .tflite file, or what Network.save wrote")
    parser.add_argument("--json", action="store_true", help="print JSON instead of tables")


def _add_data(parser: argparse.ArgumentParser) -> None:
    group = _add_images(parser)
    group.add_argument(
        "--labels", metavar="FILES", action="append",
        help="labels as .npy, where --data has none; may be repeated",
    )  # fmt: skip
    group.add_argument(
        "--y", metavar="NAME",
        help="the array or feature with the labels (default: y, labels, y_test, label)",
    )  # fmt: skip
    group.add_argument(
        "--metric", metavar="NAME", help="a metric of Keras (default: the share of right answers)"
    )


def _add_images(parser: argparse.ArgumentParser, required: bool = True):
    group = parser.add_argument_group("data")
    group.add_argument(
        "--data", required=required, metavar="FILES", action="append",
        help="images as the network takes them: .npz with images and labels, .npy, TFRecord files, "
        "or a folder of pictures, with a folder for each class if they have labels; a path or a "
        "pattern in quotes, may be repeated",
    )  # fmt: skip
    group.add_argument(
        "--x", metavar="NAME", action="append",
        help="the array of the .npz, or the feature of records, with the images (default: x, "
        "images, x_test, inputs, image, or the only one); once for each input",
    )  # fmt: skip
    group.add_argument(
        "--scale", type=float, default=1.0, metavar="NUMBER",
        help="what pixels of 0 to 255 of encoded pictures are multiplied by (default: 1)",
    )  # fmt: skip
    group.add_argument(
        "--offset", type=float, default=0.0, metavar="NUMBER", help="what is added to them then"
    )
    group.add_argument("--images", type=_positive, metavar="COUNT", help="only the first so many")
    group.add_argument("--batch-size", type=_positive, metavar="COUNT", help="images at once")
    return group


def _add_arithmetics(parser: argparse.ArgumentParser) -> None:
    group = parser.add_argument_group("arithmetics, of which all combinations are studied")
    group.add_argument(
        "--widths", type=numbers, default=Interval(), metavar="WIDTHS",
        help="bits of the accumulator, as 16, 14:24 (both ends) or 14,16,20",
    )  # fmt: skip
    group.add_argument(
        "--shifts", type=numbers, default=Interval([0]), metavar="SHIFTS",
        help="by how many bits every addend is shifted right (default: 0)",
    )  # fmt: skip
    group.add_argument(
        "--half-precision", action="store_true", help="sums in half precision, too, at each shift"
    )
    group.add_argument(
        "--unit-requantisation", action="store_true",
        help="each of them with the activation unit's requantisation, too",
    )  # fmt: skip
    group.add_argument(
        "--mixture", type=mixture, action="append", default=[], metavar="LAYER=WIDTH[/SHIFT],...",
        help="widths by layer, pattern or operator; other layers stay exact; may be repeated",
    )  # fmt: skip


def _add_reports(parser: argparse.ArgumentParser) -> None:
    parser.add_argument(
        "--report", type=report, action="append", default=[], metavar="FILE",
        help="write a report for people (.html) or all numbers (.json); may be repeated",
    )  # fmt: skip


def _add_workers(parser: argparse.ArgumentParser) -> None:
    group = parser.add_argument_group("workers, which change no result")
    chosen = group.add_mutually_exclusive_group()
    chosen.add_argument(
        "--workers", type=_positive, metavar="COUNT",
        help="so many processes of this machine, which share its cores (default: this process)",
    )  # fmt: skip
    chosen.add_argument(
        "--scheduler", metavar="ADDRESS",
        help="the workers of a Dask scheduler, as tcp://head:8786; needs bitfold[distributed]",
    )  # fmt: skip
