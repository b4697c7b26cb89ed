# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""Train a network on Fashion-MNIST, import it as integers, study and narrow its accumulators."""

from __future__ import annotations

import argparse
import sys
import time
from pathlib import Path

# What the examples share.
sys.path.append(str(Path(__file__).resolve().parent.parent / "common"))

import command
import pictures

CALIBRATION = 500
"""Training images whose ranges the converter takes for the scales."""

SHIFTS = (0, 2)
"""By how many bits every addend is divided, in all layers alike."""

MIXTURE_SHIFT = 4
"""The same below `DEPTHWISE_BITS`, which depthwise layers keep."""

DEPTHWISE_BITS = 16
"""The depthwise unit reads weights as numbers of half the accumulator's width: int8 takes 16."""

SEARCHED_SHIFTS = range(5)
SAMPLE = 1000
"""Images by which the search rejects a width before all are tried."""


def parse_arguments() -> argparse.Namespace:
    """Parse the command line."""
    parser = command.make_parser(__doc__, "build/demo", None, "report.html")
    parser.add_argument(
        "--data-dir", type=Path, default=pictures.FASHION_FOLDER, metavar="DIR",
        help="folder of Fashion-MNIST; where missing, the digits instead (default: %(default)s)",
    )  # fmt: skip
    command.add_widths(parser, 14, 24)
    parser.add_argument(
        "--metric-loss", type=float, default=0.005,
        help="by how much the narrowest accumulators may be worse (default: %(default)s)",
    )  # fmt: skip
    return parser.parse_args()


def arithmetics(widths: list[int]) -> dict:
    """Name what the study looks at: each shift at each width, then mixtures of widths."""
    from bitfold import Arithmetic
    from bitfold.studies.settings import name_of

    alike = [Arithmetic(width, shift) for shift in SHIFTS for width in widths]
    found = {name_of(arithmetic): arithmetic for arithmetic in alike}
    wider = Arithmetic(DEPTHWISE_BITS, MIXTURE_SHIFT)
    for width in (width for width in widths if width < DEPTHWISE_BITS):
        narrow = Arithmetic(width, MIXTURE_SHIFT)
        name = f"{name_of(narrow)}, depthwise {DEPTHWISE_BITS} bits"
        found[name] = {"CONV_2D": narrow, "FULLY_CONNECTED": narrow, "DEPTHWISE_CONV_2D": wider}
    return found


def run(options: argparse.Namespace) -> None:
    """Do the whole job: train, import, study, search, report."""
    import bitfold
    import model
    from console import make_console, progress_reports

    console = make_console()
    started = time.perf_counter()
    dataset = pictures.load_fashion(options.data_dir)
    if dataset is None:
        console.print(
            f"There is no {options.data_dir}, so these are the digits of scikit-learn instead. "
            "Debian's package dataset-fashion-mnist has the data set.",
            soft_wrap=True,
        )
        dataset = pictures.load_digits()
    images = dataset.test_images[: options.images]
    labels = dataset.test_labels[: options.images]

    console.print(f"{dataset.name}: {len(dataset.train_labels):,} training images")
    epochs = options.epochs or model.EPOCHS[dataset.name]
    with progress_reports(console, epochs) as progress:
        float_model = model.train(dataset, options.seed, epochs, options.output_dir, progress)
    trained = time.perf_counter()

    network = bitfold.Network.from_keras(float_model, dataset.train_images[:CALIBRATION])
    console.print("Studying the network at full width and in each arithmetic")
    study = bitfold.study(
        network, images, labels,
        arithmetics=arithmetics(options.widths), float_model=float_model,
        title=f"{dataset.name}, residual network",
    )  # fmt: skip
    studied = time.perf_counter()
    console.print("Searching the narrowest accumulator of each layer")
    narrowest = study.narrowest(options.metric_loss, shifts=SEARCHED_SHIFTS, images=SAMPLE)
    searched = time.perf_counter()

    options.output_dir.mkdir(parents=True, exist_ok=True)
    report, numbers = (options.output_dir / name for name in ("report.html", "results.json"))
    study.save(report)
    study.save(numbers)
    network.with_arithmetic(narrowest.arithmetic).save(options.output_dir / "narrowest.bitfold")
    study.print()
    console.print(
        f"\nTraining took {trained - started:.0f} s, the study {studied - trained:.0f} s, the "
        f"search {searched - studied:.0f} s with {narrowest.evaluations} evaluations.\n"
        f"Report: {report}\nNumbers: {numbers}",
        soft_wrap=True,
    )


if __name__ == "__main__":
    sys.exit(command.start(run, parse_arguments()))
