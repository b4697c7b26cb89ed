// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Prepared layers whose final sums are looked at: worked examples at every boundary; then, on every
// target and with several pools of threads, each plan, sums of 64 bits, random layers: the
// definition against the oracle, the layer that is made once against the definition.

#include "bitfold/HWatchedConvolution.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "chain/sum_output.h"
#include "chain/sum_watch.h"
#include "chain/watched_part.h"
#include "support/ledger.h"
#include "support/prepared_draw.h"
#include "support/scale.h"
#include "support/targets.h"
#include "support/watched_case.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::AllSizes;
using testing::Path;
using testing::PreparedCase;
using testing::Random;
using testing::Watched;
using testing::WatchedCase;
using testing::WatchedOutput;

template <typename In, typename Out>
::testing::AssertionResult Same(const WatchedCase<In, Out>& c, const WatchedOutput<Out>& expected,
                                const WatchedOutput<Out>& actual, const std::string& path,
                                bool is_in_order) {
  const auto tables =
      testing::SameArrays(expected.tables.data(), actual.tables.data(), c.TableCount(), path,
                          [&c](int64_t i) { return c.Entry(i); });
  if (!tables) return tables;
  return testing::SamePrepared(c.layer, expected.stored, actual.stored, path, is_in_order);
}

// On the calling thread and by one of several pools in turn.
template <typename In, typename Out>
::testing::AssertionResult Check(const WatchedCase<In, Out>& c, int offset = 0) {
  const WatchedOutput<Out> definition = c.Definition(offset);
  const auto oracle = c.OracleTables();
  const auto same =
      testing::SameArrays(oracle.data(), definition.tables.data(), c.TableCount(),
                          "HWatchedConvolution definition", [&c](int64_t i) { return c.Entry(i); });
  if (!same) return same;
  static size_t turn = 0;
  CallingThread calling_thread;
  testing::BackwardParts backward(1);
  testing::ThreadParts two(2, 1);
  testing::ThreadParts five(5, 1);
  Workers* const pools[] = {&backward, &two, &five};
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    const auto watched = c.Prepare(&two);  // fewer than what calls it
    Workers* const pool = pools[turn++ % std::size(pools)];
    for (Workers* workers : {static_cast<Workers*>(&calling_thread), pool}) {
      const std::string path = std::string("watched layer, ") + name + ", " +
                               std::to_string(workers->AtOnce()) + " at once";
      const auto actual = c.By(*watched, workers, offset);
      const auto found = Same(c, definition, actual, path, workers == &calling_thread);
      if (!found) return found;
    }
    testing::Ran(static_cast<Path>(static_cast<int>(Path::kWatchedTiles) +
                                   static_cast<int>(watched->form())));
    if (watched->form() == WatchForm::kDefinition || target == Target::kAvx512Vnni) continue;
    testing::Ran(testing::OnTarget(Path::kWatchPortable, target));
  }
  return ::testing::AssertionSuccess();
}

// ---- Worked examples ---------------------------------------------------------------------------

// A pixel for each number, under one weight.
PreparedCase<int8_t, int8_t> Pixels(std::vector<int8_t> input, int8_t weight = 1) {
  PreparedCase<int8_t, int8_t> c;
  c.columns.input = static_cast<int32_t>(input.size());
  c.input = std::move(input);
  c.filter = {weight};
  c.multipliers = {1.0};
  c.mode = {Rescaling::kTwoRoundings, 0, 0, INT8_MIN, INT8_MAX};
  return c;
}

using Values = std::vector<int64_t>;

Values Tables(const PreparedCase<int8_t, int8_t>& layer, std::vector<int32_t> sizes) {
  const auto c = Watched(layer, std::move(sizes));
  EXPECT_TRUE(Check(c));
  const auto found = c.Definition();
  return {found.tables.data(), found.tables.data() + c.TableCount()};
}

TEST(WatchedConvolution, TheEndsOfAWidthAreInside) {
  EXPECT_EQ(Tables(Pixels({-128, 127, 0}), {8, 7, 1}), (Values{-128, 127, 0, 2, 2}));
  EXPECT_EQ(Tables(Pixels({64, -64, -65, 63, -1}), {8, 7, 1}), (Values{-65, 64, 0, 2, 4}));
}

