# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Valid calls of HLayernorm."""

from __future__ import annotations

from drawing import Call, Draw


def _layernorm(draw: Draw) -> Call:
    n, h, w, c = draw.dims(4, 9)
    value = draw.between("float32", 0, 255, (n, h, w, c))
    if draw.chance(0.1):
        value = draw.tensor("float32", (n, h, w, c))
    scalars = (
        (0, 255),  # zero_point
        (8, 24),  # exponent_sub_value
        (0, 65535),  # sum_of_x_mult
        (0, 8),  # sum_of_x_shift
        (0, 20),  # sum_of_x_mult_n_shift
        (0, 2 * c),  # x_squared_mult
        (0, 8),  # sum_of_x_squares_shift
        (1, 1000),  # epsilon
        (0, 65535),  # mul_act_man
        (0, 40),  # mul_act_exp
        (0, 5000),  # mul_act_bias
        (0, 1),  # rms_mode_enable
        (0, 1),  # activation_ebias_mode
        (0, 1),  # activation_output_mode
    )
    inputs = [value, *(draw.between("uint32", low, high) for low, high in scalars)]
    lut = draw.between("float32", 0, 2**24 - 1, (256,))
    return Call("HLayernorm", (*inputs, lut), {})


CALLS = {"HLayernorm": _layernorm}
