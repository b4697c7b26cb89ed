# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""Train a network on Fashion-MNIST, import it as integers and study its accumulators."""

from __future__ import annotations

import argparse
import sys
import time
from pathlib import Path

# What the examples share.
sys.path.append(str(Path(__file__).resolve().parent.parent / "common"))

import command
import pictures


def parse_arguments() -> argparse.Namespace:
    """Parse the command line."""
    parser = command.make_parser(__doc__, "build/demo", None, "accumulator_width.png")
    parser.add_argument(
        "--data-dir", type=Path, default=pictures.FASHION_FOLDER, metavar="DIR",
        help="folder of Fashion-MNIST; where missing, the digits instead (default: %(default)s)",
    )  # fmt: skip
    command.add_widths(parser, 14, 24)
    return parser.parse_args()


def run(options: argparse.Namespace) -> None:
    """Do the whole job: train, import, measure, report."""
    import model
    import report
    import study
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
        network = model.train(dataset, options.seed, epochs, options.output_dir, progress)
    float_accuracy = model.accuracy(network, images, labels)
    trained = time.perf_counter()
    console.print(f"Float network: accuracy {float_accuracy:.2%} after {trained - started:.1f} s")

    steps = study.RUNS + len(options.widths) * len(study.SETTINGS)
    with progress_reports(console, steps) as progress:
        results = study.run_study(
            network, dataset.train_images, images, labels, options.widths, progress
        )
    measured = time.perf_counter()

    settings = {
        "dataset": dataset.name,
        "seed": options.seed,
        "epochs": epochs,
        "test_images": len(labels),
        "training_seconds": round(trained - started, 1),
        "study_seconds": round(measured - trained, 1),
    }
    options.output_dir.mkdir(parents=True, exist_ok=True)
    picture = options.output_dir / "accumulator_width.png"
    numbers = options.output_dir / "results.json"
    report.write_plot(picture, results, float_accuracy)
    report.write_json(numbers, settings, results, float_accuracy)
    report.print_accuracies(console, results, float_accuracy)
    report.print_layers(console, results)
    report.print_summary(console, results, float_accuracy, len(labels))
    console.print(
        f"Training took {trained - started:.0f} s, the measurements {measured - trained:.0f} s.\n"
        f"Picture: {picture}\nNumbers: {numbers}",
        soft_wrap=True,
    )


if __name__ == "__main__":
    sys.exit(command.start(run, parse_arguments()))
