// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The scalings of a product, against the oracle: every int16 and the int32 boundaries under every
// int8 shift; float boundaries over every int8 divisor, and times its reciprocal.

#include "bitfold/product_scaling.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "reference.h"
#include "support/compare.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::Same;

::testing::AssertionResult ShiftSameAsOracle(int32_t x, int32_t shift) {
  const int32_t expected = reference::ShiftInt(x, shift);
  const int32_t actual = ShiftRoundHalfToEven(x, shift);
  if (expected == actual) return ::testing::AssertionSuccess();  // 17 million times
  return Same(expected, actual, "ShiftRoundHalfToEven", Describe("x", x, "shift", shift));
}

TEST(ProductScaling, ShiftExamples) {
  EXPECT_EQ(ShiftRoundHalfToEven(5, 1), 2);    // 2.5: the tie goes to 2
  EXPECT_EQ(ShiftRoundHalfToEven(7, 1), 4);    // 3.5: the tie goes to 4
  EXPECT_EQ(ShiftRoundHalfToEven(3, 1), 2);    // 1.5 to 2
  EXPECT_EQ(ShiftRoundHalfToEven(6, 2), 2);    // 1.5 to 2
  EXPECT_EQ(ShiftRoundHalfToEven(10, 2), 2);   // 2.5 to 2
  EXPECT_EQ(ShiftRoundHalfToEven(-5, 1), -2);  // -2.5 to -2
  EXPECT_EQ(ShiftRoundHalfToEven(-3, 1), -2);  // -1.5 to -2
  EXPECT_EQ(ShiftRoundHalfToEven(-1, 1), 0);   // -0.5 to 0
  // At 31 the mask is 0xC0000000: an exact half rounds up, a negative number never does.
  EXPECT_EQ(ShiftRoundHalfToEven(1 << 30, 31), 1);
  EXPECT_EQ(ShiftRoundHalfToEven((1 << 30) - 1, 31), 0);
  EXPECT_EQ(ShiftRoundHalfToEven(-1, 31), -1);
}

TEST(ProductScaling, ShiftOfZeroReturnsTheProduct) {
  for (const int32_t x : testing::Int32Boundaries()) EXPECT_EQ(ShiftRoundHalfToEven(x, 0), x);
}

TEST(ProductScaling, EveryInt16UnderEveryShift) {
  for (int32_t shift = -128; shift <= 127; ++shift) {
    for (int32_t x = -32768; x <= 32767; x += testing::Step(31)) {
      ASSERT_TRUE(ShiftSameAsOracle(x, shift));
    }
  }
}

TEST(ProductScaling, Int32BoundariesUnderEveryShift) {
  for (int32_t shift = -128; shift <= 127; ++shift) {
    for (const int32_t x : testing::Int32Boundaries()) ASSERT_TRUE(ShiftSameAsOracle(x, shift));
  }
  // The exported shifter takes any int.
  for (const int32_t shift : testing::Int32Boundaries()) {
    for (const int32_t x : testing::Int32Corners()) ASSERT_TRUE(ShiftSameAsOracle(x, shift));
  }
}

// Around every tie of every shift: an odd multiple of 2^(shift - 1), and its neighbours.
TEST(ProductScaling, TiesOfEveryShift) {
  testing::Random random(0x5ca1e);
  for (int32_t shift = 1; shift <= 31; ++shift) {
    for (int i = 0; i < 200; ++i) {
      const int64_t half = int64_t{1} << (shift - 1);
      const int64_t multiple =
          random.Between(-(int64_t{1} << (31 - shift)), (int64_t{1} << (31 - shift)) - 1);
      for (int64_t delta = -1; delta <= 1; ++delta) {
        const int64_t x = (2 * multiple + 1) * half + delta;
        if (x < INT32_MIN || x > INT32_MAX) continue;
        ASSERT_TRUE(ShiftSameAsOracle(static_cast<int32_t>(x), shift));
      }
    }
  }
}

// The oracle's scaled product: an addition of x * 1 to -0 with a width whose range is infinite,
// so that neither the sum nor the wrap changes it.
float OracleDivide(float x, int shift) {
  const float minus_zero = -0.0f;
  float out;
  reference::Add<float>(&minus_zero, &x, 1.0f, 1.0f, shift, 140, false, 1, &out, nullptr);
  return out;
}

TEST(ProductScaling, DivisionExamples) {
  const auto divide = [](float x, int32_t by, float expected) {
    return Same(expected, DivideRoundHalfToEven(x, by), "divide", Describe("x", x, "by", by));
  };
  EXPECT_TRUE(divide(5.0f, 2, 2.0f));   // by the value 2, not by 4; 2.5 is a tie, to 2
  EXPECT_TRUE(divide(3.0f, 2, 2.0f));   // 1.5 to 2
  EXPECT_TRUE(divide(10.0f, 4, 2.0f));  // 2.5 to 2
  EXPECT_TRUE(divide(-5.0f, 2, -2.0f));
  EXPECT_TRUE(divide(5.0f, -2, -2.0f));
  EXPECT_TRUE(divide(-1.0f, 4, -0.0f));  // -0.25: a zero keeps its sign
  EXPECT_TRUE(divide(1.0f, -4, -0.0f));
  EXPECT_TRUE(divide(2.5f, 0, 2.5f));                // a shift of 0 does not even round
  EXPECT_TRUE(divide(2.5f, 1, 2.0f));                // 1 does
  EXPECT_TRUE(divide(16777219.0f, 1, 16777220.0f));  // an integer already: 2^24 + 4
}

