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

SHIFTS = range(13)
"""Shifts under test with an accumulator that is too narrow and with one of 32 bits."""

LARGEST_HALF_SHIFT = 6
"""The half-precision accumulator takes no larger ones."""

BITS_SHORT = 4
"""The too narrow accumulator lacks so many bits of what the network needs."""


def run(options: argparse.Namespace) -> None:
    """Do the whole job: train, import, study, report."""
    import bitfold
    import model
    import pictures
    from bitfold import Arithmetic
    from console import make_console

    console = make_console()
    started = time.perf_counter()
    digits = pictures.load_digits()
    images = digits.test_images[: options.images]
    labels = digits.test_labels[: options.images]

    console.print(f"Training on {len(digits.train_labels)} images, {options.epochs} epochs ...")
    float_model = model.train(digits, options.seed, options.epochs)
    trained = time.perf_counter()

    network = bitfold.Network.from_keras(float_model, digits.train_images)
    needed = max(layer.needed for layer in bitfold.study(network, images).layers)
    cases = [Arithmetic(width) for width in options.widths]
    shifts = options.shifts
    cases += [Arithmetic(width, shift) for width in (needed - BITS_SHORT, 32) for shift in shifts]
    half_shifts = [shift for shift in shifts if shift <= LARGEST_HALF_SHIFT]
    cases += [Arithmetic(mult_shift=shift, use_fp16_acc=True) for shift in half_shifts]
    study = bitfold.study(
        network, images, labels,
        arithmetics=list(dict.fromkeys(cases)), float_model=float_model,
        title="digits, residual network",
    )  # fmt: skip
    studied = time.perf_counter()

    options.output_dir.mkdir(parents=True, exist_ok=True)
    report, numbers = (options.output_dir / name for name in ("report.html", "results.json"))
    study.save(report)
    study.save(numbers)
    study.print()
    console.print(
        f"\nTraining took {trained - started:.0f} s, the study {studied - trained:.0f} s.\n"
        f"Report: {report}\nNumbers: {numbers}",
        soft_wrap=True,
    )


if __name__ == "__main__":
    parser = command.make_parser(__doc__, "build/demo-digits", 50, "report.html")
    command.add_widths(parser, 8, 24)
    parser.add_argument(
        "--shifts", type=int, nargs="+", default=SHIFTS, metavar="BITS",
        help=f"shifts under test (default: 0 to {SHIFTS[-1]})",
    )  # fmt: skip
    sys.exit(command.start(run, parser.parse_args()))
