// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What an array is known to be, and the packed forms of whole numbers: on every target against
// plain loops, at the sizes and misalignments at which vector loops turn.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "bitfold/int32_arithmetic.h"
#include "chain/facts.h"
#include "chain/lane_tile.h"
#include "chain/pack.h"
#include "support/buffer.h"
#include "support/compare.h"
#include "support/random.h"
#include "support/tables.h"
#include "support/targets.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::ExactBuffer;
using testing::Random;

constexpr float kTwoTo24 = 16777216.0f;
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

// Around every lane width and the step at which fractions are looked for.
std::vector<int> FactsSizes() {
  std::vector<int> sizes = testing::LaneSizes();
  sizes.insert(sizes.end(), {4095, 4096, 4097, 8191, 8192, 8193});
  return sizes;
}

// Places in an array at which a number is easily missed.
std::vector<int> Places(int size) {
  std::vector<int> places;
  for (const int i :
       {0, 1, 7, 8, 15, 16, 31, 32, 63, 64, 4094, 4095, 4096, 4097, size / 2, size - 2, size - 1}) {
    if (0 <= i && i < size) places.push_back(i);
  }
  return places;
}

// Everything by itself, as the definition of the facts says.
bool IsWhole(float x) { return std::fabs(x) <= kTwoTo24 && x == std::trunc(x); }
bool IsWhole(int32_t) { return true; }

template <typename T>
Facts Expected(const ExactBuffer<T>& x) {
  Facts facts;
  for (int64_t i = 0; i < x.count(); ++i) {
    if (!IsWhole(x[i])) return {false, 0, 0};
    facts.min = std::min(facts.min, static_cast<int64_t>(x[i]));
    facts.max = std::max(facts.max, static_cast<int64_t>(x[i]));
  }
  return facts;
}

// The bounds mean nothing where not all are whole.
::testing::AssertionResult SameFacts(const Facts& expected, const Facts& actual) {
  if (expected.is_whole == actual.is_whole && expected.min == actual.min &&
      expected.max == actual.max) {
    return ::testing::AssertionSuccess();
  }
  if (!expected.is_whole && !actual.is_whole) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "expected " << expected.is_whole << " [" << expected.min << ", " << expected.max
         << "], got " << actual.is_whole << " [" << actual.min << ", " << actual.max << "]";
}

template <typename T>
::testing::AssertionResult CheckFacts(const ExactBuffer<T>& x) {
  const Facts expected = Expected(x);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    auto same = SameFacts(expected, FactsOf(x.data(), x.count()));
    if (!same) return same << ", " << name << ", of " << x.count();
  }
  return ::testing::AssertionSuccess();
}

// ---- Facts -------------------------------------------------------------------------------------

TEST(ChainFacts, Bounds) {
  const Facts facts = {true, -5, 3};
  EXPECT_EQ(facts.Magnitude(), 5);
  EXPECT_EQ((Facts{true, -5, 6}).Magnitude(), 6);
  EXPECT_EQ((Facts{true, INT32_MIN, INT32_MAX}).Magnitude(), int64_t{1} << 31);
  EXPECT_TRUE(facts.LieIn(-5, 3));
  EXPECT_FALSE(facts.LieIn(-4, 3));
  EXPECT_FALSE(facts.LieIn(-5, 2));
  EXPECT_EQ(Facts{}.Magnitude(), 0);
}

TEST(ChainFacts, ZeroIsTakenIn) {
  const std::vector<int32_t> words = {5, 9};
  const Facts facts = FactsOf(words.data(), 2);
  EXPECT_EQ(facts.min, 0);
  EXPECT_EQ(facts.max, 9);
  const std::vector<float> floats = {-5.0f, -9.0f};
  EXPECT_EQ(FactsOf(floats.data(), 2).max, 0);
  EXPECT_EQ(FactsOf(floats.data(), 2).min, -9);
}