TEST(WatchedConvolution, TheBiasCounts) {
  auto c = Pixels({127, -128});
  c.bias = {1};
  EXPECT_EQ(Tables(c, {8}), (Values{-127, 128, 1}));
  c.bias = {-1};
  EXPECT_EQ(Tables(c, {8}), (Values{-129, 126, 1}));
  c.bias = {INT32_MAX};
  EXPECT_EQ(Tables(c, {32, 31}), (Values{INT32_MAX - 128, int64_t{INT32_MAX} + 127, 1, 2}));
  c.bias = {INT32_MIN};
  EXPECT_EQ(Tables(c, {32, 1}), (Values{int64_t{INT32_MIN} - 128, INT32_MIN + 127, 1, 2}));
}

// The layer's own accumulator makes no difference to what the sums would have been.
TEST(WatchedConvolution, SumsAreThoseOfFullWidth) {
  auto c = Pixels({100, -100}, 100);
  for (const int32_t width : {0, 1, 8, 13, 14, 15, 32}) {
    c.accumulator_size = width;
    EXPECT_EQ(Tables(c, {15, 14}), (Values{-10000, 10000, 0, 2})) << width;
  }
  c.use_fp16_acc = true;
  EXPECT_EQ(Tables(c, {15, 14}), (Values{-10000, 10000, 0, 2}));
  c.mult_shift = 3;
  c.bias = {12};  // 1.5 to the even 2
  EXPECT_EQ(Tables(c, {12, 11}), (Values{-1248, 1252, 0, 2}));
}

TEST(WatchedConvolution, WeightsAreAsTheyAreStored) {
  auto c = Pixels({1, 2}, 100);
  c.is_depthwise = true;
  c.accumulator_size = 12;  // reads 100 as another number
  EXPECT_EQ(Tables(c, {8}), (Values{100, 200, 1}));
}

// ---- The watch ---------------------------------------------------------------------------------

// Limits that a bias moves to either end of the sums' type and beyond, on every target.
template <typename T>
void SumsAtTheLimits(const std::vector<T>& boundaries, WatchedTiles tiles) {
  Random random(0x11a7);
  const std::vector<int32_t> sizes = AllSizes();
  for (int round = 0; round < 200 / testing::Step(4); ++round) {
    const auto channels = static_cast<int32_t>(random.Between(1, 40));
    const int32_t lanes = (channels + kPanel - 1) / kPanel * kPanel;
    const auto pixels = static_cast<int32_t>(random.Between(1, 9));
    std::vector<int64_t> addends;
    for (int32_t c = 0; c < channels; ++c) {
      const int64_t near = int64_t{1} << random.Between(0, 62);
      addends.push_back(random.Flag() ? near : -near);
      if (random.Between(0, 3) == 0) addends.back() = random.Between(-3, 3);
    }
    std::vector<T> sums;
    for (int32_t i = 0; i < pixels * lanes; ++i) sums.push_back(random.Pick(boundaries));
    const WatchedSizes watched = {sizes.data(), static_cast<int32_t>(sizes.size())};
    const auto tables = [&](std::vector<int64_t>* all, auto fill) {
      all->resize(static_cast<size_t>(channels) * (2 + sizes.size()));
      const WatchedTables found = {all->data(), all->data() + 2 * channels};
      ClearWatched(channels, watched.count, found);
      fill(found);
    };
    std::vector<int64_t> expected;
    tables(&expected, [&](const WatchedTables& found) {
      for (int32_t i = 0; i < pixels * channels; ++i) {
        const int32_t c = i % channels;
        const int64_t sum = sums[static_cast<size_t>(i / channels * lanes + c)];
        WatchSum(sum + addends[static_cast<size_t>(c)], c, channels, watched, found);
      }
    });
    for (const auto& [target, name] : testing::AllTargets()) {
      const testing::ForcedTarget forced(target);
      const WatchLimits limits(addends, tiles, watched);
      std::vector<int64_t> actual;
      tables(&actual, [&](const WatchedTables& found) {
        SumWatch whole(limits);
        StoredOutput output = {nullptr, nullptr, 0, channels, 0, channels, nullptr, &whole};
        for (int32_t p = 0; p < pixels; ++p) {  // each a part of its own, the last two together
          const bool is_last = p + 2 >= pixels;
          const WatchedPart part(output);
          part.output().watch->See(sums.data() + p * lanes, is_last ? pixels - p : 1, lanes,
                                   part.output());
          if (is_last) break;
        }
        whole.AddTo(found);
      });
      ASSERT_EQ(expected, actual) << name;
    }
  }
}

