// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The weight sign correction, for every width, against its limit and period in 64-bit integers.

#include "bitfold/weight_sign.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>

#include "support/compare.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::Same;

// The limit 2^(w/2 - 1) - 1 as an int32: a width of 0 or 1 gives 2^-1 - 1, which truncates to 0;
// from w/2 = 33 on no int32 holds it.
int64_t Limit(int32_t width) {
  const int32_t half = width / 2;
  if (half == 0) return 0;
  return half > 32 ? INT32_MIN : (int64_t{1} << (half - 1)) - 1;
}

// 2 limit + 2 modulo 2^32, read as an int32: 2^(w/2), but 0 at w/2 = 32 and 2 beyond.
int64_t Period(int32_t width) {
  const int64_t period = 2 * Limit(width) + 2;
  return period == (int64_t{1} << 32)   ? 0
         : period < 0                   ? 2
         : period == (int64_t{1} << 31) ? INT32_MIN
                                        : period;
}

int32_t Correct(int32_t weight, int64_t period) {
  const int64_t difference = weight - period;
  return static_cast<int32_t>(static_cast<uint32_t>(difference));  // modulo 2^32
}

TEST(WeightSign, Example) {
  // 16 bits: weights of 8 bits. 127 is the largest positive one; 200 is 200 - 256.
  const WeightSign<int32_t> sign(16);
  EXPECT_FALSE(sign.NeedsCorrection(127));
  EXPECT_TRUE(sign.NeedsCorrection(128));
  EXPECT_EQ(sign.Correct(200), -56);
  EXPECT_EQ(sign.Correct(128), -128);
  EXPECT_FALSE(sign.NeedsCorrection(-56));
  EXPECT_EQ(sign.Correct(1000), 744);  // one correction only
}

TEST(WeightSign, Int32EveryWidth) {
  for (int32_t width = 0; width <= 70; ++width) {
    const WeightSign<int32_t> sign(width);
    for (const int32_t weight : testing::Int32Boundaries()) {
      const auto inputs = Describe("weight", weight, "width", width);
      ASSERT_EQ(sign.NeedsCorrection(weight), weight > Limit(width)) << inputs;
      if (!sign.NeedsCorrection(weight)) continue;
      ASSERT_TRUE(Same(Correct(weight, Period(width)), sign.Correct(weight), "Correct", inputs));
    }
  }
}

TEST(WeightSign, FloatEveryWidth) {
  for (int32_t width = 0; width <= 70; ++width) {
    const WeightSign<float> sign(width);
    const float limit = static_cast<float>(Limit(width));
    const float period = static_cast<float>(Period(width));
    auto weights = testing::FloatBoundaries();
    testing::InsertWithNeighbours(limit, &weights);
    testing::InsertWithNeighbours(period, &weights);
    for (const float weight : weights) {
      const auto inputs = Describe("weight", weight, "width", width);
      ASSERT_EQ(sign.NeedsCorrection(weight), weight > limit) << inputs;
      if (!sign.NeedsCorrection(weight)) continue;
      // A difference formed in double and rounded once is the single-precision difference.
      const double wide = static_cast<double>(weight) - static_cast<double>(period);
      ASSERT_TRUE(Same(static_cast<float>(wide), sign.Correct(weight), "Correct", inputs));
    }
  }
}

}  // namespace
}  // namespace bitfold
