// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Prepared layers whose sums have 64 bits: worked examples; every way in which their sums are
// formed, forced, at the bounds between them; then sizes and windows, and random layers.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <vector>

#include "bitfold/product_scaling.h"
#include "cpu/exact_sums.h"
#include "support/prepared_check.h"
#include "support/prepared_draw.h"
#include "support/random.h"
#include "support/scale.h"

namespace bitfold {
namespace {

using testing::CheckPrepared;
using testing::Numbers;
using testing::PreparedCase;
using testing::Random;

template <typename In, typename Out>
WideSums SumsOf(const PreparedCase<In, Out>& c) {
  CallingThread calling_thread;
  return c.Prepare(&calling_thread)->wide_sums();
}

// What is drawn for a layer of 64 bits whose shape, shift and zero point are set: a bias within the
// sums, or of any bits.
template <typename In, typename Out>
void FillWide(Random* random, PreparedCase<In, Out>* c, Numbers numbers = Numbers::kAny) {
  c->accumulator_size = kWideAccumulator;
  FillPrepared(random, c, numbers);
  c->bias.clear();
  c->wide_bias.clear();
  const int bits = random->Between(0, 2) == 0 ? 63 : random->Between(0, 40);
  for (int32_t i = 0; i < c->out_channels; ++i) {
    const auto word = uint64_t{random->Bits()} << 32 | random->Bits();
    c->wide_bias.push_back(static_cast<int64_t>(word) >> (63 - bits));
  }
  if (random->Between(0, 5) == 0) c->wide_bias.clear();
  c->mode.rescaling = random->Flag() ? Rescaling::kShortMultiplier : Rescaling::kOneRounding;
  for (double& multiplier : c->multipliers)
    multiplier = testing::DrawMultiplier<Out>(random, c->mode, BitsOfSums(*c));
}

// ---- Worked examples ---------------------------------------------------------------------------

// Pixels of one row by one weight for each channel.
PreparedCase<int16_t, int16_t> Pixels(std::vector<int16_t> input, std::vector<int8_t> filter) {
  PreparedCase<int16_t, int16_t> c;
  c.accumulator_size = kWideAccumulator;
  c.in_channels = static_cast<int32_t>(filter.size());
  c.columns.input = static_cast<int32_t>(input.size() / filter.size());
  c.input = std::move(input);
  c.filter = std::move(filter);
  c.multipliers = {1.0};
  c.mode = {Rescaling::kOneRounding, 0, 0, INT16_MIN, INT16_MAX};
  return c;
}

std::vector<int> Outputs(const PreparedCase<int16_t, int16_t>& c) {
  EXPECT_TRUE(CheckPrepared(c));
  const auto out = c.Definition();
  return {out.values.data(), out.values.data() + out.values.count()};
}

TEST(PreparedWide, TheBiasHas64Bits) {
  auto c = Pixels({1, 2, 3, 4}, {10, 100});
  c.multipliers = {0x1p-36};
  c.wide_bias = {int64_t{3} << 36};
  EXPECT_EQ(Outputs(c), (std::vector<int>{3, 3}));
  c.mode.rescaling = Rescaling::kShortMultiplier;
  c.multipliers = {0x1p-31};
  c.wide_bias = {-5 * (int64_t{1} << 31) - (int64_t{1} << 30) - 211};
  EXPECT_EQ(Outputs(c), (std::vector<int>{-6, -5}));  // -5.5 less a little; halves go up
  c.wide_bias = {INT64_MAX};                          // the sum wraps, the rescaled one once more
  EXPECT_EQ(Outputs(c).size(), 2u);
}

TEST(PreparedWide, SumsBeyond32Bits) {
  auto c = Pixels(std::vector<int16_t>(2000, INT16_MIN), std::vector<int8_t>(2000, -128));
  c.multipliers = {0x1p-22};
  EXPECT_EQ(SumsOf(c), WideSums::kGroups);
  EXPECT_EQ(Outputs(c), (std::vector<int>{2000}));
  c.wide_bias = {-(int64_t{1} << 22)};
  EXPECT_EQ(Outputs(c), (std::vector<int>{1999}));
}

TEST(PreparedWide, AShiftDividesProductsAndBias) {
  auto c = Pixels({3, 5, -3, -5}, {1, 1});
  c.mult_shift = 1;
  EXPECT_EQ(Outputs(c), (std::vector<int>{8, -8}));  // (2 + 2) * 2
  c.wide_bias = {7};
  EXPECT_EQ(Outputs(c), (std::vector<int>{16, 0}));
  // The shift of products by 31 takes negative ones for -1, the division of the bias none.
  c.mult_shift = 31;
  c.multipliers = {0x1p-31};
  c.wide_bias = {-5};
  EXPECT_EQ(SumsOf(c), WideSums::kWideBias);
  EXPECT_EQ(Outputs(c), (std::vector<int>{0, -2}));
}

TEST(PreparedWide, HalvesOf64BitsGoToEven) {
  for (const int64_t high : {int64_t{0}, int64_t{1} << 40, -(int64_t{1} << 50)}) {
    for (int32_t shift = 1; shift <= 31; ++shift) {
      const int64_t unit = int64_t{1} << shift;
      const int64_t base = high / unit;
      EXPECT_EQ(ShiftRoundHalfToEven64(high + unit / 2, shift), base + (base & 1));
      EXPECT_EQ(ShiftRoundHalfToEven64(high + unit + unit / 2, shift), base + 2 - (base & 1));
      EXPECT_EQ(ShiftRoundHalfToEven64(high - unit / 2, shift), base - (base & 1));
      EXPECT_EQ(ShiftRoundHalfToEven64(high + unit / 2 + 1, shift), base + 1);
    }
  }
  EXPECT_EQ(ShiftRoundHalfToEven64(INT64_MIN, 31), -(int64_t{1} << 32));
  EXPECT_EQ(ShiftRoundHalfToEven64(INT64_MAX, 31), int64_t{1} << 32);
  EXPECT_EQ(ShiftRoundHalfToEven64(INT64_MIN, 0), INT64_MIN);
}

// ---- The bounds between the forms --------------------------------------------------------------

// Magnitudes of 32768 by weights that add up to `magnitudes`.
PreparedCase<int16_t, int16_t> AtBound(int32_t magnitudes, int sign) {
  std::vector<int8_t> filter;
  for (; magnitudes > 0; magnitudes -= 127) {
    filter.push_back(static_cast<int8_t>(sign * std::min(magnitudes, 127)));
  }
  auto c = Pixels(std::vector<int16_t>(filter.size(), INT16_MIN), filter);
  c.multipliers = {0x1p-17};
  return c;
}

TEST(PreparedWide, WhatIsProvenToFit) {
  constexpr int32_t kMost = 65535;  // times 2^15, 2^31 - 2^15
  for (const int sign : {1, -1}) {
    auto fits = AtBound(kMost, sign);
    EXPECT_EQ(SumsOf(fits), WideSums::kNarrow);
    EXPECT_EQ(Outputs(fits), (std::vector<int>{-sign * 16384}));
    for (const int64_t bias : {32767, -32767}) {
      fits.wide_bias = {bias};
      EXPECT_EQ(SumsOf(fits), WideSums::kNarrow);
      ASSERT_TRUE(CheckPrepared(fits));
    }
    for (const int64_t bias : {int64_t{32768}, int64_t{-32768}, INT64_MAX, INT64_MIN}) {
      fits.wide_bias = {bias};
      EXPECT_EQ(SumsOf(fits), WideSums::kWideBias);
      ASSERT_TRUE(CheckPrepared(fits));
    }
    auto beyond = AtBound(kMost + 1, sign);
    EXPECT_EQ(SumsOf(beyond), WideSums::kGroups);
    EXPECT_EQ(Outputs(beyond), (std::vector<int>{-sign * 16384}));
    beyond.wide_bias = {100};
    EXPECT_EQ(SumsOf(beyond), WideSums::kGroups);
    ASSERT_TRUE(CheckPrepared(beyond));
  }
}

TEST(PreparedWide, GroupsOfChannels) {
  const auto groups_of = [](const PreparedCase<int16_t, int16_t>& c) {
    std::vector<int32_t> ends;
    for (const ChannelGroup& g : ExactSumsOf(c.Layer(), 32768).groups) ends.push_back(g.end);
    return ends;
  };
  auto c = Pixels(std::vector<int16_t>(1100), std::vector<int8_t>(1100, -128));
  EXPECT_EQ(groups_of(c), (std::vector<int32_t>{511, 1022, 1100}));
  c = Pixels(std::vector<int16_t>(3), {1, 2, 3});
  EXPECT_EQ(groups_of(c), (std::vector<int32_t>{3}));
  EXPECT_EQ(ExactSumsOf(c.Layer(), 32768).largest, (std::vector<int64_t>{6 * 32768}));
  c.mult_shift = 17;
  EXPECT_EQ(ExactSumsOf(c.Layer(), 32768).largest, (std::vector<int64_t>{3}));  // each rounded up
  c.mult_shift = 0;
  c.columns = {600, 511, 1, 1, 0, 0};
  c.in_channels = 2;
  c.filter.assign(1022, -128);
  EXPECT_EQ(groups_of(c), (std::vector<int32_t>{1, 2}));
  c.columns.taps = 512;
  c.filter.assign(1024, -128);
  EXPECT_EQ(groups_of(c), (std::vector<int32_t>{}));
  c.is_depthwise = true;
  c.out_channels = 2;
  EXPECT_EQ(groups_of(c), (std::vector<int32_t>{}));
  c.columns.taps = 511;
  c.filter.resize(1022);
  EXPECT_EQ(groups_of(c), (std::vector<int32_t>{2}));
}

// Where no groups of dot products do it.
TEST(PreparedWide, LeftToTheDefinition) {
  Random random(0xdef);
  for (const int kind : {0, 1, 2, 3}) {
    PreparedCase<int16_t, int16_t> c;
    c.batch = 3;
    c.out_channels = 2;
    if (kind < 2) {  // taps of one channel
      c.columns = {514, 513, 1, 1, 0, 0};
      c.is_depthwise = kind == 1;
      c.in_channels = 2;
    } else {
      c.in_channels = 1200;
      (kind == 2 ? c.zero_point : c.mult_shift) = 1;
    }
    FillWide(&random, &c, Numbers::kExtreme);
    c.filter.assign(c.filter.size(), INT8_MIN);
    EXPECT_EQ(SumsOf(c), WideSums::kDefinition);
    ASSERT_TRUE(CheckPrepared(c));
  }
}

// ---- Whole layers ------------------------------------------------------------------------------

template <typename Types>
class WideLayers : public ::testing::Test {};

template <typename Input, typename Output>
struct Types {
  using In = Input;
  using Out = Output;
};
using AllTypes = ::testing::Types<Types<int8_t, int8_t>, Types<int8_t, int16_t>,
                                  Types<int16_t, int8_t>, Types<int16_t, int16_t>>;
TYPED_TEST_SUITE(WideLayers, AllTypes);

// Sums that 32 bits hold, with biases of all bits.
TYPED_TEST(WideLayers, SizesAndWideBiases) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0xb1a5ed);
  for (int32_t channels = 1; channels <= 65; channels += testing::Step(5)) {
    for (const bool is_depthwise : {false, true}) {
      PreparedCase<In, Out> c;
      c.batch = random.Between(1, 3);
      c.is_depthwise = is_depthwise;
      c.rows = testing::DrawAxis(&random);
      c.columns = testing::DrawAxis(&random);
      if (random.Flag()) testing::PlaceAsSame(&c);
      c.in_channels = is_depthwise ? channels : random.Between(1, 20);
      c.out_channels = is_depthwise ? random.Between(1, channels) : channels;
      c.mult_shift = random.Flag() ? 0 : random.Between(0, 31);
      c.zero_point = random.Flag() ? 0 : random.Between(-128, 127);
      FillWide(&random, &c, testing::DrawNumbers(&random));
      if (c.wide_bias.empty()) c.wide_bias.resize(static_cast<size_t>(c.out_channels));
      c.wide_bias.back() = int64_t{1} << random.Between(32, 62);
      EXPECT_EQ(SumsOf(c), WideSums::kWideBias);
      ASSERT_TRUE(CheckPrepared(c, std::nullopt, random.Between(0, 3)));
    }
  }
}