// One number alone among zeros, anywhere.
template <typename T>
void FindsEverywhere(const std::vector<T>& numbers) {
  for (const int size : FactsSizes()) {
    for (const int place : Places(size)) {
      for (const T number : numbers) {
        ExactBuffer<T> x(size, place % 4);
        x[place] = number;
        ASSERT_TRUE(CheckFacts(x)) << testing::Show(number) << " at " << place;
      }
    }
  }
}

TEST(ChainFacts, ExtremesAnywhere) {
  FindsEverywhere<int32_t>({1, -1, INT32_MAX, INT32_MIN});
  FindsEverywhere<float>({-0.0f, -1.0f, kTwoTo24, -kTwoTo24, kTwoTo24 - 1.0f});
}

TEST(ChainFacts, FractionsAnywhere) {
  FindsEverywhere<float>({0.5f, -8388607.5f, 1e-45f, kTwoTo24 + 2.0f, -kInfinity, kNan, -kNan});
}

// Each alone, so that a large one does not hide another.
TEST(ChainFacts, BoundariesAlone) {
  std::vector<float> numbers = testing::FloatBoundaries();
  for (const float x : testing::FloatBoundaries()) numbers.push_back(std::trunc(x));
  for (const float x : numbers) {
    ExactBuffer<float> alone(std::vector<float>{x});
    ASSERT_TRUE(CheckFacts(alone)) << testing::Show(x);
    ExactBuffer<float> among(std::vector<float>(40, x), 1);
    ASSERT_TRUE(CheckFacts(among)) << testing::Show(x);
  }
  for (const int32_t x : testing::Int32Boundaries()) {
    ASSERT_TRUE(CheckFacts(ExactBuffer<int32_t>(std::vector<int32_t>(17, x), 3)));
  }
}

TEST(ChainFacts, DrawnNumbers) {
  Random random(0xfac7);
  for (const int size : FactsSizes()) {
    for (int offset = 0; offset < 4; ++offset) {
      std::vector<int32_t> words;
      std::vector<float> whole;
      for (int i = 0; i < size; ++i) {
        words.push_back(static_cast<int32_t>(random.Bits()));
        whole.push_back(static_cast<float>(random.Between(-(1 << 24), 1 << 24)));
      }
      ASSERT_TRUE(CheckFacts(ExactBuffer<int32_t>(words, offset)));
      ASSERT_TRUE(CheckFacts(ExactBuffer<float>(whole, offset)));
    }
  }
}

// ---- Packed forms ------------------------------------------------------------------------------

// Numbers of a range, its ends first.
template <typename T>
std::vector<T> Numbers(Random* random, int64_t count, int32_t low, int32_t high) {
  std::vector<T> numbers;
  for (int64_t i = 0; i < count; ++i) {
    const int32_t x = i == 0 ? low : i == 1 ? high : random->Between(low, high);
    numbers.push_back(static_cast<T>(x));
  }
  return numbers;
}

template <typename T>
void CheckPackBytes(Random* random, int size, int offset, int32_t added) {
  const ExactBuffer<T> x(Numbers<T>(random, size, -added, 255 - added), offset);
  ExactBuffer<uint8_t> out(size, offset + 1);
  ASSERT_TRUE(PackBytes(x.data(), size, added, out.data()));
  for (int i = 0; i < size; ++i) {
    ASSERT_EQ(static_cast<int32_t>(out[i]), static_cast<int32_t>(x[i]) + added)
        << i << " of " << size;
  }
}

template <typename T>
void CheckPackShorts(Random* random, int size, int offset) {
  const ExactBuffer<T> x(Numbers<T>(random, size, INT16_MIN, INT16_MAX), offset);
  ExactBuffer<int16_t> out(size, offset + 1);
  PackShorts(x.data(), size, 0, out.data());
  for (int i = 0; i < size; ++i) {
    ASSERT_EQ(static_cast<int32_t>(out[i]), static_cast<int32_t>(x[i])) << i << " of " << size;
  }
}

