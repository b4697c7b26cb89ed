// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HBiasAdd: worked examples; the definition against the oracle over every attribute, printed text
// included; and the kernels' passes against the definition.

#include "bitfold/HBiasAdd.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/addition.h"
#include "support/ledger.h"
#include "support/scale.h"

namespace bitfold {
namespace {

using testing::Addition;
using testing::HBiasAddCall;
using testing::Path;
using testing::Ran;
using testing::Same;

TEST(HBiasAdd, ChannelsRepeatWithTheFlatIndex) {
  Addition<int32_t> c;
  c.value.assign(15, 1000);  // a dense result of 3 rows and 5 features
  c.operand = {1, 2, 3, 4, 5};
  c.factor = 10;
  const auto out = testing::RunAddition<HBiasAddCall>(c, ProvenPasses{});
  for (int i = 0; i < 15; ++i) EXPECT_EQ(out.values[i], 1000 + 10 * (i % 5 + 1)) << i;
}

TEST(HBiasAdd, Wraps) {
  const auto out = testing::AddOne<HBiasAddCall, int32_t>(32767, 1, 1, 1.0f, 0, 16);
  EXPECT_EQ(out.values[0], -32768);
}

TEST(HBiasAdd, FloatDividesByTheShift) {
  // 3 / 2 = 1.5: the tie goes to 2. The integer rule gives 3 / 4 = 0.75, which rounds to 1.
  const auto out = testing::AddOne<HBiasAddCall, float>(0.0f, 3.0f, 1.0f, 1.0f, 2, 16);
  EXPECT_TRUE(Same(2.0f, out.values[0], "HBiasAdd", ""));
  EXPECT_EQ((testing::AddOne<HBiasAddCall, int32_t>(0, 3, 1, 1.0f, 2, 16).values[0]), 1);
}

TEST(HBiasAdd, NoPassLeavesTheValue) {
  EXPECT_EQ((testing::AddOne<HBiasAddCall, int32_t>(1000, 5, 1, 0.0f, 0, 8).values[0]), 1000);
  EXPECT_EQ((testing::AddOne<HBiasAddCall, int32_t>(40000, 5, 1, 0.0f, 0, 24, true).values[0]),
            -20000);
}

TEST(HBiasAdd, FloatWarnsInElementOrder) {
  Addition<float> c;
  c.value = {8388607.0f, 0.0f, -8388610.0f, 8388606.0f};
  c.operand = {1.0f, -1.0f};
  const auto out = testing::RunAddition<HBiasAddCall>(c, ProvenPasses{});
  EXPECT_EQ(out.lines,
            "@@@ WARNING: acc 8388608.000000 is out of bounds <-8388607,8388607>\n"
            "@@@ WARNING: acc -8388609.000000 is out of bounds <-8388607,8388607>\n");
}

// ---- Against the oracle and the definition -----------------------------------------------------

TEST(HBiasAdd, Int32AttributesCrossed) {
  auto repeats = testing::FeedRepeats();
  repeats.push_back(3.0f);
  repeats.push_back(17.0f);
  testing::CrossAttributes<HBiasAddCall, int32_t>(false, repeats, 24);
  testing::CrossAttributes<HBiasAddCall, int32_t>(true, {0.0f, 1.0f, 17.0f}, 24);
  testing::CrossCorners<HBiasAddCall, int32_t>(false);
  testing::CrossCorners<HBiasAddCall, int32_t>(true);
  Ran(Path::kHBiasAddInt32);
}

TEST(HBiasAdd, FloatAttributesCrossed) {
  testing::CrossAttributes<HBiasAddCall, float>(false, testing::FeedRepeats(), 12);
  testing::CrossAttributes<HBiasAddCall, float>(false, {17.0f}, 2);
  testing::CrossCorners<HBiasAddCall, float>(false);
  Ran(Path::kHBiasAddFloat);
}

TEST(HBiasAdd, HalfPrecisionAttributesCrossed) {
  testing::CrossAttributes<HBiasAddCall, float>(true, testing::FeedRepeats(), 12);
  testing::CrossAttributes<HBiasAddCall, float>(true, {17.0f}, 2);
  testing::CrossCorners<HBiasAddCall, float>(true);
  Ran(Path::kHBiasAddHalf);
}

TEST(HBiasAdd, SizesAndMisalignments) {
  testing::CrossSizes<HBiasAddCall, int32_t>();
  testing::CrossSizes<HBiasAddCall, float>();
}

// Long feeds, which the kernels prove instead of making.
TEST(HBiasAdd, LongFeeds) {
  testing::Random random(0x10f9);
  for (const int width : {8, 16, 24, 32}) {
    for (const float repeat : {1000.0f, 65536.5f}) {
      Addition<int32_t> c;
      const int64_t count = testing::kSanitized ? 2 : 8;
      c.value = testing::DrawMany<int32_t>(&random, testing::Data::kFull, count);
      c.operand = testing::DrawMany<int32_t>(&random, testing::Data::kSmall, count);
      c.factor = 7;
      c.feed_repeat = repeat;
      c.mult_shift = 2;
      c.accumulator_size = width;
      ASSERT_TRUE(testing::CheckAddition<HBiasAddCall>(c));
    }
  }
}

}  // namespace
}  // namespace bitfold
