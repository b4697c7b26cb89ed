// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Prepared layers: worked examples; then, on every target and with several pools of threads, every
// width and shift, biases at their bounds, random layers; a layer that several threads call.

#include "bitfold/HPreparedConvolution.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "support/ledger.h"
#include "support/prepared_check.h"
#include "support/prepared_draw.h"
#include "support/scale.h"

namespace bitfold {
namespace {

using testing::CheckPrepared;
using testing::FillPrepared;
using testing::Numbers;
using testing::Path;
using testing::PreparedCase;
using testing::Ran;
using testing::Random;

// ---- Worked examples ---------------------------------------------------------------------------

// A row of pixels under one weight each, or a window over all of it.
PreparedCase<int8_t, int8_t> Row(std::vector<int8_t> input, std::vector<int8_t> filter) {
  PreparedCase<int8_t, int8_t> c;
  c.columns.input = static_cast<int32_t>(input.size());
  c.columns.taps = static_cast<int32_t>(filter.size());
  c.input = std::move(input);
  c.filter = std::move(filter);
  c.multipliers = {1.0};
  c.mode = {Rescaling::kTwoRoundings, 0, 0, INT8_MIN, INT8_MAX};
  return c;
}

std::vector<int> Outputs(const PreparedCase<int8_t, int8_t>& c) {
  EXPECT_TRUE(CheckPrepared(c));
  const auto out = c.Definition();
  return {out.values.data(), out.values.data() + out.values.count()};
}

TEST(PreparedConvolution, ZeroPointsAndPadding) {
  auto c = Row({5, 7, 4}, {1, 10});
  c.zero_point = 4;
  EXPECT_EQ(Outputs(c), (std::vector<int>{1 + 30, 3}));
  c.columns.before = 2;  // zeros, not the zero point
  EXPECT_EQ(Outputs(c), (std::vector<int>{0, 10, 31, 3}));
  c.columns.after = 1;
  c.mode.zero_point = -5;
  EXPECT_EQ(Outputs(c), (std::vector<int>{-5, 5, 26, -2, -5}));
}

TEST(PreparedConvolution, SumAndBiasWrapEachForItself) {
  auto c = Row({100, 30}, {1, 1});
  c.accumulator_size = 8;
  EXPECT_EQ(Outputs(c), (std::vector<int>{-126}));  // 130 - 256
  c.bias = {-3};
  EXPECT_EQ(Outputs(c), (std::vector<int>{127}));  // -129 + 256
  c.bias = {256 + 127 + 1};
  EXPECT_EQ(Outputs(c), (std::vector<int>{2}));  // -126 + 384 - 256: in the range again
  c.bias = {256 + 127 + 127};
  c.mode.maximum = 100;
  EXPECT_EQ(Outputs(c), (std::vector<int>{100}));  // 384 - 256 = 128 stays outside
  c.bias = {INT32_MIN};
  EXPECT_EQ(Outputs(c), (std::vector<int>{INT8_MIN}));
}

TEST(PreparedConvolution, AShiftDividesTheBiasAndTheRescalingUndoesIt) {
  auto c = Row({3, 3}, {1, 1});
  c.mult_shift = 1;
  EXPECT_EQ(Outputs(c), (std::vector<int>{8}));  // (2 + 2) * 2
  c.bias = {5};
  EXPECT_EQ(Outputs(c), (std::vector<int>{12}));  // (4 + 2) * 2
  c.use_fp16_acc = true;
  EXPECT_EQ(Outputs(c), (std::vector<int>{12}));
}

TEST(PreparedConvolution, HalfPrecisionRoundsSumsAndOverflows) {
  auto c = Row({64, 1}, {64, 1});
  c.use_fp16_acc = true;
  c.multipliers = {1.0 / 64};
  EXPECT_EQ(Outputs(c), (std::vector<int>{64}));  // 4097 is no multiple of 2: 4096
  auto far = Row({-128, -128, -128}, {127, 127, 127});
  far.use_fp16_acc = true;
  far.multipliers = {1.0 / 256};
  EXPECT_EQ(Outputs(far), (std::vector<int>{95}));  // -48768 becomes 24384
}

// A zero is an addend, and one more wrap for a sum outside the range; what lies beyond is none.
TEST(PreparedConvolution, ZerosAndWhatLiesBeyond) {
  auto c = Row({100}, {1, 127, 1});
  c.accumulator_size = 12;
  c.multipliers = {1.0 / 128};
  testing::PlaceAsSame(&c);
  EXPECT_EQ(Outputs(c), (std::vector<int>{67}));  // 12700 - 4096
  c.rows.padding = c.columns.padding = Padding::kValid;
  c.columns.before = c.columns.after = 1;
  EXPECT_EQ(Outputs(c), (std::vector<int>{35}));  // and - 4096 once more
}

TEST(PreparedConvolution, WeightsBeyondTheImageAreNotSeen) {
  auto c = Row({5}, {100, 3, 100});
  c.is_depthwise = true;
  c.accumulator_size = 12;
  testing::PlaceAsSame(&c);
  EXPECT_EQ(Outputs(c), (std::vector<int>{15}));
  EXPECT_EQ(c.Definition().lines, "");
}

TEST(PreparedConvolution, LinesOfCorrectedWeights) {
  auto c = Row({1, 1}, {100, 1});
  c.is_depthwise = true;
  c.accumulator_size = 12;
  const auto out = c.Definition();
  EXPECT_EQ(out.values[0], 100 - 64 + 1);
  EXPECT_EQ(testing::CountLines(out.lines).corrected_weights, 1);
  c.batch = 3;
  c.input = {1, 1, 2, 2, 3, 3};
  EXPECT_TRUE(CheckPrepared(c));
  EXPECT_EQ(testing::CountLines(c.Definition().lines).corrected_weights, 3);
  Ran(Path::kPreparedWeightWarning);
}

// Of several threads each image's lines come once, in their order.
TEST(PreparedConvolution, LinesOfSumsOutOfBounds) {
  Random random(0x11e5);
  PreparedCase<int16_t, int8_t> c;
  c.rows = {2, 2, 1, 1, 0, 0};
  c.columns = {7, 3, 1, 1, 1, 1};
  c.in_channels = 5;
  c.out_channels = 18;
  c.zero_point = INT16_MIN;
  c.use_fp16_acc = true;
  for (const int32_t batch : {1, 4}) {
    c.batch = batch;
    FillPrepared(&random, &c, Numbers::kExtreme);
    c.bias.assign(18, 0);
    c.bias[4] = 1 << 30;
    c.bias[11] = INT32_MIN;
    ASSERT_TRUE(CheckPrepared(c));
    EXPECT_GT(testing::CountLines(c.Definition().lines).out_of_bounds, 0);
  }
  Ran(Path::kPreparedSumWarning);
}

// ---- Whole layers ------------------------------------------------------------------------------

template <typename Types>
class PreparedLayers : public ::testing::Test {};

TYPED_TEST_SUITE(PreparedLayers, testing::AllStoredTypes);

// Widths and shifts crossed, with biases around 2^w.
TYPED_TEST(PreparedLayers, WidthsAndShifts) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0xb1a5);
  for (int32_t width = 0; width <= 32; width += testing::Step(4)) {
    for (int32_t shift = 0; shift <= 31; shift += shift < 8 ? 1 : 3 * testing::Step(5)) {
      PreparedCase<In, Out> c;
      c.accumulator_size = width;
      c.mult_shift = shift;
      c.zero_point = random.Pick<int32_t>(
          {0, std::numeric_limits<In>::min(), std::numeric_limits<In>::max(), 3});
      c.use_fp16_acc = shift <= 6 && random.Between(0, 5) == 0;
      c.is_depthwise = random.Between(0, 3) == 0;
      c.rows = {3, 2, 1, 1, random.Between(0, 1), 0};
      c.columns = {5, 3, 1, 1, 1, random.Between(0, 2)};
      if (random.Flag()) testing::PlaceAsSame(&c);
      c.in_channels = random.Between(1, 5);
      c.out_channels = c.is_depthwise ? c.in_channels : random.Between(1, 18);
      FillPrepared(&random, &c, testing::DrawNumbers(&random));
      ASSERT_TRUE(CheckPrepared(c, std::nullopt));
    }
  }
}

