// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HDecomposedBiasAdd: worked examples; the definition against the oracle over every attribute,
// printed text included; and the kernel on every target against the definition.

#include "bitfold/HDecomposedBiasAdd.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/addition.h"
#include "support/addition_suite.h"

namespace bitfold {
namespace {

using testing::Addition;
using testing::HDecomposedBiasAddTraits;
using testing::Same;

// One element of factors 1 that adds a and then b.
template <typename T>
Addition<T> One(T value, T a, T b, float repeat, int width) {
  Addition<T> c;
  c.value = {value};
  c.operand = {a};
  c.second = {b};
  c.feed_repeat = repeat;
  c.accumulator_size = width;
  return c;
}

template <typename T>
T Sum(const Addition<T>& c) {
  return testing::RunAddition<HDecomposedBiasAddTraits>(c).values[0];
}

TEST(HDecomposedBiasAdd, TheFirstWrapFeedsTheSecondAddition) {
  // 150 wraps to -106, then -156 wraps to 100: as if there were no limits, by both wraps.
  EXPECT_EQ(Sum(One<int32_t>(100, 50, -50, 1.0f, 8)), 100);
  EXPECT_EQ(Sum(One<int32_t>(100, 50, -10, 1.0f, 8)), -116);
  EXPECT_TRUE(Same(100.0f, Sum(One<float>(100.0f, 50.0f, -50.0f, 1.0f, 8)), "float", ""));
  EXPECT_TRUE(Same(-116.0f, Sum(One<float>(100.0f, 50.0f, -10.0f, 1.0f, 8)), "float", ""));
}

// Four additions in the order a, b, a, b: each sum out of range names its line.
TEST(HDecomposedBiasAdd, EveryPassAddsOnePartAndThenTheOther) {
  const auto out = testing::RunAddition<HDecomposedBiasAddTraits>(
      One<float>(8388608.0f, 10.0f, -2.0f, 2.0f, 40));
  const auto line = [](const std::string& sum) {
    return "@@@ WARNING: acc " + sum + ".000000 is out of bounds <-8388607,8388607>\n";
  };
  EXPECT_EQ(out.lines, line("8388618") + line("8388616") + line("8388626") + line("8388624"));
  EXPECT_TRUE(Same(8388624.0f, out.values[0], "float", ""));
}

TEST(HDecomposedBiasAdd, EachPartHasItsFactorAndItsChannel) {
  Addition<int32_t> c;
  c.value.assign(7, 1000);
  c.operand = {1, 2, 3};
  c.second = {10, 20, 30};
  c.factor = 100;
  c.second_factor = -1;
  c.feed_repeat = 2.0f;
  const auto out = testing::RunAddition<HDecomposedBiasAddTraits>(c);
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(out.values[i], 1000 + 2 * (100 * (i % 3 + 1) - 10 * (i % 3 + 1))) << i;
  }
}

TEST(HDecomposedBiasAdd, BothPartsAreScaled) {
  Addition<int32_t> c = One<int32_t>(0, 5, 7, 1.0f, 16);
  c.mult_shift = 1;
  EXPECT_EQ(Sum(c), 6);  // 2.5 to 2 and 3.5 to 4, not 12 / 2 of their sum: that is 6 too
  c.second = {5};
  EXPECT_EQ(Sum(c), 4);  // 2 + 2; of the sum, 5
  Addition<float> d = One<float>(0.0f, 5.0f, 5.0f, 1.0f, 16);
  d.mult_shift = 2;
  EXPECT_TRUE(Same(4.0f, Sum(d), "float", ""));  // divided by 2, the value
}

TEST(HDecomposedBiasAdd, NoPassLeavesTheValue) {
  EXPECT_EQ(Sum(One<int32_t>(1000, 5, 5, 0.0f, 8)), 1000);
  Addition<int32_t> c = One<int32_t>(40000, 5, 5, 0.0f, 24);
  c.use_fp16_acc = true;
  EXPECT_EQ(Sum(c), -20000);
}

TEST(HDecomposedBiasAdd, LongestFeed) {
  // 2^31 - 64 passes of 3 - 2.
  EXPECT_EQ(Sum(One<int32_t>(0, 3, -2, kMaxFeedRepeat, 32)), 2147483584);
  EXPECT_EQ(Sum(One<int32_t>(0, 3, -2, kMaxFeedRepeat, 8)), -64);
}

}  // namespace

namespace testing {

// Against the oracle and the definition.
INSTANTIATE_TYPED_TEST_SUITE_P(HDecomposedBiasAdd, AdditionSuite, HDecomposedBiasAddTraits);
INSTANTIATE_TYPED_TEST_SUITE_P(HDecomposedBiasAdd, FeedSuite, HDecomposedBiasAddTraits);

}  // namespace testing
}  // namespace bitfold
