/* Copyright 2026 The Bitfold Authors.
 * SPDX-License-Identifier: Apache-2.0
 *
 * One step of the emulated datapath at a time, for callers outside the runtime: a test bench that
 * compares register by register, a foreign-function caller. The multiplier and the shifter of
 * integers are those of the ops for all operands. The accumulators are those of the ops within
 * bounds that stand below each; beyond them use the definitions in C++, bitfold/accumulator.h and
 * bitfold/half_accumulator.h.
 *
 * C and C++. Link with libbitfold_steps.so, which needs no runtime (bitfold::steps in CMake,
 * bitfold-steps in pkg-config), or with libbitfold.so, whose path `bitfold.library_path()` prints.
 * All operands are defined and none of the functions fails; they may be called from any thread in
 * the default floating-point environment: rounding to nearest, subnormals kept.
 */

#ifndef BITFOLD_SINGLE_STEP_H_
#define BITFOLD_SINGLE_STEP_H_

#ifdef __cplusplus
extern "C" {
#endif

/* One addition into an integer accumulator of accumulator_size bits, formed in single precision.
 * With M = 2^(accumulator_size - 1): a sum above M - 1 or below -M is wrapped once by 2 M. A sum
 * outside [-8388607, 8388607) prints "@@@ WARNING: acc %f is out of bounds <%d,%d>" and a newline
 * to standard output, whatever the width. A result that no int holds gives INT_MIN.
 *
 * For a width of 1 or more, and a, b and a + b from -2^24 to 2^24, the result is the step of the
 * ops, on int32 as on float data. So it is for every accumulator of 1 to 24 bits that is in range
 * and an addend from -2^23 to 2^23. Beyond, operands, sum and wrap are rounded to single precision:
 * 16777217 + 0 at a width of 32 gives 16777216, as it does on float data, where the ops on int32
 * give 16777217; -16777216 + -2 at a width of 24 gives -1, where the ops give -2 on both. The ops
 * on int32 print nothing. */
int accumulator_int_verification(int a, int b, int accumulator_size);

/* One addition into a half-precision accumulator: both operands are quantised, a twice, and so is
 * their sum. Prints nothing.
 *
 * The step of the ops on float data with use_fp16_acc, which may print a line, for every a that is
 * quantised, 32768 and -32768 excepted: the ops quantise an accumulator when it is stored and not
 * again, and again makes -16384 and 16384 of these two. Ops that add to a product as it is, the
 * standalone addition and the box decoders, do not quantise a at all. The ops on int32 have no such
 * accumulator. */
float accumulator_fp16_verification(float a, float b);

/* The product modulo 2^32: that of the ops on int32. */
int multiplier_verification(int a, int b);

/* The shifter in front of a half-precision accumulator: it converts, and does not shift. */
float shifter_fp16_acc_verification(int x);

/* Arithmetic right shift with halves to even; a shift of 0 returns x, counts are modulo 32. That
 * of the ops on int32; those on floats divide by the shift itself. */
int shifter_int_acc_verification(int x, int shift);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* BITFOLD_SINGLE_STEP_H_ */