template <typename T>
void CheckPacks() {
  Random random(0x9ac);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (const int size : testing::LaneSizes()) {
      for (int offset = 0; offset < 4; ++offset) {
        ASSERT_NO_FATAL_FAILURE(CheckPackBytes<T>(&random, size, offset, 0)) << name;
        ASSERT_NO_FATAL_FAILURE(CheckPackBytes<T>(&random, size, offset, 128)) << name;
        ASSERT_NO_FATAL_FAILURE(CheckPackShorts<T>(&random, size, offset)) << name;
      }
    }
  }
}

TEST(ChainPack, Images) {
  CheckPacks<int32_t>();
  CheckPacks<float>();
}

// Columns with something between them, and without.
template <typename T, typename Number>
void CheckColumns(Random* random, int32_t count, int32_t between, int32_t offset) {
  constexpr bool kIsShort = sizeof(Number) == 2;
  const int32_t columns = random->Between(1, 5);
  const int32_t stride = count + between;
  const int32_t low = kIsShort ? INT16_MIN / 2 : -offset;
  const int32_t high = kIsShort ? INT16_MAX / 2 : 255 - offset;
  const ExactBuffer<T> x(Numbers<T>(random, (columns - 1) * stride + count, low, high),
                         random->Between(0, 3));
  ExactBuffer<Number> out(int64_t{columns} * count, random->Between(0, 3));
  PackColumns(x.data(), ColumnShape{columns, stride, count}, offset, out.data());
  for (int32_t i = 0; i < columns * count; ++i) {
    const T number = x[i / count * stride + i % count];
    ASSERT_EQ(static_cast<int32_t>(out[i]), static_cast<int32_t>(number) + offset)
        << "number " << i << " of columns of " << count;
  }
}

template <typename T>
void CrossColumns() {
  Random random(0xc01);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (const int count : testing::LaneSizes()) {
      if (count == 0) continue;
      for (const int32_t between : {0, 1, 7, count}) {
        ASSERT_NO_FATAL_FAILURE((CheckColumns<T, uint8_t>(&random, count, between, 128))) << name;
        ASSERT_NO_FATAL_FAILURE((CheckColumns<T, int16_t>(&random, count, between, 0))) << name;
        ASSERT_NO_FATAL_FAILURE((CheckColumns<T, int16_t>(&random, count, between, -300))) << name;
      }
    }
  }
}

TEST(ChainPack, Columns) {
  CrossColumns<int32_t>();
  CrossColumns<float>();
}

// `taps` arrays side by side in words, each number by itself; a word's others are 0.
template <typename T, typename Each>
void CheckTaps(Random* random, int32_t taps, int size) {
  constexpr bool kIsShort = sizeof(Each) == 2;
  const int32_t low = std::numeric_limits<Each>::min();
  const int32_t high = std::numeric_limits<Each>::max();
  std::vector<ExactBuffer<T>> arrays;
  std::vector<const T*> x;
  for (int32_t k = 0; k < taps; ++k) {
    arrays.emplace_back(Numbers<T>(random, size, low, high), k);
    x.push_back(arrays.back().data());
  }
  ExactBuffer<int32_t> out(size, random->Between(0, 3));
  kIsShort ? PackTapShorts(x.data(), taps, size, out.data())
           : PackTapBytes(x.data(), taps, size, out.data());
  for (int i = 0; i < size; ++i) {
    Each numbers[4 / sizeof(Each)];
    std::memcpy(numbers, out.data() + i, sizeof numbers);
    for (size_t k = 0; k < 4 / sizeof(Each); ++k) {
      const bool is_tap = static_cast<int32_t>(k) < taps;
      const int32_t expected = is_tap ? static_cast<int32_t>(arrays[k][i]) : 0;
      ASSERT_EQ(static_cast<int32_t>(numbers[k]), expected) << i << " of " << size << ", tap " << k;
    }
  }
}

