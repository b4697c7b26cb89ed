# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""Train a small transformer encoder and run its numeric units on Bitfold."""

from __future__ import annotations

import argparse
import sys
import time
from pathlib import Path

# What the examples share.
sys.path.append(str(Path(__file__).resolve().parent.parent / "common"))

import command


def run(options: argparse.Namespace) -> None:
    """Do the whole job: train, measure, report."""
    import curves
    import encoder
    import measure
    import pictures
    import show
    from console import make_console, progress_reports

    console = make_console()
    started = time.perf_counter()
    digits = pictures.load_digits()
    images = digits.test_images[: options.images]
    labels = digits.test_labels[: options.images]

    with progress_reports(console, options.epochs + measure.STEPS) as progress:
        count = len(digits.train_labels)
        progress(f"Training on {count} images, epochs: {options.epochs}", 0)

        def finished(epoch: int) -> None:
            if console.is_terminal or epoch % 10 == 0:
                progress(f"epoch {epoch} of {options.epochs}", 1)

        network = encoder.train(digits, options.seed, options.epochs, finished)
        trained = time.perf_counter()
        study = measure.run_study(network, digits.train_images, images, labels, progress)
    measured = time.perf_counter()

    settings = {
        "seed": options.seed,
        "epochs": options.epochs,
        "test_images": len(labels),
        "training_seconds": round(trained - started, 1),
        "study_seconds": round(measured - trained, 1),
    }
    options.output_dir.mkdir(parents=True, exist_ok=True)
    picture = options.output_dir / "transfer_curves.png"
    numbers = options.output_dir / "results.json"
    curves.write_plot(picture, study)
    show.write_json(numbers, settings, study)
    show.print_units(console, study)
    show.print_runs(console, study)
    show.print_summary(console, study, len(labels))
    console.print(
        f"Training took {trained - started:.0f} s, the measurements {measured - trained:.0f} s.\n"
        f"Picture: {picture}\nNumbers: {numbers}",
        soft_wrap=True,
    )


if __name__ == "__main__":
    parser = command.make_parser(__doc__, "build/demo-numeric", 40, "transfer_curves.png")
    sys.exit(command.start(run, parser.parse_args()))
