# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Bit-exact accelerator arithmetic as TensorFlow operations.

Importing the package loads the op library once. ``bitfold.ops`` holds the ops as people know them
from ``tf`` and ``tf.nn``; ``bitfold.raw_ops`` the generated ones, whose inputs and attributes are
those of the registered operations; ``bitfold.tables`` fits the table-driven units to functions;
``bitfold.detection`` and ``bitfold.resize`` prepare the inputs of the box decoders, of suppression
and of the resampler; ``bitfold.fpx`` holds the accelerator's narrow floats.

Example:
    >>> import bitfold
    >>> value, operand = [[100]], [[50]]
    >>> bitfold.ops.add(value, operand, accumulator_size=8).numpy()  # 150 wraps at 8 bits
    array([[-106]], dtype=int32)
"""

from bitfold import _build_info, _library
from bitfold._library import include_dir, library_path

__version__ = _build_info.VERSION
raw_ops = _library.load()

from bitfold import detection, fpx, ops, resize, tables  # noqa: E402  (need the library)

__all__ = [
    "__version__",
    "detection",
    "fpx",
    "include_dir",
    "library_path",
    "ops",
    "raw_ops",
    "resize",
    "tables",
]
