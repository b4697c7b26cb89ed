// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// 32-bit two's complement arithmetic against 64-bit arithmetic reduced by hand.

#include "bitfold/int32_arithmetic.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "reference.h"
#include "support/compare.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::Same;

// The number of [-2^31, 2^31) congruent to x modulo 2^32.
int32_t Reduce(int64_t x) {
  const int64_t modulus = int64_t{1} << 32;
  int64_t rest = x % modulus;
  if (rest < -(modulus / 2)) rest += modulus;
  if (rest >= modulus / 2) rest -= modulus;
  return static_cast<int32_t>(rest);
}

TEST(Int32Arithmetic, SumsDifferencesAndProductsWrap) {
  const auto values = testing::Int32Boundaries();
  for (const int32_t a : values) {
    for (const int32_t b : values) {
      const auto inputs = Describe("a", a, "b", b);
      const int64_t x = a;
      ASSERT_TRUE(Same(Reduce(x + b), WrapAdd(a, b), "WrapAdd", inputs));
      ASSERT_TRUE(Same(Reduce(x - b), WrapSubtract(a, b), "WrapSubtract", inputs));
      ASSERT_TRUE(Same(Reduce(x * b), WrapMultiply(a, b), "WrapMultiply", inputs));
      ASSERT_TRUE(Same(reference::Multiply(a, b), WrapMultiply(a, b), "WrapMultiply", inputs));
    }
  }
}

TEST(Int32Arithmetic, ShiftCountsAreModulo32) {
  for (const int32_t x : testing::Int32Boundaries()) {
    for (int32_t count = -130; count <= 130; ++count) {
      const int places = (count % 32 + 32) % 32;
      const int64_t power = int64_t{1} << places;
      const int64_t down = (x - ((x % power) + power) % power) / power;  // floor
      const auto inputs = Describe("x", x, "count", count);
      // Bits shifted out at the top are lost before the product can leave 64 bits.
      const int64_t kept = static_cast<uint32_t>(x) % (uint64_t{1} << (32 - places));
      ASSERT_TRUE(Same(Reduce(kept * power), ShiftLeft(x, count), "ShiftLeft", inputs));
      ASSERT_TRUE(Same(static_cast<int32_t>(down), ShiftRight(x, count), "ShiftRight", inputs));
    }
  }
}

TEST(Int32Arithmetic, QuotientsTruncateAndTheOneThatOverflowsWraps) {
  const auto values = testing::Int32Boundaries();
  for (const int32_t a : values) {
    for (const int32_t b : values) {
      if (b == 0) continue;
      const int64_t quotient = int64_t{a} / b;
      ASSERT_TRUE(Same(Reduce(quotient), WrapDivide(a, b), "WrapDivide", Describe("a", a, "b", b)));
    }
  }
  EXPECT_EQ(WrapDivide(INT32_MIN, -1), INT32_MIN);
  EXPECT_EQ(WrapDivide(-7, 2), -3);
}

TEST(Int32Arithmetic, TruncatesTowardZeroAndGivesInt32MinForTheRest) {
  EXPECT_EQ(TruncateToInt32(1.999), 1);
  EXPECT_EQ(TruncateToInt32(-1.999), -1);
  EXPECT_EQ(TruncateToInt32(-0.5), 0);
  // Still truncated into range, however close to the next integer.
  EXPECT_EQ(TruncateToInt32(std::nextafter(2147483648.0, 0.0)), INT32_MAX);
  EXPECT_EQ(TruncateToInt32(std::nextafter(-2147483649.0, 0.0)), INT32_MIN);
  EXPECT_EQ(TruncateToInt32(2147483648.0), INT32_MIN);
  EXPECT_EQ(TruncateToInt32(-2147483649.0), INT32_MIN);
  EXPECT_EQ(TruncateToInt32(std::numeric_limits<double>::infinity()), INT32_MIN);
  EXPECT_EQ(TruncateToInt32(-std::numeric_limits<double>::infinity()), INT32_MIN);
  EXPECT_EQ(TruncateToInt32(std::numeric_limits<double>::quiet_NaN()), INT32_MIN);
  for (const int32_t x : testing::Int32Boundaries()) {
    EXPECT_EQ(TruncateToInt32(x), x);
    EXPECT_EQ(TruncateToInt32(x + (x < 0 ? -0.5 : 0.5)), x);
  }
}

static_assert(WrapAdd(INT32_MAX, 1) == INT32_MIN, "usable in constant expressions");
static_assert(ShiftRight(-5, 1) == -3, "the right shift copies the sign");

}  // namespace
}  // namespace bitfold