TEST(ProductScaling, FloatBoundariesOverEveryDivisor) {
  // No NaN comes out as a number, no number as NaN: the comparison is on bits.
  const auto values = testing::FloatBoundaries();
  for (int32_t shift = -128; shift <= 127; ++shift) {
    for (const float x : values) {
      ASSERT_TRUE(Same(OracleDivide(x, shift), DivideRoundHalfToEven(x, shift),
                       "DivideRoundHalfToEven", Describe("x", x, "shift", shift)));
    }
  }
}

// Quotients that are ties, and the floats next to them.
TEST(ProductScaling, FloatTiesOfEveryDivisor) {
  testing::Random random(0xd117);
  for (int32_t shift = -128; shift <= 127; ++shift) {
    for (int i = 0; i < 100; ++i) {
      const float tie = static_cast<float>(random.Between(-30000, 30000)) + 0.5f;
      std::vector<float> around;
      testing::InsertWithNeighbours(tie * static_cast<float>(shift), &around);
      for (const float x : around) {
        ASSERT_TRUE(Same(OracleDivide(x, shift), DivideRoundHalfToEven(x, shift),
                         "DivideRoundHalfToEven", Describe("x", x, "shift", shift)));
      }
    }
  }
}

// ---- Times the reciprocal ----------------------------------------------------------------------

TEST(ProductScaling, ReciprocalOfEveryShift) {
  EXPECT_TRUE(Same(0.0f, ShiftReciprocal(0), "reciprocal", ""));
  for (int32_t shift = -128; shift <= 127; ++shift) {
    if (shift == 0) continue;
    // A quotient of doubles has twice the digits and more: rounding it once more is exact.
    EXPECT_TRUE(Same(static_cast<float>(1.0 / shift), ShiftReciprocal(shift), "reciprocal",
                     Describe("shift", shift)));
  }
}

::testing::AssertionResult ReciprocalSameAsOracle(float x, int32_t shift) {
  return Same(reference::ReciprocalProduct(x, 1.0f, shift),
              MultiplyRoundHalfToEven(x, shift, ShiftReciprocal(shift)), "MultiplyRoundHalfToEven",
              Describe("x", x, "shift", shift));
}

TEST(ProductScaling, ReciprocalExamples) {
  const auto multiply = [](float x, int32_t by, float expected) {
    return Same(expected, MultiplyRoundHalfToEven(x, by, ShiftReciprocal(by)), "multiply",
                Describe("x", x, "by", by));
  };
  EXPECT_TRUE(multiply(5.0f, 2, 2.0f));  // 2.5 is a tie, to 2
  EXPECT_TRUE(multiply(7.5f, 3, 2.0f));  // times 0.33333334 gives 2.5
  EXPECT_TRUE(multiply(-1.0f, 4, -0.0f));
  EXPECT_TRUE(multiply(1.0f, -4, -0.0f));
  EXPECT_TRUE(multiply(2.5f, 0, 2.5f));  // not even rounded
  EXPECT_TRUE(multiply(2.5f, 1, 2.0f));
  EXPECT_TRUE(multiply(16777219.0f, 1, 16777220.0f));
  // The reciprocal of 30 lies above a thirtieth: no tie any more.
  EXPECT_TRUE(multiply(75.0f, 30, 3.0f));
  EXPECT_TRUE(Same(2.0f, DivideRoundHalfToEven(75.0f, 30), "divide", ""));
}

TEST(ProductScaling, FloatBoundariesTimesEveryReciprocal) {
  for (int32_t shift = -128; shift <= 127; ++shift) {
    for (const float x : testing::FloatBoundaries()) ASSERT_TRUE(ReciprocalSameAsOracle(x, shift));
  }
}

// Ties of the quotient and the floats next to them; some go another way than the division.
TEST(ProductScaling, FloatTiesTimesEveryReciprocal) {
  testing::Random random(0x4ec1);
  int others = 0;
  for (int32_t shift = -128; shift <= 127; ++shift) {
    for (int i = 0; i < 100; ++i) {
      const float tie = static_cast<float>(random.Between(-300, 300)) + 0.5f;
      std::vector<float> around;
      testing::InsertWithNeighbours(tie * static_cast<float>(shift), &around);
      for (const float x : around) {
        ASSERT_TRUE(ReciprocalSameAsOracle(x, shift));
        others += MultiplyRoundHalfToEven(x, shift, ShiftReciprocal(shift)) !=
                  DivideRoundHalfToEven(x, shift);
      }
    }
  }
  EXPECT_GT(others, 0);
}

}  // namespace
}  // namespace bitfold