// Sums of groups under windows of every kind; pixels that are one long row; panels that are shared.
TYPED_TEST(WideLayers, WindowsOfGroups) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  constexpr int32_t kChannels = std::is_same_v<In, int8_t> ? 90000 : 1100;
  Random random(0x96097);
  const std::vector<LayerAxis> axes = {{1, 1, 1, 1, 0, 0}, {3, 1, 1, 1, 0, 0}, {4, 2, 1, 1, 1, 0},
                                       {5, 2, 2, 1, 0, 1}, {3, 2, 1, 2, 1, 1}, {4, 3, 3, 1, 1, 1}};
  size_t turn = 0;
  for (const LayerAxis& rows : axes) {
    for (const LayerAxis& columns : axes) {
      if (turn++ % static_cast<size_t>(testing::Step(3)) != 0) continue;
      // Bytes take so many channels that few windows are left time for.
      if (sizeof(In) == 1 && rows.taps * columns.taps * rows.input * columns.input > 3) continue;
      PreparedCase<In, Out> c;
      c.rows = rows;
      c.columns = columns;
      c.batch = random.Between(1, 2);
      c.in_channels = kChannels + random.Between(0, 5);
      if (sizeof(In) == 1) c.zero_point = INT8_MAX;
      c.out_channels = sizeof(In) == 1 ? 2 : random.Pick<int32_t>({1, 3, 15, 16, 17, 33});
      FillWide(&random, &c);
      std::transform(c.filter.begin(), c.filter.end(), c.filter.begin(),
                     [](int8_t w) { return static_cast<int8_t>(w < 0 ? w / 4 - 96 : w / 4 + 96); });
      EXPECT_EQ(SumsOf(c), WideSums::kGroups);
      ASSERT_TRUE(CheckPrepared(c, std::nullopt, random.Between(0, 3)));
    }
  }
}

