// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HBiasAdd: worked examples; the definition against the oracle over every attribute, printed text
// included; and the kernel on every target against the definition.

#include "bitfold/HBiasAdd.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/addition.h"
#include "support/addition_suite.h"

namespace bitfold {
namespace {

using testing::Addition;
using testing::HBiasAddTraits;
using testing::Same;

TEST(HBiasAdd, ChannelsRepeatWithTheFlatIndex) {
  Addition<int32_t> c;
  c.value.assign(15, 1000);  // a dense result of 3 rows and 5 features
  c.operand = {1, 2, 3, 4, 5};
  c.factor = 10;
  const auto out = testing::RunAddition<HBiasAddTraits>(c);
  for (int i = 0; i < 15; ++i) EXPECT_EQ(out.values[i], 1000 + 10 * (i % 5 + 1)) << i;
}

TEST(HBiasAdd, Wraps) {
  const auto out = testing::AddOne<HBiasAddTraits, int32_t>(32767, 1, 1, 1.0f, 0, 16);
  EXPECT_EQ(out.values[0], -32768);
}

TEST(HBiasAdd, FloatDividesByTheShift) {
  // 3 / 2 = 1.5: the tie goes to 2. The integer rule gives 3 / 4 = 0.75, which rounds to 1.
  const auto out = testing::AddOne<HBiasAddTraits, float>(0.0f, 3.0f, 1.0f, 1.0f, 2, 16);
  EXPECT_TRUE(Same(2.0f, out.values[0], "HBiasAdd", ""));
  EXPECT_EQ((testing::AddOne<HBiasAddTraits, int32_t>(0, 3, 1, 1.0f, 2, 16).values[0]), 1);
}

TEST(HBiasAdd, NoPassLeavesTheValue) {
  EXPECT_EQ((testing::AddOne<HBiasAddTraits, int32_t>(1000, 5, 1, 0.0f, 0, 8).values[0]), 1000);
  EXPECT_EQ((testing::AddOne<HBiasAddTraits, int32_t>(40000, 5, 1, 0.0f, 0, 24, true).values[0]),
            -20000);
}

TEST(HBiasAdd, FloatWarnsInElementOrder) {
  Addition<float> c;
  c.value = {8388607.0f, 0.0f, -8388610.0f, 8388606.0f};
  c.operand = {1.0f, -1.0f};
  const auto out = testing::RunAddition<HBiasAddTraits>(c);
  EXPECT_EQ(out.lines,
            "@@@ WARNING: acc 8388608.000000 is out of bounds <-8388607,8388607>\n"
            "@@@ WARNING: acc -8388609.000000 is out of bounds <-8388607,8388607>\n");
}

}  // namespace

namespace testing {

// Against the oracle and the definition.
INSTANTIATE_TYPED_TEST_SUITE_P(HBiasAdd, AdditionSuite, HBiasAddTraits);
INSTANTIATE_TYPED_TEST_SUITE_P(HBiasAdd, FeedSuite, HBiasAddTraits);

}  // namespace testing
}  // namespace bitfold