// Products beyond the period of an accumulator, whose sums one wrap for each does not bring back:
// they grow to any magnitude, and the rescaling meets them.
TYPED_TEST(PreparedLayers, SumsFarOutsideTheAccumulator) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0xfa5);
  for (const int32_t width : {0, 1, 2, 7, 8, 12}) {
    for (const bool is_depthwise : {false, true}) {
      PreparedCase<In, Out> c;
      c.accumulator_size = width;
      c.is_depthwise = is_depthwise;
      c.zero_point = std::numeric_limits<In>::max();
      c.rows = {20, 18, 1, 1, 0, 0};
      c.columns = {20, 19, 1, 1, 0, 0};
      c.in_channels = is_depthwise ? 17 : 3;
      c.out_channels = 17;
      FillPrepared(&random, &c);
      c.input.assign(c.input.size(), std::numeric_limits<In>::min());
      for (int8_t& weight : c.filter) weight = static_cast<int8_t>(-1 - random.Between(0, 127));
      c.bias.clear();
      c.mode = {Rescaling::kTwoRoundings, 0, 0, -100, 100};
      c.multipliers = {width == 0 ? 0x1p-24 : 0x1.8p-25};
      ASSERT_TRUE(CheckPrepared(c));
    }
  }
}

// The bounds of a bias that the sums may begin with.
TYPED_TEST(PreparedLayers, BiasesAtTheirBounds) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0xb0b);
  for (const int32_t width : {15, 16, 20, 23, 24, 29, 30, 31, 32}) {
    const int64_t most = int64_t{1} << width;
    for (const int64_t bias : {most / 2, most - 1, most, most + 1, -most / 2 - 1, -most, -most - 1,
                               most + most / 2, int64_t{INT32_MIN}, int64_t{INT32_MAX}}) {
      if (bias < INT32_MIN || bias > INT32_MAX) continue;
      PreparedCase<In, Out> c;
      c.accumulator_size = width;
      c.columns.input = 4;
      c.in_channels = 40;
      c.out_channels = 17;
      FillPrepared(&random, &c, Numbers::kExtreme);
      c.bias.assign(17, random.Between(-100, 100));
      c.bias[static_cast<size_t>(random.Between(0, 16))] = static_cast<int32_t>(bias);
      c.multipliers = {0x1p-20, 0x1p-25};
      c.multipliers.resize(17, 0.75);
      ASSERT_TRUE(CheckPrepared(c, std::nullopt));
    }
  }
}

