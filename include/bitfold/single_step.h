/* Copyright 2026 The Bitfold Authors.
 * SPDX-License-Identifier: Apache-2.0
 *
 * One step of the emulated datapath at a time, for callers outside the runtime: a testbench that
 * compares register by register, a foreign-function caller. The ops compute exactly these steps.
 *
 * C and C++. Link with libbitfold.so, whose path `bitfold.library_path()` prints, or load it.
 * None of the functions fails; they may be called from any thread in the default floating-point
 * environment.
 */

#ifndef BITFOLD_SINGLE_STEP_H_
#define BITFOLD_SINGLE_STEP_H_

#ifdef __cplusplus
extern "C" {
#endif

/* One addition into an integer accumulator of accumulator_size bits, formed in single precision.
 * With M = 2^(accumulator_size - 1): a sum above M - 1 or below -M is wrapped once by 2 M. A sum
 * outside [-8388607, 8388607) prints "@@@ WARNING: acc %f is out of bounds <%d,%d>" and a newline
 * to standard output, whatever the width. A result that no int holds gives INT_MIN. */
int accumulator_int_verification(int a, int b, int accumulator_size);

/* One addition into a half-precision accumulator: both operands are quantised, a twice, and so is
 * their sum. Prints nothing. */
float accumulator_fp16_verification(float a, float b);

/* The product modulo 2^32. */
int multiplier_verification(int a, int b);

/* The shifter in front of a half-precision accumulator: it converts, and does not shift. */
float shifter_fp16_acc_verification(int x);

/* Arithmetic right shift with halves to even; a shift of 0 returns x, counts are modulo 32. */
int shifter_int_acc_verification(int x, int shift);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* BITFOLD_SINGLE_STEP_H_ */
