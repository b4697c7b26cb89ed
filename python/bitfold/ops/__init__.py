# Copyright 2026 The Bitfold Authors.
# SPDX-License-Identifier: Apache-2.0
"""The emulated operations, named as in ``tf`` and ``tf.nn``: data first, then keywords.

What holds for all of them:

Element types. int32 carries integer-quantised data; float32 carries the same integers in floats,
or anything else. Narrower types widen. Results have the type of the first operand.

The accumulator. ``accumulator_size`` bits, w for short, hold [-2^(w-1), 2^(w-1) - 1]; a sum that
leaves the range is wrapped once by 2^w. int32 data needs 0 <= w <= 32. With ``use_fp16_acc`` float
data is accumulated in half precision instead; integer additions only quantise the initial value.

The shift. ``mult_shift`` scales every product before it is added: int32 products are shifted right
by it, halves to even; float products are divided by the value itself (by 4, not by 2^4), then
rounded, halves to even. 0 leaves products alone. ``matmul``, ``bilinear`` and the box decoders
multiply float products by the float32 reciprocal of the value instead, which can differ from the
quotient in the last bit.

Printed lines. A float sum outside [-8388607, 8388607) prints
``@@@ WARNING: acc <sum> is out of bounds <-8388607,8388607>`` to C's standard output, each time an
op runs. Inside ``tf.function`` the runtime's graph optimiser may run an op once where it was called
twice with the same inputs, or once for all where they are constants; call eagerly to count lines.

Tables. ``layer_norm``, ``softmax`` and ``activation`` have fixed types and take the tables that
``bitfold.tables`` makes. ``bitfold.resize`` makes the inputs of ``bilinear``, ``bitfold.detection``
those of the box decoders and of ``non_max_suppression``.

Requantisation. ``requantise`` turns sums, int32 or int64, into the stored integers of an output;
``prepared_conv2d`` and ``prepared_matmul`` are whole layers, from stored integers to stored ones;
``watched_conv2d`` also says what the final sums reach.

Partial sums. ``partial_sums`` and ``matmul_partial_sums`` say which values the sums of a layer take
on their way, as whole numbers that never wrap, and what would leave an accumulator.

Stored tensors. The ``stored_`` functions take and give the integers that a quantised network keeps,
int8 and int16, as they are; results have the bits of the mobile runtime's reference kernels.

Gradients. Float data has the gradient of the real function that an op approximates: wraps,
roundings and half precision pass straight through, and products are divided by ``mult_shift``, by
nothing where that is 0. Integers have none. Box decoders and suppression have none either, and say
so when one is asked for.

Layout. Tensors are NHWC. No XLA: leave ``jit_compile`` off.

Arguments may be numpy arrays, lists, tensors, variables or Keras' symbolic tensors; inside
``tf.function`` their shapes may be partly unknown, and strides and dilations must be positive (the
runtime's rule).

Errors. What does not fit raises, saying what is needed and what came: a ``TypeError`` or
``ValueError`` where the call shows it; ``tf.errors.InvalidArgumentError`` where the kernel finds
it, or an assertion in a function whose shapes were unknown when it was traced. The generated ops in
``bitfold.raw_ops`` do with such shapes what the accelerator's do: compute a part, log and give
zeros, or end the process.
"""

from bitfold.ops._activation import activation
from bitfold.ops._additions import add, bias_add, decomposed_bias_add, weighted_add
from bitfold.ops._bilinear import bilinear
from bitfold.ops._convolutions import conv2d, depthwise_conv2d, dilated_conv2d
from bitfold.ops._detection import decode_boxes, decode_boxes_single_weight, non_max_suppression
from bitfold.ops._matmul import matmul
from bitfold.ops._partial_sums import matmul_partial_sums, partial_sums
from bitfold.ops._prepared import prepared_conv2d, prepared_matmul, watched_conv2d
from bitfold.ops._requantise import requantise
from bitfold.ops._stored import (
    stored_elementwise,
    stored_lookup,
    stored_mean,
    stored_pool,
    stored_quantise,
)
from bitfold.ops._units import layer_norm, softmax

__all__ = [
    "activation",
    "add",
    "bias_add",
    "bilinear",
    "conv2d",
    "decode_boxes",
    "decode_boxes_single_weight",
    "decomposed_bias_add",
    "depthwise_conv2d",
    "dilated_conv2d",
    "layer_norm",
    "matmul",
    "matmul_partial_sums",
    "non_max_suppression",
    "partial_sums",
    "prepared_conv2d",
    "prepared_matmul",
    "requantise",
    "softmax",
    "stored_elementwise",
    "stored_lookup",
    "stored_mean",
    "stored_pool",
    "stored_quantise",
    "watched_conv2d",
    "weighted_add",
]

# Whoever asks a function where it lives (help, a traceback, a pickle) hears the public address.
for _name in __all__:
    globals()[_name].__module__ = __name__