// So many outputs that blocks of lines, and panels of one block, are shared.
TEST(PreparedWide, ManyOutputsOfGroups) {
  Random random(0x3a97);
  for (const bool is_pixelwise : {false, true}) {
    PreparedCase<int16_t, int8_t> c;
    c.in_channels = 1050;
    c.out_channels = is_pixelwise ? 20 : 150;
    c.batch = is_pixelwise ? 2 : 1;
    c.rows = is_pixelwise ? LayerAxis{11, 1, 1, 1, 0, 0} : LayerAxis{3, 2, 1, 1, 1, 0};
    c.columns = is_pixelwise ? LayerAxis{7, 1, 1, 1, 0, 0} : LayerAxis{2, 1, 1, 1, 0, 0};
    FillWide(&random, &c);
    for (size_t i = 0; i < c.filter.size(); i += static_cast<size_t>(c.out_channels)) {
      c.filter[i] = INT8_MIN;
    }
    EXPECT_EQ(SumsOf(c), WideSums::kGroups);
    ASSERT_TRUE(CheckPrepared(c));
  }
}

TYPED_TEST(WideLayers, RandomCases) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0x64b175);
  for (int round = 0; round < 120 / testing::Step(6); ++round) {
    auto c = testing::DrawPrepared<In, Out>(&random);
    c.use_fp16_acc = false;
    FillWide(&random, &c, testing::DrawNumbers(&random));
    ASSERT_TRUE(CheckPrepared(c, std::nullopt, random.Between(0, 3)));
  }
}

}  // namespace
}  // namespace bitfold
