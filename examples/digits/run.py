# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""Train a small digit classifier, import it as whole numbers and study its accumulators."""

from __future__ import annotations

import argparse
import sys
import time
from pathlib import Path

# What the examples share.
sys.path.append(str(Path(__file__).resolve().parent.parent / "common"))

import command


def run(options: argparse.Namespace) -> None:
    """Do the whole job: train, import, measure, report."""
    import model
    import pictures
    import report
    import study
    from console import make_console, progress_reports

    console = make_console()
    started = time.perf_counter()
    digits = pictures.load_digits()
    images = digits.test_images[: options.images]
    labels = digits.test_labels[: options.images]

    console.print(f"Training on {len(digits.train_labels)} images, {options.epochs} epochs ...")
    float_network = model.train(digits, options.seed, options.epochs)
    float_accuracy = model.accuracy(float_network, images, labels)
    trained = time.perf_counter()
    console.print(f"Float network: accuracy {float_accuracy:.2%} after {trained - started:.1f} s")

    with progress_reports(console, study.RUNS + len(options.widths)) as progress:
        results = study.run_study(
            float_network, digits.train_images, images, labels, options.widths, progress
        )
    measured = time.perf_counter()

    settings = {
        "seed": options.seed,
        "epochs": options.epochs,
        "test_images": len(labels),
        "training_seconds": round(trained - started, 1),
        "study_seconds": round(measured - trained, 1),
    }
    options.output_dir.mkdir(parents=True, exist_ok=True)
    picture = options.output_dir / "accumulator_width.png"
    numbers = options.output_dir / "results.json"
    report.write_plot(picture, results, float_accuracy)
    report.write_json(numbers, settings, results, float_accuracy)
    report.print_width_table(console, results, float_accuracy)
    report.print_shift_table(console, results)
    report.print_summary(console, results, float_accuracy, len(labels))
    console.print(
        f"Training took {trained - started:.0f} s, the measurements {measured - trained:.0f} s.\n"
        f"Picture: {picture}\nNumbers: {numbers}",
        soft_wrap=True,
    )


if __name__ == "__main__":
    parser = command.make_parser(__doc__, "build/demo-digits", 50, "accumulator_width.png")
    command.add_widths(parser, 8, 24)
    sys.exit(command.start(run, parser.parse_args()))