TYPED_TEST(PreparedLayers, RandomCases) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0xa11f);
  for (int round = 0; round < 200 / testing::Step(10); ++round) {
    const auto c = testing::DrawPrepared<In, Out>(&random);
    ASSERT_TRUE(CheckPrepared(c, std::nullopt, random.Between(0, 3)));
  }
}

// ---- One layer, many calls ---------------------------------------------------------------------

TEST(PreparedConvolution, SeveralThreadsCallALayerAtTheSameTime) {
  Random random(0x7a);
  for (const bool use_fp16_acc : {false, true}) {
    PreparedCase<int8_t, int8_t> c;
    c.rows = {6, 3, 1, 1, 1, 1};
    c.columns = {6, 3, 1, 1, 1, 1};
    c.in_channels = 8;
    c.out_channels = 24;
    c.use_fp16_acc = use_fp16_acc;
    FillForPlan(&random, &c);
    c.bias.clear();  // nothing is printed
    testing::ThreadParts two(2, 1);
    const auto layer = c.Prepare(&two);
    constexpr int kThreads = 4;
    std::vector<PreparedCase<int8_t, int8_t>> cases(kThreads, c);
    std::vector<std::vector<int8_t>> results(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      testing::DrawData(&random, &cases[static_cast<size_t>(t)], Numbers::kAny);
      threads.emplace_back([&, t] {
        const auto& own = cases[static_cast<size_t>(t)];
        std::vector<int8_t> out(static_cast<size_t>(own.count()));
        testing::ThreadParts workers(2, 1);
        for (int i = 0; i < 10; ++i) layer->Run(own.input.data(), 1, out.data(), &workers);
        results[static_cast<size_t>(t)] = out;
      });
    }
    for (std::thread& thread : threads) thread.join();
    for (size_t t = 0; t < kThreads; ++t) {
      const auto expected = cases[t].Definition();
      ASSERT_TRUE(testing::SameArrays(expected.values.data(), results[t].data(), c.count(),
                                      "several threads", [](int64_t) { return ""; }));
    }
  }
}

}  // namespace
}  // namespace bitfold