TEST(WatchedConvolution, NarrowSumsAtTheLimits) {
  std::vector<int32_t> sums = {INT32_MIN, INT32_MIN + 1, INT32_MAX, INT32_MAX - 1, 0};
  for (int bit = 0; bit < 31; ++bit) {
    for (const int32_t beside : {-1, 0, 1}) {
      sums.push_back((1 << bit) + (bit < 30 ? beside : std::min(beside, 0)));
      sums.push_back(-(1 << bit) + beside);
    }
  }
  SumsAtTheLimits<int32_t>(sums, WatchedTiles::kNarrow);
}

TEST(WatchedConvolution, WideSumsAtTheLimits) {
  std::vector<int64_t> sums = {0, -(int64_t{1} << 61), int64_t{1} << 61};
  for (int bit = 0; bit < 61; ++bit) {
    for (const int64_t beside : {-1, 0, 1}) {
      sums.push_back((int64_t{1} << bit) + beside);
      sums.push_back(-(int64_t{1} << bit) + beside);
    }
  }
  SumsAtTheLimits<int64_t>(sums, WatchedTiles::kWide);
}

// ---- Whole layers ------------------------------------------------------------------------------

template <typename Types>
class WatchedLayers : public ::testing::Test {};

TYPED_TEST_SUITE(WatchedLayers, testing::AllStoredTypes);

// Each plan, at sizes at which lanes and tiles end.
TYPED_TEST(WatchedLayers, EveryPlan) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0x3a7c);
  int turn = 0;
  for (const auto& recipe : testing::PreparedRecipes<In>()) {
    for (int round = turn++ % testing::Step(3); round < 4; round += testing::Step(3)) {
      auto c = testing::OfRecipe<In, Out>(recipe);
      c.batch = random.Between(1, 3);
      c.is_depthwise = round % 4 == 3;
      c.rows = testing::DrawAxis(&random);
      c.columns = testing::DrawAxis(&random);
      if (random.Flag()) testing::PlaceAsSame(&c);
      c.in_channels = random.Between(1, 40);
      c.out_channels = c.is_depthwise ? random.Between(1, c.in_channels) : random.Between(1, 70);
      FillForPlan(&random, &c, testing::DrawNumbers(&random));
      ASSERT_TRUE(Check(Watched(c, AllSizes()), random.Between(0, 3))) << recipe.name;
    }
  }
}

// Sums of 64 bits: such as 32 hold, such as they hold without the bias, and such as they do not.
TYPED_TEST(WatchedLayers, SumsOf64Bits) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0x64b1);
  for (int round = 0; round < 40 / testing::Step(4); ++round) {
    auto c = testing::DrawPrepared<In, Out>(&random);
    c.use_fp16_acc = false;
    c.mult_shift = round % 4 == 0 ? random.Between(0, 30) : 0;
    if (round % 5 == 0) {
      c.rows = c.columns = {3, 3, 1, 1, 0, 0};
      c.is_depthwise = false;
      c.in_channels = 600;  // more products than 32 bits are proven to hold
      c.out_channels = random.Between(1, 20);
      c.zero_point = std::numeric_limits<In>::max();
    }
    FillPrepared(&random, &c, testing::Numbers::kExtreme);
    c.bias.clear();
    c.accumulator_size = kWideAccumulator;
    const int bits = random.Between(0, 2) == 0 ? 63 : random.Between(0, 40);
    for (int32_t i = 0; i < c.out_channels; ++i) {
      const auto word = uint64_t{random.Bits()} << 32 | random.Bits();
      c.wide_bias.push_back(static_cast<int64_t>(word) >> (63 - bits));
    }
    if (random.Between(0, 5) == 0) c.wide_bias.clear();
    c.mode.rescaling = random.Flag() ? Rescaling::kShortMultiplier : Rescaling::kOneRounding;
    for (double& multiplier : c.multipliers) {
      multiplier = testing::DrawMultiplier<Out>(&random, c.mode, BitsOfSums(c));
    }
    ASSERT_TRUE(Check(Watched(c, AllSizes())));
  }
}

TYPED_TEST(WatchedLayers, RandomCases) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0xca5e);
  for (int round = 0; round < 40 / testing::Step(8); ++round) {
    auto c = testing::DrawPrepared<In, Out>(&random);
    if (c.mult_shift > kMostSummedShift) continue;
    std::vector<int32_t> sizes;
    for (int i = random.Between(0, 3); i > 0; --i) sizes.push_back(random.Between(1, 32));
    ASSERT_TRUE(Check(Watched(c, sizes), random.Between(0, 3)));
  }
}

}  // namespace
}  // namespace bitfold
