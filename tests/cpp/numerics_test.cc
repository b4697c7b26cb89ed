// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the arithmetic takes for granted of the compiler, its flags and the machine.

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>

#include "support/bits.h"
#include "support/compare.h"

#ifdef __FAST_MATH__
#error "-ffast-math drops NaN and the sign of zero, and reorders sums"
#endif
#if defined(__FINITE_MATH_ONLY__) && __FINITE_MATH_ONLY__
#error "-ffinite-math-only drops NaN and infinities"
#endif

static_assert(FLT_EVAL_METHOD == 0, "float expressions are evaluated in single precision");
static_assert(std::numeric_limits<float>::is_iec559 && std::numeric_limits<float>::digits == 24);
static_assert(std::numeric_limits<double>::is_iec559 && std::numeric_limits<double>::digits == 53);
static_assert(sizeof(int) == 4 && CHAR_BIT == 8);
static_assert(static_cast<int32_t>(0x80000000u) == INT32_MIN, "two's complement");
static_assert((-5 >> 1) == -3, "a right shift copies the sign");

#if defined(__x86_64__)
#define BITFOLD_TEST_FMA __attribute__((target("fma"), noinline))
#else
#define BITFOLD_TEST_FMA __attribute__((noinline))
#endif

namespace bitfold {
namespace {

using testing::FloatOf;
using testing::Same;

bool MachineHasFma() {
#if defined(__x86_64__)
  return __builtin_cpu_supports("fma") != 0;
#else
  return true;
#endif
}

// The compiler may use the fused instruction here, and would without -ffp-contract=off.
BITFOLD_TEST_FMA float MultiplyAdd(float a, float b, float c) { return a * b + c; }

BITFOLD_TEST_FMA float Fused(float a, float b, float c) { return __builtin_fmaf(a, b, c); }

TEST(Numerics, ProductsAndSumsAreNotFused) {
  if (!MachineHasFma()) GTEST_SKIP() << "this processor has no fused multiply-add";
  // (1 + 2^-12)^2 = 1 + 2^-11 + 2^-24; the last term is half a unit and goes to even, that is away.
  volatile float a = 1.0f + std::ldexp(1.0f, -12);
  volatile float c = -(1.0f + std::ldexp(1.0f, -11));
  EXPECT_TRUE(Same(0.0f, MultiplyAdd(a, a, c), "two roundings", ""));
  EXPECT_TRUE(Same(std::ldexp(1.0f, -24), Fused(a, a, c), "one rounding", ""));
}

TEST(Numerics, SubnormalsAreKept) {
  volatile float smallest = FloatOf(1);
  volatile float normal = FloatOf(0x00800000);
  EXPECT_TRUE(Same(FloatOf(2), smallest * 2.0f, "2^-149 * 2", ""));
  EXPECT_TRUE(Same(FloatOf(0x00400000), normal * 0.5f, "2^-126 / 2", ""));
}

TEST(Numerics, ZerosKeepTheirSignAndNanIsNotEqual) {
  volatile float zero = 0.0f;
  volatile float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_TRUE(Same(-0.0f, -zero, "-0", ""));
  EXPECT_TRUE(Same(-0.0f, zero * -1.0f, "0 * -1", ""));
  EXPECT_TRUE(Same(0.0f, -zero + 0.0f, "-0 + 0", ""));
  EXPECT_FALSE(nan == nan);
  EXPECT_TRUE(!(nan >= 0.0f));
}

TEST(Numerics, DivisionIsNotAMultiplicationByTheReciprocal) {
  volatile float x = 5.0f;
  volatile float y = 1.0f;
  int reciprocal_differs = 0;
  for (int i = 1; i < 128; ++i) {
    y = static_cast<float>(i);
    volatile float reciprocal = 1.0f / y;
    // A quotient formed in double and rounded once is the single-precision quotient.
    const float exact = static_cast<float>(static_cast<double>(x) / static_cast<double>(y));
    ASSERT_TRUE(Same(exact, x / y, "5 / y", testing::Describe("y", i)));
    if (!testing::SameBits(exact, x * reciprocal)) ++reciprocal_differs;
  }
  EXPECT_GT(reciprocal_differs, 0) << "the check cannot see the difference";
}

TEST(Numerics, SumsAreNotReordered) {
  volatile float big = 16777216.0f;
  volatile float one = 1.0f;
  const float b = big;
  const float o = one;
  // Each 1 is half a unit of 2^24 and goes to even, that is away; 1 + 1 first would stay.
  EXPECT_TRUE(Same(16777216.0f, b + o + o, "2^24 + 1 + 1", ""));
}

#ifdef BITFOLD_TEST_TRAPS_UNDEFINED
// Integer wrap is written in unsigned arithmetic; this build traps any that is not.
TEST(Numerics, SanitizerTrapsSignedOverflow) {
  volatile int32_t largest = INT32_MAX;
  EXPECT_DEATH(
      {
        volatile int32_t sum = largest + 1;
        static_cast<void>(sum);
      },
      "signed integer overflow");
}

TEST(Numerics, SanitizerTrapsConversionsOutOfRange) {
  volatile float two_to_the_31 = 2147483648.0f;
  EXPECT_DEATH(
      {
        volatile int32_t x = static_cast<int32_t>(two_to_the_31);
        static_cast<void>(x);
      },
      "outside the range");
}
#endif

}  // namespace
}  // namespace bitfold
