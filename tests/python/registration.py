# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What the library registers for each op, as the op's test module states it in REGISTRATION."""

from __future__ import annotations

import dataclasses

ELEMENT_TYPE = "T: {float, int32}"
DATA_FORMAT = 'data_format: {"NHWC", "NCHW"} = "NHWC"'
TYPES = ("float", "int32")


@dataclasses.dataclass(frozen=True)
class Registration:
    """An op's definition as text, and its kernels: (device, element type) -> printable name.

    A kernel without a constraint on its type has "" for it; one of two has both, "int8 int16".
    """

    inputs: list[str]
    attributes: list[str]
    kernels: dict[tuple[str, str], str]
    output: str = "output: T"
    outputs: list[str] | None = None  # where they are several

    @property
    def has_element_type(self) -> bool:
        """Whether there is a kernel for each element type."""
        return ELEMENT_TYPE in self.attributes


def kernels(name: str, *devices: str) -> dict[tuple[str, str], str]:
    """Return the kernels of a class over the device and the element type; a CPU's if not told."""
    return {
        (device, type_name): f"{name}<{device}Device, {type_name}>"
        for device in devices or ("CPU",)
        for type_name in TYPES
    }


def accumulation(inputs: list[str], kernels: dict[tuple[str, str], str]) -> Registration:
    """Return the registration of an op with the accumulator's attributes; T and the shift come."""
    return Registration(
        inputs=[name if ": " in name else f"{name}: T" for name in (*inputs, "mult_shift: int8")],
        attributes=[
            ELEMENT_TYPE,
            DATA_FORMAT,
            "accumulator_size: int",
            "use_fp16_acc: bool = false",
        ],
        kernels=kernels,
    )