template <typename T>
void CrossTaps() {
  Random random(0x7a9);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (const int size : testing::LaneSizes()) {
      for (int32_t taps = 1; taps <= 4; ++taps) {
        ASSERT_NO_FATAL_FAILURE((CheckTaps<T, int8_t>(&random, taps, size))) << name;
        if (taps > 2) continue;
        ASSERT_NO_FATAL_FAILURE((CheckTaps<T, int16_t>(&random, taps, size))) << name;
      }
    }
  }
}

TEST(ChainPack, Taps) {
  CrossTaps<int32_t>();
  CrossTaps<float>();
}

template <typename T>
void CheckSums() {
  Random random(0x5a5);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (const int size : testing::LaneSizes()) {
      const ExactBuffer<T> x(Numbers<T>(&random, size, -(1 << 24), 1 << 24), 1);
      ExactBuffer<int32_t> sums(size, 2);
      std::fill_n(sums.data(), size, INT32_MAX - 5);
      AddNumbers(x.data(), size, sums.data());
      for (int i = 0; i < size; ++i) {
        ASSERT_EQ(sums[i], WrapAdd(INT32_MAX - 5, static_cast<int32_t>(x[i]))) << name << i;
      }
    }
  }
}

TEST(ChainPack, Sums) {
  CheckSums<int32_t>();
  CheckSums<float>();
}

// Each number of a word by itself, whether panels and words are full or not.
template <typename T, typename Each, typename Pack>
void CheckWeights(Random* random, int32_t rows, int32_t columns, Pack pack) {
  constexpr int kEach = sizeof(int32_t) / sizeof(Each);
  const int32_t panels = (columns + kPanel - 1) / kPanel;
  const int32_t words = (rows + kEach - 1) / kEach;
  const int64_t panel = int64_t{words} * kPanel + random->Between(0, 40);
  const int32_t stride = columns + random->Between(0, 2);
  const ExactBuffer<T> weights(
      Numbers<T>(random, (rows - 1) * stride + columns, std::numeric_limits<Each>::min(),
                 std::numeric_limits<Each>::max()),
      random->Between(0, 3));
  ExactBuffer<int32_t> out((panels - 1) * panel + int64_t{words} * kPanel, random->Between(0, 3));
  std::fill_n(out.data(), out.count(), 77);
  ExactBuffer<int32_t> sums(int64_t{panels} * kPanel);
  std::fill_n(sums.data(), sums.count(), INT32_MAX);
  pack(weights.data(), WeightShape{rows, columns, stride, panel}, out.data(), sums.data());
  for (int32_t lane = 0; lane < panels * kPanel; ++lane) {
    int64_t sum = INT32_MAX;
    for (int32_t row = 0; row < words * kEach; ++row) {
      const bool is_there = row < rows && lane < columns;
      const auto expected = static_cast<int32_t>(is_there ? weights[row * stride + lane] : T{0});
      Each numbers[kEach];
      const int64_t at = lane / kPanel * panel + int64_t{row / kEach} * kPanel + lane % kPanel;
      std::memcpy(numbers, out.data() + at, sizeof numbers);
      ASSERT_EQ(static_cast<int32_t>(numbers[row % kEach]), expected)
          << "row " << row << " of " << rows << ", lane " << lane << " of " << columns;
      sum += expected;
    }
    ASSERT_EQ(sums[lane], testing::LowBits(sum, 32)) << "lane " << lane << " of " << columns;
  }
  for (int64_t i = int64_t{words} * kPanel; i < panel && panels > 1; ++i) ASSERT_EQ(out[i], 77);
}

TEST(ChainPack, Weights) {
  Random random(0x3e1);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (int32_t rows = 1; rows <= 13; ++rows) {
      for (const int32_t columns : {1, 7, 15, 16, 17, 32, 50}) {
        CheckWeights<int32_t, int8_t>(&random, rows, columns, PackWeightBytes<int32_t>);
        CheckWeights<float, int8_t>(&random, rows, columns, PackWeightBytes<float>);
        CheckWeights<int32_t, int16_t>(&random, rows, columns, PackWeightShorts<int32_t>);
        CheckWeights<float, int16_t>(&random, rows, columns, PackWeightShorts<float>);
      }
    }
  }
}

