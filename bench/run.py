# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Times the ops against the stock ones and the plain scalar definitions, in one run on one thread.

    .venv/bin/python bench/run.py --output build/bench/bench.json

Each row is a case: the definition's time comes from the C++ benchmark of the same name, ours and
the stock op's from the runtime. Nothing is asserted; a ratio above 1 means that ours is faster.
"""

from __future__ import annotations

import argparse
import json
import os
import pathlib
import platform
import re
import subprocess
import sys
from dataclasses import asdict, dataclass

import numpy as np
import tensorflow as tf
from rich.console import Console
from rich.table import Table

import bitfold
from chains import LAYER, OTHERS, Chain, chain_cases, mobile_seconds
from timing import LAYERS, Case, in_graph, integers, seconds, use_one_thread

ROOT = pathlib.Path(__file__).resolve().parent.parent


# Seconds a call and a label, by the names of the C++ benchmarks.
Definitions = dict[str, tuple[float, str]]


@dataclass
class Row:
    """One measured row; times in seconds a call, rates in operations a second."""

    name: str
    shape: str
    path: str
    definition_seconds: float
    loops_seconds: float | None  # our faster form where it has one, timed without the runtime
    ours_seconds: float
    stock_seconds: float
    ours_rate: float
    speed_to_definition: float
    speed_to_stock: float
    # Long chains, one of several layers in a graph, and in the mobile runtime's 8-bit integers.
    our_layer_seconds: float | None = None
    stock_layer_seconds: float | None = None
    mobile_layer_seconds: float | None = None


def addition_cases() -> list[Case]:
    """Return the additions on 1 x 112 x 112 x 64."""
    shape = (1, 112, 112, 64)
    ops, target = bitfold.ops, vector_target()
    cases = []
    for dtype, type_name in ((tf.int32, "int32"), (tf.float32, "float")):
        value = integers(shape, -1000, 1000, dtype)
        operand = integers(shape, -128, 127, dtype)
        bias = integers(shape[-1:], -128, 127, dtype)
        weights = integers((2, shape[-1]), -8, 7, dtype)
        variants = [("plain", {}), ("shift 2", {"mult_shift": 2})]
        if dtype == tf.float32:
            variants.append(("half precision", {"use_fp16_acc": True}))
        for suffix, options in variants:
            k = dict(accumulator_size=24, **options)
            pairs = {
                "HAdd": (
                    in_graph(lambda v, o, k=k: ops.add(v, o, factor=3, **k), value, operand),
                    in_graph(tf.add, value, operand),
                ),
                "HBiasAdd": (
                    in_graph(lambda v, b, k=k: ops.bias_add(v, b, factor=3, **k), value, bias),
                    in_graph(tf.nn.bias_add, value, bias),
                ),
                "HDecomposedBiasAdd": (
                    in_graph(
                        lambda v, b, k=k: ops.decomposed_bias_add(
                            v, b, b, factor_a=3, factor_b=5, **k
                        ),
                        value,
                        bias,
                    ),
                    in_graph(tf.nn.bias_add, value, bias),
                ),
                "HStandaloneElementwiseAdd": (
                    in_graph(
                        lambda v, o, w, k=k: ops.weighted_add(v, o, w, **k),
                        value,
                        operand,
                        weights,
                    ),
                    in_graph(tf.add, value, operand),
                ),
            }
            cases += [
                Case(
                    f"{op}/{type_name}/{suffix}",
                    "1x112x112x64",
                    value.shape.num_elements(),
                    ours,
                    stock,
                    target,
                )
                for op, (ours, stock) in pairs.items()
            ]
    return cases


def bilinear_cases() -> list[Case]:
    """Return the resampler on 1 x 112 x 112 x 64, beside the same sum of stock products."""
    shape = (1, 112, 112, 64)
    cases = []
    for dtype, name, options in (
        (tf.int32, "int32/plain", {}),
        (tf.int32, "int32/shift 7", {"mult_shift": 7}),
        (tf.float32, "float/plain", {}),
        (tf.float32, "float/shift 7", {"mult_shift": 7}),
        (tf.float32, "float/float mode", {"float_accumulator": True}),
    ):
        inputs = [integers(shape, -128 if i < 4 else 0, 127, dtype) for i in range(8)]
        k = dict(accumulator_size=24, **options)
        cases.append(
            Case(
                f"HBilinear/{name}",
                "1x112x112x64",
                inputs[0].shape.num_elements(),
                in_graph(lambda *x, k=k: bitfold.ops.bilinear(*x, **k), *inputs),
                in_graph(lambda *x: tf.add_n([x[i] * x[i + 4] for i in range(4)]), *inputs),
                vector_target(),
            )
        )
    return cases


def stock_decoder(centers, sizes, y, x, heights, widths):
    """Decode boxes with the stock ops: centre plus and minus half a size."""
    shape = tf.shape(centers)
    anchors = shape[-1] // 2
    pairs = tf.concat([shape[:3], [anchors, 2]], 0)
    scale = tf.stack([heights, widths], -1)
    at = tf.reshape(centers, pairs) * scale
    half = tf.reshape(sizes, pairs) * scale
    grid = tf.stack(
        [
            tf.broadcast_to(tf.reshape(y, [-1, 1, anchors, 2])[..., 0], pairs[1:4]),
            tf.broadcast_to(tf.reshape(x, [1, -1, anchors, 2])[..., 0], pairs[1:4]),
        ],
        -1,
    )
    return tf.reshape(tf.concat([grid + at - half, grid + at + half], -1), [1, 64, 64, -1])


def decoder_cases() -> list[Case]:
    """Return the box decoders on 64 x 64 positions of 9 anchors."""
    cases = []
    for dtype, name, options in (
        (tf.int32, "int32/plain", {}),
        (tf.int32, "int32/shift 6", {"mult_shift": 6}),
        (tf.float32, "float/plain", {}),
        (tf.float32, "float/shift 6", {"mult_shift": 6}),
        (tf.float32, "float/half precision", {"mult_shift": 6, "use_fp16_acc": True}),
    ):
        centers, sizes = (integers((1, 64, 64, 18), low, 127, dtype) for low in (-128, 0))
        grid = integers((64, 18), 0, 511, dtype)
        anchors = [integers((9,), -128, 127, dtype) for _ in range(6)]
        k = dict(accumulator_size=24, **options)
        detections = (centers, sizes, grid, grid)
        stock = in_graph(stock_decoder, *detections, anchors[0], anchors[3])
        for op, function, count in (
            ("HBboxDecoder", bitfold.ops.decode_boxes, 6),
            ("HSingleWeightPerProposalBboxDecoder", bitfold.ops.decode_boxes_single_weight, 4),
        ):
            ours = in_graph(lambda *x, f=function, k=k: f(*x, **k), *detections, *anchors[:count])
            cases.append(
                Case(
                    f"{op}/{name}",
                    "1x64x64x(2x9)",
                    2 * centers.shape.num_elements(),
                    ours,
                    stock,
                    vector_target(),
                )
            )
    return cases


def suppression_cases() -> list[Case]:
    """Return non-maximum suppression of 2,000 boxes of one class, 200 of which may stay."""
    unit = np.random.default_rng(2026).random((2000, 5), np.float32)
    minima = 900 * unit[:, :2]
    boxes = np.concatenate([minima, minima + 100 * unit[:, 2:4], unit[:, 4:]], 1)
    value = tf.constant(boxes[np.newaxis, :, :, np.newaxis])
    threshold = tf.constant([0.1])
    corners, scores = tf.constant(boxes[:, :4]), tf.constant(boxes[:, 4])
    return [
        Case(
            "HNMS/float/2000 boxes",
            "1x2000x5x1",
            2000,
            lambda: bitfold.ops.non_max_suppression(
                value, threshold, iou_threshold=0.5, max_output_size=200
            ),
            lambda: tf.image.non_max_suppression(corners, scores, 200, 0.5, 0.1),
            vector_target(),
        )
    ]


def vector_target() -> str:
    """Return the instruction set that the vector loops take on this machine."""
    features = set()
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("flags"):
            features = set(line.split())
            break
    if {"avx512f", "avx512bw", "avx512dq", "avx512vl"} <= features:
        return "AVX-512"
    return "AVX2" if "avx2" in features else "portable"


def numeric_cases() -> list[Case]:
    """Return the numeric units, against the stock ops on float data of the same shape."""
    target = vector_target()
    k = np.arange(256, dtype=np.uint32)
    rows = np.stack([60000 // (k + 1), (255 - k) | k << 8], 1)
    table = tf.constant(rows.astype(np.uint32))
    distances = integers((128, 256), -255, 0, tf.float32)

    lut = np.zeros(256, np.float32)
    lut[64:] = 65535 - 128 * np.arange(192)
    scalars = dict(
        exponent_sub_value=14, sum_of_x_mult=170, sum_of_x_mult_n_shift=17, x_squared_mult=768,
        mul_act_man=91, mul_act_exp=4, mul_act_bias=131072,
    )  # fmt: skip
    scalars = {name: tf.constant(value, tf.uint32) for name, value in scalars.items()}
    vectors = integers((1, 1, 196, 768), -128, 127, tf.float32)
    lut_tensor = tf.constant(lut)
    stock_norm = tf.keras.layers.LayerNormalization()
    stock_norm.build(vectors.shape)

    inp = integers((1, 56, 56, 64), -2000, 2000, tf.int64)
    pieces = [
        tf.constant(row[np.newaxis], tf.int64)
        for row in (500 * (np.arange(7) - 3), np.full(8, 3), np.arange(-32, 32, 8), np.full(8, 10))
    ]
    data = tf.cast(inp, tf.float32) / 250
    return [
        Case(
            "HSoftmax/float/128x256",
            "128x256",
            128 * 256,
            in_graph(lambda x: bitfold.ops.softmax(x, table, is_velquin=True), distances),
            in_graph(tf.nn.softmax, distances),
            target,
        ),
        Case(
            "HLayernorm/float/196x768",
            "1x1x196x768",
            196 * 768,
            in_graph(lambda x: bitfold.ops.layer_norm(x, lut_tensor, **scalars), vectors),
            in_graph(lambda x: stock_norm(x, training=False), vectors),
            target,
        ),
        Case(
            "HActivation/int64/56x56x64, 7 breakpoints",
            "1x56x56x64",
            56 * 56 * 64,
            in_graph(lambda x: bitfold.ops.activation(x, *pieces), inp),
            in_graph(tf.keras.activations.gelu, data),
            target,
        ),
    ]


def definition_seconds(budget: float, pattern: str) -> Definitions:
    """Build and run the C++ benchmarks that match; return seconds a call and a label by name."""
    for command in (["cmake", "--preset", "bench"], ["cmake", "--build", "--preset", "bench"]):
        subprocess.run(command, cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
    output = subprocess.run(
        [
            ROOT / "build/bench/bench/bitfold_bench",
            "--benchmark_format=json",
            f"--benchmark_min_time={budget}",
            f"--benchmark_filter={pattern}",
        ],
        check=True,
        capture_output=True,
        text=True,
    ).stdout
    scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3}
    rows = json.loads(output)["benchmarks"]
    return {
        row["name"]: (row["real_time"] * scale[row["time_unit"]], row.get("label", ""))
        for row in rows
    }


def measure(
    cases: list[Case], definitions: Definitions, budget: float, console: Console
) -> list[Row]:
    """Time every case."""
    rows = []
    for case in cases:
        console.print(f"Timing {case.name}...")
        ours, stock = seconds(case.ours, budget), seconds(case.stock, budget)
        definition, _ = definitions[case.name]
        loops, path = definitions.get(f"{case.name} loops", (None, ""))
        row = Row(
            name=case.name,
            shape=case.shape,
            path=path or case.path,
            definition_seconds=definition,
            loops_seconds=loops,
            ours_seconds=ours,
            stock_seconds=stock,
            ours_rate=case.operations / ours,
            speed_to_definition=definition / (loops or ours),
            speed_to_stock=stock / ours,
        )
        if isinstance(case, Chain):
            row.our_layer_seconds = seconds(case.our_layers, budget) / LAYERS
            row.stock_layer_seconds = seconds(case.stock_layers, budget) / LAYERS
            row.mobile_layer_seconds = case.layer and mobile_seconds(case.layer, budget)
        rows.append(row)
    return rows


def measure_lines(definitions: Definitions) -> dict[str, float]:
    """Return the seconds of the steps where one output in ten thousand prints, and none does."""
    found = {}
    for name, (time, _) in definitions.items():
        if match := re.fullmatch(r"HConv2d/float/.*, (lines|no lines)", name):
            found[match[1]] = time
    return found


def measure_avx2(definitions: Definitions) -> list[dict[str, object]]:
    """Return the layers' times with AVX2 alone: ours from C++, the stock op's in another process.

    The stock op reads its limit when it is loaded.
    """
    ours = {n: t for n, (t, _) in definitions.items() if n.endswith(", AVX2")}
    if not ours:
        return []
    output = subprocess.run(
        [sys.executable, ROOT / "bench/chains.py"],
        check=True,
        capture_output=True,
        text=True,
        env=os.environ | {"ONEDNN_MAX_CPU_ISA": "AVX2"},
    ).stdout
    stock = json.loads(output.splitlines()[-1])
    rows = []
    for layer in (LAYER, *OTHERS):
        time = ours.get(f"{layer.op}/int32/{layer.name}, bytes loops, AVX2")
        if time:
            rows.append(
                {
                    "name": layer.name,
                    "loops_seconds": time,
                    "stock_layer_seconds": stock[layer.name],
                    "speed_to_stock": stock[layer.name] / time,
                }
            )
    return rows


def machine() -> dict[str, str]:
    """Return what the figures depend on."""
    cpu = next(
        (
            line.split(":", 1)[1].strip()
            for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines()
            if line.startswith("model name")
        ),
        platform.processor(),
    )
    return {"cpu": cpu, "tensorflow": tf.__version__, "bitfold": bitfold.__version__}


def print_table(rows: list[Row], console: Console) -> None:
    """Print the rows; times in milliseconds."""
    table = Table(title="one thread; ratios above 1: ours is faster")
    for column in ("op", "shape", "path"):
        table.add_column(column)
    for column in (
        "definition ms",
        "loops ms",
        "ours ms",
        "stock ms",
        "M ops/s",
        "to definition",
        "to stock",
    ):
        table.add_column(column, justify="right")
    for r in rows:
        times = (r.definition_seconds, r.loops_seconds, r.ours_seconds, r.stock_seconds)
        table.add_row(
            r.name,
            r.shape,
            r.path,
            *(milliseconds(t) for t in times),
            f"{r.ours_rate / 1e6:.0f}",
            f"{r.speed_to_definition:.2f}",
            f"{r.speed_to_stock:.4f}",
        )
    console.print(table)


def milliseconds(time: float | None) -> str:
    """Return a time for a table."""
    return "-" if time is None else f"{1e3 * time:.2f}"


def print_layers(rows: list[Row], console: Console) -> None:
    """Print the layers in a graph; times in milliseconds."""
    table = Table(title=f"a layer among {LAYERS} in a graph")
    table.add_column("op")
    columns = ("ours ms", "stock float ms", "to stock", "mobile 8-bit ms", "to mobile")
    for column in columns:
        table.add_column(column, justify="right")
    for r in rows:
        if r.our_layer_seconds is None:
            continue
        mobile = r.mobile_layer_seconds
        table.add_row(
            r.name,
            milliseconds(r.our_layer_seconds),
            milliseconds(r.stock_layer_seconds),
            f"{r.stock_layer_seconds / r.our_layer_seconds:.2f}",
            milliseconds(mobile),
            f"{mobile / r.our_layer_seconds:.2f}" if mobile else "-",
        )
    console.print(table)


def print_avx2(rows: list[dict[str, object]], console: Console) -> None:
    """Print the layers with AVX2 alone."""
    table = Table(title="bytes with AVX2 alone")
    table.add_column("layer")
    for column in ("ours ms", "stock float ms", "to stock"):
        table.add_column(column, justify="right")
    for r in rows:
        times = (milliseconds(r["loops_seconds"]), milliseconds(r["stock_layer_seconds"]))
        table.add_row(r["name"], *times, f"{r['speed_to_stock']:.2f}")
    console.print(table)


def main() -> None:
    """Measure, print the tables, write the JSON."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--output", type=pathlib.Path, default=ROOT / "build/bench/bench.json")
    parser.add_argument("--seconds", type=float, default=0.3, help="time spent on each figure")
    parser.add_argument("--filter", default=".", help="a regular expression: the cases to time")
    options = parser.parse_args()
    use_one_thread()

    console = Console(width=None if os.isatty(1) else 170)
    cases = [
        *addition_cases(),
        *chain_cases(),
        *bilinear_cases(),
        *decoder_cases(),
        *suppression_cases(),
        *numeric_cases(),
    ]
    console.print("Timing the scalar definitions (C++)...")
    definitions = definition_seconds(options.seconds, options.filter)
    cases = [case for case in cases if re.search(options.filter, case.name)]
    rows = measure(cases, definitions, options.seconds, console)
    lines, avx2 = measure_lines(definitions), measure_avx2(definitions)
    print_table(rows, console)
    if any(row.our_layer_seconds for row in rows):
        print_layers(rows, console)
    if avx2:
        print_avx2(avx2, console)
    for name, time in lines.items():
        console.print(f"Float steps, {name}: {milliseconds(time)} ms")
    options.output.parent.mkdir(parents=True, exist_ok=True)
    result = {
        "machine": machine(),
        "rows": [asdict(row) for row in rows],
        "lines": lines,
        "avx2": avx2,
    }
    options.output.write_text(json.dumps(result, indent=2) + "\n")
    console.print(f"Machine: {machine()['cpu']}. Figures: {options.output}")


if __name__ == "__main__":
    main()
