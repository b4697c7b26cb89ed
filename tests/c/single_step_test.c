/* Copyright 2026 The Bitfold Authors.
 * SPDX-License-Identifier: Apache-2.0
 *
 * The exported functions as a C program sees them: the installed header, the installed library.
 * Prints how many checks passed; on a mismatch says which and exits with status 1.
 */

#include "bitfold/single_step.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int checks = 0;

static void expect_int(const char* what, int got, int expected) {
  ++checks;
  if (got == expected) return;
  printf("%s gives %d, expected %d\n", what, got, expected);
  exit(EXIT_FAILURE);
}

/* Compares bits: 0 and -0 differ. */
static void expect_float(const char* what, float got, float expected) {
  unsigned int got_bits = 0;
  unsigned int expected_bits = 0;
  ++checks;
  memcpy(&got_bits, &got, sizeof got_bits);
  memcpy(&expected_bits, &expected, sizeof expected_bits);
  if (got_bits == expected_bits) return;
  printf("%s gives %a (0x%08x), expected %a (0x%08x)\n", what, (double)got, got_bits,
         (double)expected, expected_bits);
  exit(EXIT_FAILURE);
}

#define EXPECT_INT(call, expected) expect_int(#call, (call), (expected))
#define EXPECT_FLOAT(call, expected) expect_float(#call, (call), (expected))

int main(void) {
  /* The wrap at 8 bits is made once only. */
  EXPECT_INT(accumulator_int_verification(127, 1, 8), -128);
  EXPECT_INT(accumulator_int_verification(-128, -1, 8), 127);
  EXPECT_INT(accumulator_int_verification(127, 300, 8), 171);
  EXPECT_INT(accumulator_int_verification(100, 27, 8), 127);
  EXPECT_INT(accumulator_int_verification(-8388607, 0, 32), -8388607);
  /* These two print a line. */
  EXPECT_INT(accumulator_int_verification(8388607, 0, 32), 8388607);
  EXPECT_INT(accumulator_int_verification(INT_MAX, 0, 32), INT_MIN);

  EXPECT_FLOAT(accumulator_fp16_verification(1.5F, 2.25F), 3.75F);
  EXPECT_FLOAT(accumulator_fp16_verification(0x1p-11F, 0.0F), 0.0F);
  EXPECT_FLOAT(accumulator_fp16_verification(0x3p-11F, 0.0F), 0x1p-9F);
  EXPECT_FLOAT(accumulator_fp16_verification(40000.0F, 0.0F), -20000.0F);
  EXPECT_FLOAT(accumulator_fp16_verification(32767.9F, 0.0F), -16384.0F);
  EXPECT_FLOAT(accumulator_fp16_verification(-0.0F, -0.0F), -0.0F);

  EXPECT_INT(multiplier_verification(65536, 65536), 0);
  EXPECT_INT(multiplier_verification(INT_MAX, 2), -2);
  EXPECT_INT(multiplier_verification(-7, 6), -42);

  EXPECT_FLOAT(shifter_fp16_acc_verification(-5), -5.0F);
  EXPECT_FLOAT(shifter_fp16_acc_verification(16777217), 16777216.0F);

  EXPECT_INT(shifter_int_acc_verification(5, 1), 2);
  EXPECT_INT(shifter_int_acc_verification(7, 1), 4);
  EXPECT_INT(shifter_int_acc_verification(6, 2), 2);
  EXPECT_INT(shifter_int_acc_verification(-5, 1), -2);
  EXPECT_INT(shifter_int_acc_verification(123, 0), 123);
  EXPECT_INT(shifter_int_acc_verification(INT_MIN, 31), -1);

  printf("single_step: %d checks passed\n", checks);
  return EXIT_SUCCESS;
}
