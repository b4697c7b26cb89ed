# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""Train a small digit classifier, quantise it and study its accumulators on Bitfold."""

from __future__ import annotations

import argparse
import os
import sys
import time
from pathlib import Path

# Both must precede TensorFlow's import; the second also silences a notice.
os.environ.setdefault("TF_CPP_MIN_LOG_LEVEL", "3")
os.environ.setdefault("TF_ENABLE_ONEDNN_OPTS", "0")


def positive(text: str) -> int:
    """Parse a whole number above zero."""
    value = int(text)
    if value < 1:
        raise argparse.ArgumentTypeError(f"{value} is not above zero")
    return value


def parse_arguments(arguments: list[str] | None = None) -> argparse.Namespace:
    """Parse the command line."""
    parser = argparse.ArgumentParser(
        description=__doc__,
        epilog="Writes accumulator_width.png and results.json to the output directory.",
    )
    parser.add_argument(
        "--output-dir", type=Path, default=Path("build/demo"),
        help="directory for the results, created where missing (default: %(default)s)",
    )  # fmt: skip
    parser.add_argument(
        "--seed", type=int, default=0, help="seed of the training (default: %(default)s)"
    )
    parser.add_argument(
        "--epochs", type=positive, default=50,
        help="epochs of the training (default: %(default)s)",
    )  # fmt: skip
    parser.add_argument(
        "--images", type=positive, metavar="N",
        help="use only the first N images of the test split (default: all)",
    )  # fmt: skip
    return parser.parse_args(arguments)


def missing_bitfold() -> str | None:
    """Try to import bitfold; say what went wrong, or None if nothing did."""
    import tensorflow as tf

    try:
        import bitfold.ops  # noqa: F401
    except (ImportError, OSError, AttributeError, tf.errors.OpError) as error:
        return f"cannot import bitfold: {error}\nBuild and install the package first."
    return None


def run(options: argparse.Namespace) -> None:
    """Do the whole job: train, quantise, measure, report."""
    import model
    import quantise
    import report
    import study

    console = report.make_console()
    started = time.perf_counter()
    digits = model.load_data()
    images = digits.test_images[: options.images]
    labels = digits.test_labels[: options.images]

    console.print(f"Training on {len(digits.train_labels)} images, {options.epochs} epochs ...")
    float_network = model.train(digits, options.seed, options.epochs)
    float_accuracy = model.accuracy(model.predict(float_network, images), labels)
    trained = time.perf_counter()
    console.print(f"Float network: accuracy {float_accuracy:.2%} after {trained - started:.1f} s")

    network = quantise.quantise(float_network, digits.train_images)
    with report.progress_reports(console, study.RUNS) as progress:
        results = study.run_study(network, images, labels, progress)
    measured = time.perf_counter()

    settings = {
        "seed": options.seed,
        "epochs": options.epochs,
        "test_images": len(labels),
        "skip_factor": network.skip_factor,
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


def main() -> int:
    """Entry point; returns the exit code."""
    options = parse_arguments()
    problem = missing_bitfold()
    if problem:
        print(f"error: {problem}", file=sys.stderr)
        return 1
    run(options)
    return 0


if __name__ == "__main__":
    sys.exit(main())
