// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Partial sums: worked examples at every boundary; then, on every target and with several pools of
// threads, random layers: the definition against the oracle, what is shared out against the
// definition.

#include "bitfold/HPartialSums.h"

#include <gtest/gtest.h>

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
