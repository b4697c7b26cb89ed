# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Times how convolutions grow with their sizes, a stack of layers and the digits demo's network.

    .venv/bin/python bench/growth.py

The images of a batch have a thread each, in groups of 20, and share the machine's cores. The first
table should show the same time for a multiply-add in every row but the smallest, or less. The
second compares a stack of the size of an 18-layer residual network, in integers of 8 bits, with the
stock float convolutions of the same shapes; the third the network of `make demo-digits` over its
test images, 24-bit accumulators, with the float network that it came from: what each call costs
counts there.
"""

from __future__ import annotations

import pathlib
import sys
from collections.abc import Callable

import tensorflow as tf
from rich.console import Console
from rich.table import Table

import bitfold
from timing import in_graph, integers, seconds, use_one_thread

BUDGET = 0.5
# (stride, filters, blocks) of the stages behind the first layer.
STAGES = ((1, 64, 2), (2, 128, 2), (2, 256, 2), (2, 512, 2))


def convolution_seconds(batch: int, side: int, channels: int) -> float:
    """Return the time of a 3x3 convolution that keeps its shape."""
    x = integers((batch, side, side, channels), 0, 255, tf.int32)
    w = integers((3, 3, channels, channels), -128, 127, tf.int32)
    return seconds(
        in_graph(lambda x, w: bitfold.ops.conv2d(x, w, accumulator_size=24), x, w), BUDGET
    )


def growth(console: Console) -> None:
    """Print the times over batch, image size and channels."""
    table = Table(title="HConv2d/int32, 3x3, bytes: growth")
    for column in ("batch", "side", "channels", "ms", "ps a multiply-add"):
        table.add_column(column, justify="right")
    cases = [(batch, 28, 64) for batch in (1, 2, 4, 8, 16)]
    cases += [(1, side, 64) for side in (14, 28, 56, 112)]
    cases += [(1, 28, channels) for channels in (16, 32, 64, 128, 256)]
    for batch, side, channels in cases:
        time = convolution_seconds(batch, side, channels)
        products = batch * side * side * 9 * channels * channels
        row = (batch, side, channels, f"{1e3 * time:.2f}", f"{1e12 * time / products:.1f}")
        table.add_row(*map(str, row))
    console.print(table)


def layers() -> list[tuple[tuple[int, ...], int]]:
    """Return the filters' shapes and the strides of the stack, in order."""
    found = [((7, 7, 3, 64), 2)]
    channels = 64
    for stride, filters, blocks in STAGES:
        for block in range(blocks):
            found.append(((3, 3, channels, filters), stride if block == 0 else 1))
            found.append(((3, 3, filters, filters), 1))
            channels = filters
    return found


def stack(convolve: Callable, requantise: Callable) -> Callable:
    """Return the stack as a function of an image; pooling stands behind the first layer."""

    def run(x, *weights):
        for i, (w, (_, stride)) in enumerate(zip(weights, layers(), strict=True)):
            x = requantise(convolve(x, w, stride))
            if i == 0:
                x = x[:, ::2, ::2]
        return x

    return run


def end_to_end(console: Console) -> None:
    """Print the time of the stack, ours and stock."""
    image = integers((1, 224, 224, 3), 0, 255, tf.int32)
    weights = [integers(shape, -128, 127, tf.int32) for shape, _ in layers()]

    def ours(x, w, stride):
        return bitfold.ops.conv2d(x, w, strides=stride, accumulator_size=32)

    def stock(x, w, stride):
        return tf.nn.conv2d(x, w, stride, "SAME")

    integer = in_graph(
        stack(ours, lambda x: tf.clip_by_value(tf.bitwise.right_shift(x, 11), 0, 255)),
        image,
        *weights,
    )
    floats = [tf.cast(x, tf.float32) for x in (image, *weights)]
    real = in_graph(stack(stock, lambda x: tf.nn.relu(x * 2.0**-11)), *floats)
    table = Table(title="17 convolutions, 224x224 image")
    for column in ("bitfold, bytes: ms", "stock, float: ms", "ratio"):
        table.add_column(column, justify="right")
    a, b = seconds(integer, BUDGET), seconds(real, BUDGET)
    table.add_row(f"{1e3 * a:.1f}", f"{1e3 * b:.1f}", f"{b / a:.2f}")
    console.print(table)


def digits_demo(console: Console) -> None:
    """Print the time of the demo's network; its weights hardly matter and are trained briefly."""
    examples = pathlib.Path(__file__).parent.parent / "examples"
    sys.path[:0] = [str(examples / "digits"), str(examples / "common")]
    import model
    import pictures

    digits = pictures.load_digits()
    trained = model.train(digits, seed=1, epochs=1)
    network = bitfold.Network.from_keras(trained, calibration=digits.train_images)
    narrow = network.with_arithmetic(bitfold.Arithmetic(accumulator_size=24))
    images = digits.test_images
    a = seconds(lambda: narrow.predict(images), BUDGET)
    b = seconds(lambda: trained.predict(images, batch_size=256, verbose=0), BUDGET)
    table = Table(title=f"the digits demo's network, {len(images)} images")
    for column in ("bitfold, 24 bits: ms", "stock, float: ms", "ratio"):
        table.add_column(column, justify="right")
    table.add_row(f"{1e3 * a:.1f}", f"{1e3 * b:.1f}", f"{b / a:.2f}")
    console.print(table)


def main() -> None:
    """Print the tables."""
    use_one_thread()
    console = Console()
    growth(console)
    end_to_end(console)
    digits_demo(console)


if __name__ == "__main__":
    main()
