# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0

"""Find faces in a photograph with a trained detector, in float and emulated on Bitfold."""

from __future__ import annotations

import argparse
import sys
import time
from pathlib import Path

# What the examples share.
sys.path.append(str(Path(__file__).resolve().parent.parent / "common"))

import command


def parse_arguments() -> argparse.Namespace:
    """Parse the command line."""
    parser = argparse.ArgumentParser(
        description=__doc__, epilog="Writes detect_boxes.png and results.json."
    )
    parser.add_argument(
        "--output-dir", type=Path, default=Path("build/demo-detect"),
        help="directory for the results, created where missing (default: %(default)s)",
    )  # fmt: skip
    parser.add_argument(
        "--photo", type=Path, metavar="FILE",
        help="a picture of your own (default: one that scikit-image ships)",
    )  # fmt: skip
    parser.add_argument(
        "--smallest-face", type=command.positive, default=24, metavar="PIXELS",
        help="side of the smallest face to look for; larger is quicker (default: %(default)s)",
    )  # fmt: skip
    return parser.parse_args()


def run(options: argparse.Namespace) -> None:
    """Do the whole job: read, detect in every arithmetic, report."""
    import compare
    import networks
    import photos
    import show
    from console import make_console, progress_reports

    console = make_console()
    started = time.perf_counter()
    photo = photos.load(options.photo)
    if min(photo.shape[:2]) < options.smallest_face:
        raise SystemExit("error: the photo is smaller than --smallest-face; lower that")
    with progress_reports(console, 2 + len(compare.WIDTHS)) as progress:
        study = compare.run_study(
            networks.load_networks(), photo, photos.calibration(), options.smallest_face, progress
        )
    seconds = time.perf_counter() - started

    settings = {
        "photo": str(options.photo or photos.DEFAULT),
        "smallest_face": options.smallest_face,
        "seconds": round(seconds, 1),
    }
    options.output_dir.mkdir(parents=True, exist_ok=True)
    picture = options.output_dir / "detect_boxes.png"
    numbers = options.output_dir / "results.json"
    show.write_picture(picture, photo, study)
    show.write_json(numbers, settings, study)
    show.print_agreement(console, study)
    show.print_widths(console, study)
    show.print_summary(console, study)
    console.print(
        f"The measurements took {seconds:.0f} s.\nPicture: {picture}\nNumbers: {numbers}",
        soft_wrap=True,
    )


if __name__ == "__main__":
    sys.exit(command.start(run, parse_arguments()))
