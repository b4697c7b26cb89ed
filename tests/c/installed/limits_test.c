/* Copyright 2026 The Bitfold Authors.
 * SPDX-License-Identifier: Apache-2.0
 *
 * The C library where there is no memory, and what it logs: nothing leaves it but NULL and a line
 * on standard error. Prints how many checks passed; on a mismatch says which and exits with
 * status 1.
 */

#define _XOPEN_SOURCE 700

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>

#include "bitfold/fpx.h"

static int checks = 0;

static void expect(const char* what, int holds) {
  ++checks;
  if (holds) return;
  printf("%s does not hold\n", what);
  exit(EXIT_FAILURE);
}

#define EXPECT(condition) expect(#condition, (condition))

int main(void) {
  const struct rlimit limit = {(rlim_t)1 << 28, (rlim_t)1 << 28};
  const float value = 1.0F;
  float out = 7.0F;
  FPX narrow = {4, 4, 1, 12, 0};
  EXPECT(setrlimit(RLIMIT_AS, &limit) == 0);
  EXPECT(CreateFPXArray_initZero(INT_MAX, 4, 4) == NULL);
  EXPECT(CreateFPXArray_fromFloat32(&value, INT_MAX, 4, 4) == NULL);
  EXPECT(ReplaceFPXArray_fromFPXArray(NULL, INT_MAX, 4, 4) == NULL);
  OverrideFloatArray_fromFPX(NULL, &out, 1);
  EXPECT(out == 7.0F);
  DeleteInputFPX(NULL);

  EXPECT(get_bias(7) == 0);
  add_sub_floatX(narrow, narrow, &narrow);
  EXPECT(narrow.mantissa == 2);
  printf("limits: %d checks passed\n", checks);
  return EXIT_SUCCESS;
}
