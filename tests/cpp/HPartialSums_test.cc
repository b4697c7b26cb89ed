// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Partial sums: worked examples at every boundary; then, on every target and with several pools of
// threads, random layers: the definition against the oracle, what is shared out against the
// definition.

#include "bitfold/HPartialSums.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "bitfold/product_scaling.h"
#include "support/partial_sums_check.h"
#include "support/partial_sums_draw.h"
#include "support/scale.h"

namespace bitfold {
namespace {

using testing::CheckPartialSums;
using testing::PartialSumsCase;
using testing::Random;
using Values = std::vector<int64_t>;

// ---- The addend --------------------------------------------------------------------------------

TEST(PartialSums, AddendsAreRoundedAsTheShifterDoes) {
  Random random(0xadde);
  for (int32_t shift = 0; shift <= kMostSummedShift; ++shift) {
    for (int i = 0; i < 1000; ++i) {
      const int32_t x = static_cast<int32_t>(random.Bits()) >> random.Between(0, 31);
      ASSERT_EQ(ScaledAddend(x, shift), ShiftRoundHalfToEven(x, shift)) << x << " by " << shift;
    }
  }
}

TEST(PartialSums, AddendsBeyond32Bits) {
  constexpr int64_t kOne = 1;
  EXPECT_EQ(ScaledAddend(kLargestSummedBias, 0), kOne << 62);
  EXPECT_EQ(ScaledAddend(kLargestSummedBias, 30), kOne << 32);
  EXPECT_EQ(ScaledAddend(-kLargestSummedBias, 30), -(kOne << 32));
  EXPECT_EQ(ScaledAddend((kOne << 40) + 1, 1), kOne << 39);  // the half goes to the even one
  EXPECT_EQ(ScaledAddend((kOne << 40) + 3, 1), (kOne << 39) + 2);
  EXPECT_EQ(ScaledAddend(-(kOne << 40) - 1, 1), -(kOne << 39));
}

// ---- Worked examples ---------------------------------------------------------------------------

// A sum of numbers under weights of 1.
PartialSumsCase<int8_t, int8_t> Chain(std::vector<int8_t> numbers, std::vector<int32_t> sizes) {
  PartialSumsCase<int8_t, int8_t> c;
  c.in_channels = static_cast<int32_t>(numbers.size());
  c.filter.assign(numbers.size(), 1);
  c.input = std::move(numbers);
  c.sizes = std::move(sizes);
  return c;
}

// The tables one after the other: extremes, counts, first.
template <typename In, typename Weight>
Values Found(const PartialSumsCase<In, Weight>& c) {
  EXPECT_TRUE(CheckPartialSums(c));
  const auto found = c.Definition();
  return {found.data(), found.data() + found.count()};
}

TEST(PartialSums, SumsThatLeaveAndReturn) {
  // 100, 200, 110
  EXPECT_EQ(Found(Chain({100, 100, -90}, {8, 9})),
            (Values{110, 110, 100, 200, 0, 1, 1, 0, 0, 0, 2, 0}));
  // -100, -200, -110, -10
  EXPECT_EQ(Found(Chain({-100, -100, 90, 100}, {8})), (Values{-10, -10, -200, -10, 0, 1, 1, 2}));
}

TEST(PartialSums, SumsThatEndOutside) {
  EXPECT_EQ(Found(Chain({100, 100}, {8})), (Values{200, 200, 100, 200, 1, 1, 1, 2}));
  EXPECT_EQ(Found(Chain({-100, -100, -1}, {8})), (Values{-201, -201, -201, -100, 1, 1, 2, 2}));
}

TEST(PartialSums, TheLimitsAreInside) {
  EXPECT_EQ(Found(Chain({127}, {8})), (Values{127, 127, 127, 127, 0, 0, 0, 0}));
  EXPECT_EQ(Found(Chain({-128}, {8})), (Values{-128, -128, -128, -128, 0, 0, 0, 0}));
  EXPECT_EQ(Found(Chain({127, 1}, {8})), (Values{128, 128, 127, 128, 1, 1, 1, 2}));
  EXPECT_EQ(Found(Chain({-128, -1}, {8})), (Values{-129, -129, -129, -128, 1, 1, 1, 2}));
}

TEST(PartialSums, TheNarrowestWidthAndTheWidest) {
  // One bit holds -1 and 0.
  EXPECT_EQ(Found(Chain({-1, 1, 1}, {1, 32})), (Values{1, 1, -1, 1, 1, 1, 1, 0, 0, 0, 3, 0}));
  auto c = Chain({1}, {32, 31});
  c.bias = {INT32_MAX - 1};
  EXPECT_EQ(Found(c), (Values{INT32_MAX, INT32_MAX, 1, INT32_MAX, 0, 0, 0, 1, 1, 1, 0, 2}));
  c.bias = {INT32_MAX};
  EXPECT_EQ(Found(c)[4], 1);  // 2^31
  c.input = {-1};
  c.bias = {INT32_MIN + int64_t{1}};
  EXPECT_EQ(Found(c)[4], 0);
  c.bias = {INT32_MIN};
  EXPECT_EQ(Found(c)[4], 1);
}

TEST(PartialSums, AddendsAboveTheWholeRange) {
  auto c = Chain({127, -127}, {4, 12});
  c.filter = {127, 127};  // 16129 is above 2^12
  EXPECT_EQ(Found(c), (Values{0, 0, 0, 16129, 0, 1, 1, 0, 1, 1, 1, 1}));
}

TEST(PartialSums, TheBiasIsTheLastAddend) {
  auto c = Chain({3}, {8, 40 - 8});
  c.bias = {int64_t{1} << 40};
  const int64_t sum = (int64_t{1} << 40) + 3;
  EXPECT_EQ(Found(c), (Values{sum, sum, 3, sum, 1, 1, 1, 1, 1, 1, 2, 2}));
  c.bias = {-(int64_t{1} << 62)};
  EXPECT_EQ(Found(c)[0], 3 - (int64_t{1} << 62));
}

TEST(PartialSums, AShiftDividesEveryAddend) {
  auto c = Chain({3, 3, 1}, {3});
  c.mult_shift = 1;
  c.bias = {-9};  // 2, 4, 4, 0
  EXPECT_EQ(Found(c), (Values{0, 0, 0, 4, 0, 1, 2, 2}));
}

TEST(PartialSums, ZeroPoints) {
  PartialSumsCase<int16_t, int16_t> c;
  c.input = {-32768};
  c.filter = {-32768};
  c.input_zero_point = c.filter_zero_point = 32767;
  c.sizes = {32};
  const int64_t sum = int64_t{65535} * 65535;
  EXPECT_EQ(Found(c), (Values{sum, sum, sum, sum, 1, 1, 1, 1}));
}

// A zero is an addend, and a partial sum of its own; what lies beyond is none.
TEST(PartialSums, ZerosAndWhatLiesBeyond) {
  PartialSumsCase<int8_t, int8_t> c;
  c.columns = {1, 3, 1, 1, 0, 0, Padding::kSame};
  c.rows.padding = Padding::kSame;
  c.input = {100};
  c.filter = {1, 2, 1};
  c.sizes = {8};
  EXPECT_EQ(Found(c), (Values{200, 200, 200, 200, 1, 1, 1, 1}));
  c.columns = {1, 3, 1, 1, 1, 1};
  c.rows.padding = Padding::kValid;
  EXPECT_EQ(Found(c), (Values{200, 200, 0, 200, 1, 1, 2, 2}));
}

TEST(PartialSums, WindowsWithoutAddends) {
  PartialSumsCase<int8_t, int8_t> c;
  c.columns = {2, 2, 1, 6, 0, 0, Padding::kSame};  // both taps lie beyond the image
  c.rows.padding = Padding::kSame;
  c.input = {100, 100};
  c.filter = {1, 1};
  c.sizes = {1};
  EXPECT_EQ(Found(c), (Values{0, 0, 0, 0, 0, 0, 0, 0}));
  c.bias = {-7};
  EXPECT_EQ(Found(c), (Values{-7, -7, -7, -7, 2, 2, 2, 1}));
}

TEST(PartialSums, NoImages) {
  auto c = Chain({1}, {8});
  c.batch = 0;
  c.input = {};
  constexpr int64_t kMost = std::numeric_limits<int64_t>::max();
  EXPECT_EQ(Found(c), (Values{kMost, -kMost - 1, kMost, -kMost - 1, 0, 0, 0, 0}));
}

TEST(PartialSums, WhatWasKnownStays) {
  auto c = Chain({100, 100, -90}, {8});
  c.known = {-5, 0, 105, 150};
  EXPECT_EQ(Found(c), (Values{-5, 110, 100, 200, 0, 1, 1, 2}));
  c.known = {INT64_MIN, INT64_MAX, INT64_MIN, INT64_MAX};
  EXPECT_EQ(Found(c), (Values{INT64_MIN, INT64_MAX, INT64_MIN, INT64_MAX, 0, 1, 1, 2}));
}

TEST(PartialSums, AFilterForEachImage) {
  PartialSumsCase<int8_t, int16_t> c;
  c.batch = c.filters = 2;
  c.in_channels = 2;
  c.input = {1, 2, 3, 4};
  c.filter = {10, 20, -100, 7};
  EXPECT_EQ(Found(c), (Values{28 - 300, 50, -300, 50}));
}

// ---- Segments ----------------------------------------------------------------------------------

// A layer whose sums are mostly far from its extremes, as those of networks are: what is known, and
// the widths, decide which segments are quiet, stepped through or counted as a whole.
PartialSumsCase<int8_t, int8_t> DrawLayer(Random* random, int32_t taps, int32_t channels) {
  PartialSumsCase<int8_t, int8_t> c;
  c.rows = {4, taps, 1, 1, 0, 0, Padding::kSame};
  c.columns = {16, taps, 1, 1, 0, 0, Padding::kSame};
  c.batch = 2;
  c.in_channels = channels;
  c.out_channels = 36;
  c.input_zero_point = -128;
  for (int64_t i = c.InputElements(); i > 0; --i) {
    c.input.push_back(static_cast<int8_t>(random->Flag() ? -128 : random->Between(-128, -30)));
  }
  for (int64_t i = c.FilterElements(); i > 0; --i) {
    c.filter.push_back(static_cast<int8_t>(random->Between(-60, 60)));
  }
  return c;
}

TEST(PartialSums, EveryWidthOfALayer) {
  Random random(0x3e9);
  for (const auto& [taps, channels] : std::vector<std::pair<int32_t, int32_t>>{
           {1, 70}, {3, 7}, {3, 20}, {2, 3}, {16, 1}, {17, 1}}) {
    auto c = DrawLayer(&random, taps, channels);
    if (taps == 3) c.bias.assign(36, channels == 7 ? 2000 : -(1 << 20));
    for (int32_t size = 8; size <= 20; size += 2 * testing::Step(3)) {
      c.sizes = {size};
      c.known.clear();
      ASSERT_TRUE(CheckPartialSums(c)) << size << " bits, nothing known";
      const auto found = c.Definition();
      c.known.assign(found.data(), found.data() + kSumExtremes * c.out_channels);
      ASSERT_TRUE(CheckPartialSums(c)) << size << " bits, all known";
      for (size_t i = 0; i < c.known.size(); ++i) {
        c.known[i] = i / 36 % 2 == 0 ? INT64_MIN : INT64_MAX;
      }
      c.sizes = {size, size + 2, 32};
      ASSERT_TRUE(CheckPartialSums(c)) << size << " bits and two more, extremes not asked for";
    }
  }
}

// Numbers of both signs; several pixels a row, and images of one pixel.
TEST(PartialSums, NumbersOfBothSigns) {
  Random random(0xb07);
  for (const auto& [taps, channels] : std::vector<std::pair<int32_t, int32_t>>{{1, 70}, {3, 7}}) {
    auto c = DrawLayer(&random, taps, channels);
    c.input_zero_point = -90;
    for (int32_t size = 10; size <= 16; size += 2) {
      c.sizes = {size};
      c.known.clear();
      ASSERT_TRUE(CheckPartialSums(c)) << size << " bits, nothing known";
      const auto found = c.Definition();
      c.known.assign(found.data(), found.data() + kSumExtremes * c.out_channels);
      ASSERT_TRUE(CheckPartialSums(c)) << size << " bits, all known";
    }
    if (taps != 1) continue;
    c.batch *= c.rows.input * c.columns.input;
    c.rows.input = c.columns.input = 1;
    ASSERT_TRUE(CheckPartialSums(c)) << "images of one pixel";
  }
}

// Two addends that rise as far as they fall reach their bound, of either sign, also by the weight
// whose magnitude no byte with a sign holds.
TEST(PartialSums, BoundsThatAreReached) {
  for (const int weight : {-128, -127, 127}) {
    auto c = Chain({127, 127}, {});
    c.input_zero_point = -128;
    c.filter = {static_cast<int8_t>(weight), static_cast<int8_t>(weight < 0 ? 127 : -127)};
    const int64_t reached = 255 * weight;
    const int64_t end = reached + int64_t{255} * c.filter[1];
    for (const int64_t less : {0, 1, 200}) {
      const int64_t known = weight < 0 ? reached + less : reached - less;
      c.known = {end, end, std::min(known, int64_t{-1000}), std::max(known, int64_t{1000})};
      const auto found = Found(c);
      EXPECT_EQ(found[weight < 0 ? 2 : 3], reached) << less;
    }
  }
}

// Sums as large as they may be for dot products and for 32 bits, and one step more.
TEST(PartialSums, TheLongestChains) {
  for (const int32_t channels : {16447, 16448, 16449, 32895, 32896, 33152}) {
    PartialSumsCase<int8_t, int8_t> c;
    c.in_channels = channels;
    c.out_channels = 2;
    c.input_zero_point = 127;
    c.input.assign(static_cast<size_t>(channels), -128);
    c.filter.assign(static_cast<size_t>(2 * channels), -128);
    c.filter[1] = 127;
    c.sizes = {24, 31, 32};
    c.bias = {int64_t{1} << 40, -5};
    ASSERT_TRUE(CheckPartialSums(c)) << channels;
  }
}

// ---- Random layers -----------------------------------------------------------------------------

template <typename In, typename Weight>
void CheckRandom(uint64_t seed, int rounds) {
  Random random(seed);
  for (int i = 0; i < rounds / testing::Step(7); ++i) {
    const auto c = testing::DrawPartialSums<In, Weight>(&random);
    ASSERT_TRUE(CheckPartialSums(c, random.Between(0, 3))) << "round " << i;
  }
}

TEST(PartialSums, RandomBytes) { CheckRandom<int8_t, int8_t>(0x5008, 400); }
TEST(PartialSums, RandomBytesByShorts) { CheckRandom<int8_t, int16_t>(0x5816, 100); }
TEST(PartialSums, RandomShortsByBytes) { CheckRandom<int16_t, int8_t>(0x1608, 100); }
TEST(PartialSums, RandomShorts) { CheckRandom<int16_t, int16_t>(0x1616, 100); }

}  // namespace
}  // namespace bitfold
