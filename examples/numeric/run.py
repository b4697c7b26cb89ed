# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""Train a small transformer encoder and run its numeric units on Bitfold."""

from __future__ import annotations

import argparse
import importlib.util
import sys
import time
from pathlib import Path
from types import ModuleType

DIGITS = Path(__file__).resolve().parent.parent / "digits"
"""The other example, which has the data, the console and the checks."""


def load_digits_command() -> ModuleType:
    """Load the other example's run.py, whose name is also this file's.

    It sets what must be set before TensorFlow is imported.
    """
    sys.path.append(str(DIGITS))
    spec = importlib.util.spec_from_file_location("digits_command", DIGITS / "run.py")
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def parse_arguments(digits: ModuleType, arguments: list[str] | None = None) -> argparse.Namespace:
    """Parse the command line."""
    parser = argparse.ArgumentParser(
        description=__doc__,
        epilog="Writes transfer_curves.png and results.json to the output directory.",
    )
    parser.add_argument(
        "--output-dir", type=Path, default=Path("build/demo-numeric"),
        help="directory for the results, created where missing (default: %(default)s)",
    )  # fmt: skip
    parser.add_argument(
        "--seed", type=int, default=0, help="seed of the training (default: %(default)s)"
    )
    parser.add_argument(
        "--epochs", type=digits.positive, default=40,
        help="epochs of the training (default: %(default)s)",
    )  # fmt: skip
    parser.add_argument(
        "--images", type=digits.positive, metavar="N",
        help="use only the first N images of the test split (default: all)",
    )  # fmt: skip
    return parser.parse_args(arguments)


def run(options: argparse.Namespace) -> None:
    """Do the whole job: train, measure, report."""
    import curves
    import encoder
    import measure
    import model
    import report
    import show

    console = report.make_console()
    started = time.perf_counter()
    digits = model.load_data()
    images = digits.test_images[: options.images]
    labels = digits.test_labels[: options.images]

    with report.progress_reports(console, options.epochs + measure.STEPS) as progress:
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


def main() -> int:
    """Entry point; returns the exit code."""
    digits = load_digits_command()
    options = parse_arguments(digits)
    problem = digits.missing_bitfold()
    if problem:
        print(f"error: {problem}", file=sys.stderr)
        return 1
    run(options)
    return 0


if __name__ == "__main__":
    sys.exit(main())
