// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HAdd: worked examples; the definition against the oracle over every attribute, printed text
// included; and the kernel on every target against the definition.

#include "bitfold/HAdd.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/addition.h"
#include "support/addition_suite.h"

namespace bitfold {
namespace {

using testing::HAddTraits;
using testing::Same;

// One element as the kernel computes it, without printed text.
template <typename T>
::testing::AssertionResult Gives(T expected, T value, T operand, T factor, float repeat, int shift,
                                 int width, bool use_fp16_acc = false) {
  const auto out =
      testing::AddOne<HAddTraits, T>(value, operand, factor, repeat, shift, width, use_fp16_acc);
  if (!out.lines.empty()) return ::testing::AssertionFailure() << "printed " << out.lines;
  return Same(expected, out.values[0], "HAdd",
              testing::Describe("value", value, "operand", operand, "repeat", repeat, "shift",
                                shift, "width", width));
}

TEST(HAdd, NoPassLeavesTheValue) {
  for (const float repeat : {0.0f, -0.0f, -2.0f}) {
    EXPECT_TRUE(Gives<int32_t>(100, 100, 50, 1, repeat, 0, 8));
    EXPECT_TRUE(Gives<int32_t>(1000, 1000, 50, 1, repeat, 0, 8));  // not even wrapped
    EXPECT_TRUE(Gives<float>(1000.5f, 1000.5f, 50.0f, 1.0f, repeat, 0, 8));
    EXPECT_TRUE(Gives<float>(-0.0f, -0.0f, 50.0f, 1.0f, repeat, 0, 8));
    // Quantised all the same: 40000 overflows to -20000.
    EXPECT_TRUE(Gives<int32_t>(-20000, 40000, 50, 1, repeat, 0, 24, true));
    EXPECT_TRUE(Gives<float>(-20000.0f, 40000.0f, 50.0f, 1.0f, repeat, 0, 24, true));
  }
}

TEST(HAdd, FractionOfAPassIsAWholeOne) {
  EXPECT_TRUE(Gives<int32_t>(21, 0, 7, 1, 2.5f, 0, 16));
  EXPECT_TRUE(Gives<float>(21.0f, 0.0f, 7.0f, 1.0f, 2.5f, 0, 16));
}

TEST(HAdd, Wraps) {
  EXPECT_TRUE(Gives<int32_t>(-106, 100, 50, 1, 1.0f, 0, 8));  // 150 - 256
  EXPECT_TRUE(Gives<float>(-106.0f, 100.0f, 50.0f, 1.0f, 1.0f, 0, 8));
}

TEST(HAdd, ShiftRoundsHalfToEven) {
  EXPECT_TRUE(Gives<int32_t>(2, 0, 5, 1, 1.0f, 1, 16));            // 2.5: the tie goes to 2
  EXPECT_TRUE(Gives<int32_t>(4, 0, 7, 1, 1.0f, 1, 16));            // 3.5: the tie goes to 4
  EXPECT_TRUE(Gives<float>(2.0f, 0.0f, 5.0f, 1.0f, 1.0f, 2, 16));  // 5 / 2
  EXPECT_TRUE(Gives<int32_t>(1, 0, 5, 1, 1.0f, 2, 16));            // 5 / 4
}

TEST(HAdd, WidthOfZero) {
  EXPECT_TRUE(Gives<int32_t>(0, 0, 0, 1, 1.0f, 0, 0));
  EXPECT_TRUE(Gives<int32_t>(4, 3, 2, 1, 1.0f, 0, 0));  // 5 wraps once, by 1
  // M - 1 = -0.5: 0 is above it and wraps by 1.
  EXPECT_TRUE(Gives<float>(-1.0f, 0.0f, 0.0f, 1.0f, 1.0f, 0, 0));
}

TEST(HAdd, FloatWarnsOncePerAddition) {
  const std::string first = "@@@ WARNING: acc 8388607.000000 is out of bounds <-8388607,8388607>\n";
  const std::string second =
      "@@@ WARNING: acc 8388608.000000 is out of bounds <-8388607,8388607>\n";
  const auto out = testing::AddOne<HAddTraits, float>(8388605.0f, 1.0f, 1.0f, 3.0f, 0, 32);
  EXPECT_EQ(out.lines, first + second);
  EXPECT_TRUE(Same(8388608.0f, out.values[0], "HAdd", ""));
  EXPECT_EQ((testing::AddOne<HAddTraits, int32_t>(8388605, 1, 1, 3.0f, 0, 32).lines), "");
}

TEST(HAdd, LongestFeed) {
  // 2^31 - 64 passes of 1 from 0: the smallest count that rounds up to 2^31.
  EXPECT_TRUE(Gives<int32_t>(2147483584, 0, 1, 1, kMaxFeedRepeat, 0, 32));
  EXPECT_TRUE(Gives<int32_t>(-64, 0, 1, 1, kMaxFeedRepeat, 0, 8));
}

}  // namespace

namespace testing {

// Against the oracle and the definition.
INSTANTIATE_TYPED_TEST_SUITE_P(HAdd, AdditionSuite, HAddTraits);
INSTANTIATE_TYPED_TEST_SUITE_P(HAdd, FeedSuite, HAddTraits);

}  // namespace testing
}  // namespace bitfold
