# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""What a layer computes in."""

from __future__ import annotations

import dataclasses
import operator
from typing import Any

_CHOICES = ("model", "unit")
_UNITS = ("requantisation", "softmax", "activations", "additions", "resize", "layer_norm")


@dataclasses.dataclass(frozen=True, repr=False)
class Arithmetic:
    """What the layers of a network compute in. Without arguments: the model's own integers, exact.

    Attributes:
        accumulator_size: bits of the accumulator that sums wrap in, 0 to 32; None for exact sums.
        mult_shift: by how many bits every product and the bias are shifted right before they are
            added, halves to even; 0 to 31, in half precision to 6. The requantisation takes it
            back. Always a number of bits, whatever the sums are held in.
        use_fp16_acc: add up in half precision.
        requantisation: "model", the rule of the model file; or "unit", the activation unit.
        softmax: "model" or "unit": who computes SOFTMAX.
        activations: the same for LOGISTIC, TANH, HARD_SWISH and GELU.
        additions: the same for ADD and SUB.
        resize: the same for RESIZE_BILINEAR.
        layer_norm: the same for the operators that converters write for a layer normalisation.

    Raises:
        TypeError: for a number of bits that is no integer, or a flag that is no bool.
        ValueError: for numbers and names outside of these.

    Example:
        >>> import bitfold
        >>> bitfold.Arithmetic()  # exact
        Arithmetic()
        >>> bitfold.Arithmetic(accumulator_size=18, mult_shift=2)
        Arithmetic(accumulator_size=18, mult_shift=2)
    """

    accumulator_size: int | None = None
    mult_shift: int = 0
    use_fp16_acc: bool = False
    requantisation: str = "model"
    softmax: str = "model"
    activations: str = "model"
    additions: str = "model"
    resize: str = "model"
    layer_norm: str = "model"

    def __post_init__(self) -> None:
        """Check every field."""
        if self.accumulator_size is not None:
            self._set("accumulator_size", _bits("accumulator_size", self.accumulator_size, 32))
        if not isinstance(self.use_fp16_acc, bool):
            raise TypeError(f"Need use_fp16_acc to be a bool, got {self.use_fp16_acc!r}")
        # The float ops take the divisor as an 8-bit number: 2^6 is the largest power that fits.
        most = 6 if self.use_fp16_acc else 31
        self._set("mult_shift", _bits("mult_shift", self.mult_shift, most))
        for unit in _UNITS:
            if getattr(self, unit) not in _CHOICES:
                raise ValueError(f'Need {unit} "model" or "unit", got {getattr(self, unit)!r}')

    def _set(self, name: str, value: Any) -> None:
        object.__setattr__(self, name, value)

    @property
    def is_exact(self) -> bool:
        """Whether sums are exact, without a width, a shift or half precision."""
        return self.accumulator_size is None and not self.mult_shift and not self.use_fp16_acc

    @property
    def units(self) -> tuple[str, ...]:
        """The fields that ask for the accelerator's unit.

        Example:
            >>> import bitfold
            >>> bitfold.Arithmetic(16, softmax="unit", resize="unit").units
            ('softmax', 'resize')
        """
        return tuple(unit for unit in _UNITS if getattr(self, unit) == "unit")

    def __repr__(self) -> str:
        """Return the call that makes it, only with what differs from the defaults."""
        changed = [
            f"{field.name}={getattr(self, field.name)!r}"
            for field in dataclasses.fields(self)
            if getattr(self, field.name) != field.default
        ]
        return f"Arithmetic({', '.join(changed)})"


def _bits(name: str, value: Any, most: int) -> int:
    """Return a number of bits as an int."""
    if isinstance(value, bool):
        raise TypeError(f"Need {name} to be an integer, got {value!r}")
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"Need {name} to be an integer, got {value!r}") from None
    if not 0 <= number <= most:
        raise ValueError(f"Need 0 <= {name} <= {most}, got {number}")
    return number
