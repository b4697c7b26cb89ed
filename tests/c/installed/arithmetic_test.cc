// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The definitions as a C++ program sees them that has the installed headers and flags alone, beside
// the C library. Prints how many checks passed; on a mismatch says which and exits with status 1.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bitfold/accumulator.h"
#include "bitfold/datapath.h"
#include "bitfold/half_accumulator.h"
#include "bitfold/product_scaling.h"
#include "bitfold/requantise.h"
#include "bitfold/single_step.h"

namespace {

int checks = 0;

void Expect(const char* what, int32_t got, int32_t expected) {
  ++checks;
  if (got == expected) return;
  std::printf("%s gives %d, expected %d\n", what, got, expected);
  std::exit(EXIT_FAILURE);
}

// Compares bits: 0 and -0 differ.
void Expect(const char* what, float got, float expected) {
  uint32_t got_bits = 0;
  uint32_t expected_bits = 0;
  std::memcpy(&got_bits, &got, sizeof(got));
  std::memcpy(&expected_bits, &expected, sizeof(expected));
  ++checks;
  if (got_bits == expected_bits) return;
  std::printf("%s gives %a, expected %a\n", what, static_cast<double>(got),
              static_cast<double>(expected));
  std::exit(EXIT_FAILURE);
}

#define EXPECT_BITS(call, expected) Expect(#call, (call), (expected))

// A product that is rounded before the sum, and not where one instruction makes both.
float ProductAndSum(volatile float a, volatile float b, volatile float c) { return a * b + c; }

}  // namespace

int main() {
  const bitfold::AccumulatorLimits<int32_t> limits(32);
  EXPECT_BITS(bitfold::Accumulate(16777217, 0, limits), 16777217);
  EXPECT_BITS(bitfold::Accumulate(INT32_MAX, 1, limits), INT32_MIN);
  EXPECT_BITS(bitfold::Accumulate(127, 1, bitfold::AccumulatorLimits<int32_t>(8)), -128);
  EXPECT_BITS(accumulator_int_verification(127, 1, 8), -128);
  EXPECT_BITS(bitfold::AccumulateHalf(32768.0f, 4.0f), -16384.0f);
  EXPECT_BITS(bitfold::f32_to_hf16(40000.0f), -20000.0f);
  EXPECT_BITS(bitfold::ShiftRoundHalfToEven(7, 1), 4);
  EXPECT_BITS(bitfold::DivideRoundHalfToEven(75.0f, 30), 2.0f);
  EXPECT_BITS(bitfold::MultiplyRoundHalfToEven(75.0f, 30, bitfold::ShiftReciprocal(30)), 3.0f);
  EXPECT_BITS(bitfold::Datapath<float>(8, 0, false).Accumulate(127.0f, 1.0f), -128.0f);
  EXPECT_BITS(ProductAndSum(1.0f + 0x1p-12f, 1.0f + 0x1p-12f, -1.0f), 0x1p-11f);
  for (int32_t x = -4000; x <= 4000; x += 3) {
    EXPECT_BITS(bitfold::ShiftRoundHalfToEven(x, 3), shifter_int_acc_verification(x, 3));
  }
  std::printf("arithmetic: %d checks passed\n", checks);
  return EXIT_SUCCESS;
}
