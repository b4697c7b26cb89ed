# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""Train a network through accumulators so narrow that it failed, until no input can wrap them."""

from __future__ import annotations

import argparse
import dataclasses
import sys
import time
from pathlib import Path

# What the examples share, and the network of the first.
sys.path.append(str(Path(__file__).resolve().parent.parent / "common"))
sys.path.append(str(Path(__file__).resolve().parent.parent / "fashion"))

import command
import pictures

PICTURE, NUMBERS = "training.png", "results.json"


def parse_arguments() -> argparse.Namespace:
    """Parse the command line."""
    parser = command.make_parser(__doc__, "build/demo-training", 3, PICTURE)
    parser.add_argument(
        "--data-dir", type=Path, default=pictures.FASHION_FOLDER, metavar="DIR",
        help="folder of Fashion-MNIST; where missing, the digits instead (default: %(default)s)",
    )  # fmt: skip
    parser.add_argument(
        "--weights-dir", type=Path, default=Path("build/demo"), metavar="DIR",
        help="where the float network's weights are kept (default: %(default)s)",
    )  # fmt: skip
    parser.add_argument(
        "--float-epochs", type=command.positive, metavar="N",
        help="epochs of the float network's training (default: what the data set needs)",
    )  # fmt: skip
    command.add_widths(parser, 10, 20)
    parser.add_argument(
        "--proven-widths", type=command.positive, nargs="+", default=[16, 14, 12], metavar="BITS",
        help="accumulators to train for, one after the other (default: 16 14 12)",
    )  # fmt: skip
    return parser.parse_args()


def load(options: argparse.Namespace) -> pictures.Dataset:
    """Return the pictures, as many of the test split as asked for."""
    dataset = pictures.load_fashion(options.data_dir) or pictures.load_digits()
    return dataclasses.replace(
        dataset,
        test_images=dataset.test_images[: options.images],
        test_labels=dataset.test_labels[: options.images],
    )


def run(options: argparse.Namespace) -> None:
    """Do the whole job: train in floats, measure, train through each accumulator, measure."""
    import bitfold
    import learning
    import model
    import show
    from console import make_console, progress_reports

    console = make_console()
    started = time.perf_counter()
    dataset = load(options)
    widths = sorted({*options.widths, *options.proven_widths})
    float_epochs = options.float_epochs or model.EPOCHS[dataset.name]
    runs = len(options.proven_widths)
    steps = float_epochs + (1 + runs) * len(widths) + runs * options.epochs

    def float_model(report):
        return model.train(dataset, options.seed, float_epochs, options.weights_dir, report)

    console.print(f"{dataset.name}: {len(dataset.train_labels):,} training images")
    with progress_reports(console, steps) as report:
        trained = float_model(report)
        float_accuracy = learning.accuracy_of(trained, dataset)
        network = bitfold.Network.from_keras(trained, dataset.train_images[: learning.CALIBRATION])
        before = learning.measure(network, dataset, widths, report)
        found = []
        for width in options.proven_widths:
            # Training changes the network that it is given; the weights are read again.
            learner = float_model(lambda *_: None)
            found.append(learning.train(learner, dataset, width, options.epochs, widths, report))
    options.output_dir.mkdir(parents=True, exist_ok=True)
    results = show.Results(dataset.name, len(dataset.test_labels), float_accuracy, before, found)
    show.print_accuracies(console, results)
    show.print_proofs(console, results)
    show.write_picture(options.output_dir / PICTURE, results)
    show.write_json(options.output_dir / NUMBERS, results)
    console.print(
        f"All of it took {time.perf_counter() - started:.0f} s.\n"
        f"Picture: {options.output_dir / PICTURE}\nNumbers: {options.output_dir / NUMBERS}",
        soft_wrap=True,
    )


if __name__ == "__main__":
    sys.exit(command.start(run, parse_arguments()))
