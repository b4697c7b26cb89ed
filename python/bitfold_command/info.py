# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""`bitfold info`: the layers of a network."""

from __future__ import annotations

import argparse
import json
from typing import Any

import bitfold
from bitfold_command import files


def run(options: argparse.Namespace) -> int:
    """Print the network's inputs, layers and outputs."""
    network = files.network(options.model)
    if options.json:
        print(json.dumps(_described(network), indent=2))
    else:
        network.summary()
    return 0


def _described(network: bitfold.Network) -> dict[str, Any]:
    return {
        "inputs": [_port(port) for port in network.inputs],
        "outputs": [_port(port) for port in network.outputs],
        "multiply_adds": sum(layer.multiply_adds for layer in network.layers),
        "layers": [
            {
                "position": layer.position,
                "name": layer.name,
                "operator": layer.operator,
                "output_shapes": layer.output_shapes,
                "multiply_adds": layer.multiply_adds,
                "arithmetic": "float32" if layer.is_float else repr(layer.arithmetic),
            }
            for layer in network.layers
        ],
    }


def _port(port: Any) -> dict[str, Any]:
    return {
        "name": port.name,
        "shape": port.shape,
        "dtype": port.dtype.name,
        "scale": port.scale,
        "zero_point": port.zero_point,
    }