template <typename T>
void CheckMagnitudes(int32_t low, int32_t high) {
  Random random(0x3a6);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (const int size : testing::LaneSizes()) {
      const ExactBuffer<T> x(Numbers<T>(&random, size, low, high), size % 4);
      ExactBuffer<int64_t> sums(size, size % 3);
      std::vector<int64_t> expected;
      for (int i = 0; i < size; ++i) {
        sums[i] = int64_t{1} << 40;
        expected.push_back(sums[i] + std::abs(static_cast<int64_t>(x[i])));
      }
      AddMagnitudes(x.data(), size, sums.data());
      for (int i = 0; i < size; ++i) {
        ASSERT_EQ(sums[i], expected[static_cast<size_t>(i)]) << name << ", " << i << " of " << size;
      }
    }
  }
}

TEST(ChainPack, Magnitudes) {
  CheckMagnitudes<int32_t>(INT32_MIN, INT32_MAX);
  CheckMagnitudes<float>(-(1 << 24), 1 << 24);
}

// What a tile of sums becomes. Outputs lie `stride` apart; what lies between stays as it is.
template <typename T>
void CheckFinish(Random* random, TileSums<int32_t> tile, int32_t channels, int32_t bits,
                 bool has_elementwise, const char* target) {
  const auto words = testing::Int32Boundaries();
  const int64_t stride = channels + random->Between(0, 3);
  const int64_t count = (tile.pixels - 1) * stride + channels;
  const int32_t most = std::is_same_v<T, float> ? 1 << 24 : INT32_MAX;
  ExactBuffer<int32_t> sums((tile.pixels - 1) * tile.lanes + channels, random->Between(0, 3));
  for (int64_t i = 0; i < sums.count(); ++i) {
    sums[i] = random->Flag() ? random->Pick(words) : static_cast<int32_t>(random->Bits());
  }
  ExactBuffer<T> elementwise(Numbers<T>(random, count, -most, most), random->Between(0, 3));
  if (count > 2) elementwise[2] = T{0} * T{-1};  // of floats: -0
  ExactBuffer<T> out(std::vector<T>(static_cast<size_t>(count), T{77}), random->Between(0, 3));
  tile.sums = sums.data();
  const SumOutput<T> output = {has_elementwise ? elementwise.data() : nullptr, out.data(), stride,
                               channels, bits};
  CurrentSumKernels<T>().finish(tile, output);
  for (int64_t i = 0; i < count; ++i) {
    const int64_t pixel = i / stride;
    const int64_t lane = i % stride;
    T expected{77};
    int64_t sum = 0;
    if (lane < channels) {
      sum = int64_t{sums[pixel * tile.lanes + lane]} - tile.excess;
      if (has_elementwise) sum += static_cast<int64_t>(elementwise[i]);
      expected = static_cast<T>(testing::LowBits(sum, bits));
    }
    ASSERT_TRUE(testing::Same(expected, out[i], target,
                              Describe("sum", sum, "bits", bits, "lane", lane, "channels", channels,
                                       "elementwise", has_elementwise)));
  }
}

TEST(ChainPack, FinishedSums) {
  Random random(0xf15);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (int32_t bits = 1; bits <= 32; ++bits) {
      for (const int32_t channels : {1, 7, 15, 16, 17, 31, 32, 63, 64}) {
        for (const bool has_elementwise : {false, true}) {
          const int32_t excess = random.Flag() ? 0 : static_cast<int32_t>(random.Bits());
          const TileSums<int32_t> tile = {nullptr, random.Between(1, 7), (channels + 15) / 16 * 16,
                                          excess};
          ASSERT_NO_FATAL_FAILURE(
              CheckFinish<int32_t>(&random, tile, channels, bits, has_elementwise, name));
          ASSERT_NO_FATAL_FAILURE(
              CheckFinish<float>(&random, tile, channels, bits, has_elementwise, name));
        }
      }
    }
  }
}

}  // namespace
}  // namespace bitfold
