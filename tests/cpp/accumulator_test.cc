// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The accumulator's limits and its one wrap, against the oracle's additions.

#include "bitfold/accumulator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "reference.h"
#include "support/compare.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::Same;

// One pass of the oracle's addition with nothing scaled: acc + addend, wrapped.
template <typename T>
T OraclePass(T acc, T addend, int32_t width) {
  T out;
  reference::Add<T>(&acc, &addend, T{1}, 1.0f, 0, width, false, 1, &out, nullptr);
  return out;
}

TEST(Accumulator, Int32Limits) {
  struct {
    int32_t width, min, max;
  } const cases[] = {
      {0, 0, 0},  // M = 0.5: both ends truncate to 0
      {1, -1, 0},
      {2, -2, 1},
      {8, -128, 127},
      {24, -8388608, 8388607},
      {26, -33554432, 33554431},  // formed in double: nothing rounds
      {31, -1073741824, 1073741823},
      {32, INT32_MIN, INT32_MAX},
  };
  for (const auto& c : cases) {
    const AccumulatorLimits<int32_t> limits(c.width);
    EXPECT_EQ(limits.min, c.min) << c.width;
    EXPECT_EQ(limits.max, c.max) << c.width;
  }
}

TEST(Accumulator, FloatLimits) {
  for (int32_t width = 0; width <= 140; ++width) {
    const AccumulatorLimits<float> limits(width);
    // From a width of 26 on M - 1 is a tie or nearer to M and rounds to it.
    const float magnitude =
        width > 128 ? std::numeric_limits<float>::infinity() : std::ldexp(1.0f, width - 1);
    const float max = width >= 26 ? magnitude : std::ldexp(1.0f, width - 1) - 1.0f;
    const float period =
        width > 127 ? std::numeric_limits<float>::infinity() : std::ldexp(1.0f, width);
    const auto inputs = Describe("width", width);
    EXPECT_TRUE(Same(-magnitude, limits.min, "min", inputs));
    EXPECT_TRUE(Same(max, limits.max, "max", inputs));
    EXPECT_TRUE(Same(period, limits.period, "period", inputs));
  }
}

// The width comes from an attribute; the magnitude is formed for any.
TEST(Accumulator, MagnitudeOfExtremeWidths) {
  EXPECT_TRUE(Same(0.5f, AccumulatorMagnitude(0), "magnitude", "0"));
  EXPECT_TRUE(Same(0.25f, AccumulatorMagnitude(-1), "magnitude", "-1"));
  EXPECT_TRUE(Same(std::ldexp(1.0f, -149), AccumulatorMagnitude(-148), "magnitude", "-148"));
  EXPECT_TRUE(Same(0.0f, AccumulatorMagnitude(-1000), "magnitude", "-1000"));
  const float infinity = std::numeric_limits<float>::infinity();
  EXPECT_TRUE(Same(infinity, AccumulatorMagnitude(129), "magnitude", "129"));
  EXPECT_TRUE(Same(infinity, AccumulatorMagnitude(INT32_MAX), "magnitude", "INT32_MAX"));
  // INT32_MIN - 1 wraps to INT32_MAX.
  EXPECT_TRUE(Same(infinity, AccumulatorMagnitude(INT32_MIN), "magnitude", "INT32_MIN"));
}

TEST(Accumulator, Int32AdditionWrapsOnce) {
  const AccumulatorLimits<int32_t> limits(8);
  EXPECT_EQ(Accumulate(127, 1, limits), -128);
  EXPECT_EQ(Accumulate(-128, -1, limits), 127);
  EXPECT_EQ(Accumulate(100, 50, limits), -106);
  EXPECT_EQ(Accumulate(127, 300, limits), 171);  // 427 - 256: one wrap only
  EXPECT_EQ(Accumulate(-128, -300, limits), -172);
}

TEST(Accumulator, Int32AgainstOracle) {
  const auto values = testing::Int32Boundaries();
  for (int32_t width = 0; width <= kMaxInt32AccumulatorSize; ++width) {
    const AccumulatorLimits<int32_t> limits(width);
    for (const int32_t acc : values) {
      for (const int32_t addend : testing::Int32Corners()) {
        ASSERT_TRUE(Same(OraclePass(acc, addend, width), Accumulate(acc, addend, limits),
                         "Accumulate", Describe("acc", acc, "addend", addend, "width", width)));
      }
    }
  }
}

TEST(Accumulator, FloatWrapAgainstOracle) {
  const auto values = testing::FloatBoundaries();
  for (int32_t width = 0; width <= 135; ++width) {
    const AccumulatorLimits<float> limits(width);
    for (const float x : values) {
      // x + 0 is x but for -0, which the sum turns into +0.
      const float sum = x + 0.0f;
      ASSERT_TRUE(Same(OraclePass(x, 0.0f, width), WrapOnce(sum, limits), "WrapOnce",
                       Describe("sum", sum, "width", width)));
    }
    // The ends themselves, and one step beyond them.
    const float infinity = std::numeric_limits<float>::infinity();
    for (const float end : {limits.min, limits.max}) {
      for (const float x : {std::nextafter(end, -infinity), end, std::nextafter(end, infinity)}) {
        ASSERT_TRUE(Same(OraclePass(x, 0.0f, width), WrapOnce(x + 0.0f, limits), "WrapOnce",
                         Describe("sum", x, "width", width)));
      }
    }
  }
}

// A sum of exactly M wraps up to a width of 25 and stays from 26 on, where M - 1 rounds to M.
TEST(Accumulator, FloatSumOfExactlyTheMagnitude) {
  EXPECT_TRUE(Same(-16777216.0f, WrapOnce(16777216.0f, AccumulatorLimits<float>(25)), "25", ""));
  EXPECT_TRUE(Same(33554432.0f, WrapOnce(33554432.0f, AccumulatorLimits<float>(26)), "26", ""));
}

}  // namespace
}  // namespace bitfold
