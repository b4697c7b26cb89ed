/* Copyright 2026 The Bitfold Authors.
 * SPDX-License-Identifier: Apache-2.0
 *
 * The narrow floats as a C program sees them: the installed header, the installed library, values
 * passed by value. Prints how many checks passed; on a mismatch says which and exits with status 1.
 */

#include "bitfold/fpx.h"

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

_Static_assert(sizeof(FPX) == 12, "arrays of FPX are indexed");
_Static_assert(offsetof(FPX, exp_len) == 0, "layout");
_Static_assert(offsetof(FPX, man_len) == 1, "layout");
_Static_assert(offsetof(FPX, mantissa) == 4, "layout");
_Static_assert(offsetof(FPX, exponent) == 8, "layout");

static int checks = 0;

static void expect(const char* what, long long got, long long expected) {
  ++checks;
  if (got == expected) return;
  printf("%s is %lld, expected %lld\n", what, got, expected);
  exit(EXIT_FAILURE);
}

#define EXPECT(value, expected) expect(#value, (long long)(value), (long long)(expected))

/* Compares bits: 0 and -0 differ. */
static void expect_float(const char* what, float got, float expected) {
  ++checks;
  if (memcmp(&got, &expected, sizeof got) == 0) return;
  printf("%s gives %a, expected %a\n", what, (double)got, (double)expected);
  exit(EXIT_FAILURE);
}

#define EXPECT_FLOAT(call, expected) expect_float(#call, (call), (expected))

static FPX from_float(float value, uint8_t exp_len, uint8_t man_len) {
  FPX x;
  memset(&x, 0, sizeof x);
  x.exp_len = exp_len;
  x.man_len = man_len;
  float32_toX(value, &x);
  return x;
}

static void test_sign_bit(void) {
  FPX x;
  unsigned char bytes[sizeof x];
  memset(&x, 0, sizeof x);
  x.sign = 1;
  memcpy(bytes, &x, sizeof x);
  EXPECT(bytes[10], 1);
  /* The other bits of its unit are left alone. */
  memset(&x, 0xff, sizeof x);
  x.exp_len = 4;
  x.man_len = 4;
  float32_toX(1.0F, &x);
  memcpy(bytes, &x, sizeof x);
  EXPECT(bytes[10], 0xfe);
  EXPECT(bytes[11], 0xff);
}

static void test_values(void) {
  FPX x = from_float(1.0F, 4, 4);
  FPX y = from_float(-3.0F, 4, 4);
  FPX z = x;
  EXPECT(get_bias(4), 11);
  EXPECT(get_bias(3), 3);
  EXPECT(x.exponent, 12);
  EXPECT(x.mantissa, 8);
  EXPECT(x.sign, 0);
  EXPECT(y.mantissa, 12);
  EXPECT(y.sign, 1);
  EXPECT_FLOAT(floatX_to32(x), 1.0F);
  EXPECT_FLOAT(floatX_to32(y), -3.0F);
  EXPECT_FLOAT(floatX_to32(from_float(-0.0F, 4, 4)), 0.0F);
  EXPECT_FLOAT(floatX_to32(from_float(1.75F, 4, 2)), 1.5F);

  add_sub_floatX(x, y, &z);
  EXPECT_FLOAT(floatX_to32(z), -2.0F);
  mul_floatX(y, y, &z);
  EXPECT_FLOAT(floatX_to32(z), 9.0F);
  EXPECT_FLOAT(floatX_to32(y), -3.0F); /* operands are copies */

  align_floatX(&x, &y);
  EXPECT(x.exponent, 13);
  EXPECT(x.mantissa, 4);
  ResizeX(&y, 3, 2);
  EXPECT(y.exp_len, 3);
  EXPECT(y.man_len, 2);
  EXPECT_FLOAT(floatX_to32(y), -3.0F);
}

static void test_counters(void) {
  FPX x = from_float(16.0F, 4, 4);
  EXPECT(x.mantissa, 15);
  EXPECT(x.exponent, 15);
  EXPECT(g_32toX_of, 1);
  from_float(0x1p-6F, 3, 4);
  EXPECT(g_32toX_uf, 1);
  x = from_float(0x1p-5F, 4, 4);
  ResizeX(&x, 3, 4);
  EXPECT(g_resizeX_uf, 1);
  EXPECT(g_resizeX_of, 0);
}

static void test_text(void) {
  const FPX x = from_float(1.0F, 4, 4);
  char buffer[5] = "####";
  char* text = FPX_to_BitString(&x);
  EXPECT(strcmp(text, "0 1100 1000"), 0);
  free(text);
  EXPECT(int2bin(buffer, 5, 3) == buffer, 1);
  EXPECT(strcmp(buffer, "101#"), 0);
  EXPECT(int2bin(NULL, 5, 3) == NULL, 1);
}

static void test_arrays(void) {
  const float values[3] = {1.0F, -1.2F, 0.0F};
  float out[3] = {7.0F, 7.0F, 7.0F};
  FPX* array = CreateFPXArray_fromFloat32(values, 3, 4, 8);
  EXPECT(array[1].man_len, 8);
  EXPECT(ReplaceFPXArray_fromFPXArray(array, 3, 3, 4) == array, 1);
  OverrideFloatArray_fromFPX(array, out, 3);
  EXPECT_FLOAT(out[0], 1.0F);
  EXPECT_FLOAT(out[1], -1.25F);
  EXPECT_FLOAT(out[2], 0.0F);
  array = CreateFPXArray_initZero(2, 3, 4);
  EXPECT(array[1].exp_len, 3);
  EXPECT(array[1].mantissa, 0);
  DeleteInputFPX(array);
  DeleteInputFPX(NULL);
  array = CreateFPXArray_initZero(INT_MIN, 3, 4);
  EXPECT(array != NULL, 1);
  DeleteInputFPX(array);
}

int main(void) {
  test_sign_bit();
  test_values();
  test_counters();
  test_text();
  test_arrays();
  printf("fpx: %d checks passed\n", checks);
  return EXIT_SUCCESS;
}
