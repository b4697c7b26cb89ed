# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""Bit-exact accelerator arithmetic as TensorFlow operations.

``Network`` is a trained network in the accelerator's arithmetic, ``Arithmetic`` what its layers
compute in, and ``study`` finds out what that does to it. ``training`` trains a Keras model through
that arithmetic, and ``data`` names data in files.

Importing the package loads the op library once. ``bitfold.ops`` holds the ops as people know them
from ``tf`` and ``tf.nn``; ``bitfold.raw_ops`` the generated ones, whose inputs and attributes are
those of the registered operations; ``bitfold.tables`` fits the table-driven units to functions;
``bitfold.detection`` and ``bitfold.resize`` prepare the inputs of the box decoders, of suppression
and of the resampler; ``bitfold.fpx`` holds the accelerator's narrow floats;
``bitfold.set_warnings`` says what becomes of the lines that ops print,
``bitfold.flush_device_lines`` brings those of a GPU, ``bitfold.set_image_threads`` says which
threads compute convolutions.

Example:
    >>> import bitfold
    >>> value, operand = [[100]], [[50]]
    >>> bitfold.ops.add(value, operand, accumulator_size=8).numpy()  # 150 wraps at 8 bits
    array([[-106]], dtype=int32)
"""

from bitfold._frame.device_lines import flush_device_lines
from bitfold._frame.library import VERSION, include_dir, library_path
from bitfold._frame.loaded import raw_ops
from bitfold._frame.thread_setting import set_image_threads
from bitfold._frame.warning_lines import set_warnings, warning_counts

__version__ = VERSION

from bitfold import data, detection, fpx, ops, resize, tables, training
from bitfold.network import Arithmetic, Network, UnsupportedModelError, WorkerError
from bitfold.studies import Study, study

__all__ = [
    "Arithmetic",
    "Network",
    "Study",
    "UnsupportedModelError",
    "WorkerError",
    "__version__",
    "data",
    "detection",
    "flush_device_lines",
    "fpx",
    "include_dir",
    "library_path",
    "ops",
    "raw_ops",
    "resize",
    "set_image_threads",
    "set_warnings",
    "study",
    "tables",
    "training",
    "warning_counts",
]
