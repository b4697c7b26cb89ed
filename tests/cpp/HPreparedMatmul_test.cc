// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Products of stored matrices: worked examples; then, on every target and with several pools of
// threads, every plan at every size at which lanes, tiles and blocks end, every width and shift,
// leading dimensions, random products; products that several threads make.

#include "bitfold/HPreparedMatmul.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include "support/ledger.h"
#include "support/prepared_matmul_check.h"
#include "support/scale.h"

namespace bitfold {
namespace {

using testing::CheckMatmul;
using testing::FillMatmul;
using testing::MatmulRecipe;
using testing::PreparedMatmulCase;
using testing::Random;

// ---- Worked examples ---------------------------------------------------------------------------

PreparedMatmulCase<int8_t, int8_t> Product(std::vector<int8_t> first, std::vector<int8_t> second,
                                           int32_t rows, int32_t cols) {
  PreparedMatmulCase<int8_t, int8_t> c;
  c.rows = rows;
  c.inner = static_cast<int32_t>(first.size()) / rows;
  c.cols = cols;
  c.first = std::move(first);
  c.second = std::move(second);
  c.multipliers = {1.0};
  c.mode = {Rescaling::kTwoRoundings, 0, 0, INT8_MIN, INT8_MAX};
  return c;
}

std::vector<int> Outputs(const PreparedMatmulCase<int8_t, int8_t>& c) {
  EXPECT_TRUE(CheckMatmul(c));
  const auto out = c.Definition();
  return {out.values.data(), out.values.data() + out.values.count()};
}

TEST(PreparedMatmul, TransposesAndZeroPoints) {
  auto c = Product({1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6}, 2, 2);
  EXPECT_EQ(Outputs(c), (std::vector<int>{22, 28, 49, 64}));
  c.transpose_first = true;  // {1, 3, 5}, {2, 4, 6}
  EXPECT_EQ(Outputs(c), (std::vector<int>{35, 44, 44, 56}));
  c.transpose_second = true;  // {1, 4}, {2, 5}, {3, 6}
  EXPECT_EQ(Outputs(c), (std::vector<int>{22, 49, 28, 64}));
  c.transpose_first = false;
  EXPECT_EQ(Outputs(c), (std::vector<int>{14, 32, 32, 77}));
  c.zero_points[0] = 1;  // {0, 1, 2}, {3, 4, 5}
  EXPECT_EQ(Outputs(c), (std::vector<int>{8, 17, 26, 62}));
  c.zero_points[1] = 3;  // {-2, -1, 0}, {1, 2, 3}
  c.mode.zero_point = -5;
  EXPECT_EQ(Outputs(c), (std::vector<int>{-6, 3, -15, 21}));
}

TEST(PreparedMatmul, SumsWrapAndAShiftIsUndone) {
  auto c = Product({100, 30}, {1, 1}, 1, 1);
  c.accumulator_size = 8;
  EXPECT_EQ(Outputs(c), (std::vector<int>{-126}));  // 130 - 256
  auto shifted = Product({3, 3}, {1, 1}, 1, 1);
  shifted.mode.shift = 1;
  EXPECT_EQ(Outputs(shifted), (std::vector<int>{8}));  // (2 + 2) * 2
  shifted.use_fp16_acc = true;
  EXPECT_EQ(Outputs(shifted), (std::vector<int>{8}));
}

TEST(PreparedMatmul, HalfPrecisionRoundsSums) {
  auto c = Product({64, 1}, {64, 1}, 1, 1);
  c.use_fp16_acc = true;
  c.multipliers = {1.0 / 64};
  EXPECT_EQ(Outputs(c), (std::vector<int>{64}));  // 4097 is no multiple of 2: 4096
}

TEST(PreparedMatmul, NoInnerElementIsASumOfZero) {
  auto c = Product({}, {}, 2, 3);
  c.inner = 0;
  c.mode.zero_point = 7;
  EXPECT_EQ(Outputs(c), std::vector<int>(6, 7));
}

// One for each pair, but one for a matrix that all rows meet.
TEST(PreparedMatmul, LinesOfCorrectedWeights) {
  const auto lines = [](const PreparedMatmulCase<int8_t, int8_t>& c) {
    EXPECT_TRUE(CheckMatmul(c));
    return testing::CountLines(c.Definition().lines).corrected_weights;
  };
  auto c = Product({1, 1, 1, 1, 1, 1}, {100, 1, 1, 1, 1, 100}, 1, 1);
  c.inner = 2;
  c.zero_points[1] = -128;  // 228 of 16 bits is -28
  c.accumulator_size = 16;
  c.fronts[0] = c.fronts[1] = {3};
  EXPECT_EQ(lines(c), 3);
  c.zero_points[1] = 0;
  EXPECT_EQ(lines(c), 0);
  c.accumulator_size = 14;  // a step at a time
  EXPECT_EQ(lines(c), 2);
  c.fronts[1] = {};
  c.second.resize(2);
  EXPECT_EQ(lines(c), 3);
  c.fronts[0] = {};
  c.matrices = 3;
  EXPECT_EQ(lines(c), 1);
  c.accumulator_size = 15;
  EXPECT_EQ(lines(c), 1);
}

// ---- Every plan --------------------------------------------------------------------------------

template <typename Types>
class PreparedProducts : public ::testing::Test {};
TYPED_TEST_SUITE(PreparedProducts, testing::AllStoredTypes);

std::vector<int32_t> Sizes() {
  std::vector<int32_t> sizes = {31, 32, 33, 47, 48, 63, 64, 65};
  for (int32_t size = 17; size >= 1; --size) sizes.push_back(size);
  return sizes;
}

// All rows, columns and inner sizes, some of them by each plan in turn; both transposes in turn.
TYPED_TEST(PreparedProducts, SizesOfEveryPlan) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0x9a7f);
  const std::vector<int32_t> sizes = Sizes();
  size_t turn = 0;
  for (const MatmulRecipe& recipe : testing::MatmulRecipes<In>()) {
    const size_t first = turn % (3 * testing::Step(3));
    for (size_t i = first; i < sizes.size(); i += 2 * testing::Step(5)) {
      auto c = testing::OfRecipe<In, Out>(recipe);
      c.cols = sizes[i];
      c.rows = sizes[(3 * i + turn) % sizes.size()];
      c.inner = sizes[(7 * i + turn) % sizes.size()];
      c.transpose_first = (turn & 1) != 0;
      c.transpose_second = (turn & 2) != 0;
      c.matrices = random.Between(1, 2);
      ++turn;
      FillMatmul(&random, &c, testing::DrawNumbers(&random));
      ASSERT_TRUE(CheckMatmul(c, recipe.path, static_cast<int>(turn % 4))) << recipe.name;
    }
  }
}

// Operands that repeat, and so many pairs that threads have several, or fewer.
TYPED_TEST(PreparedProducts, LeadingDimensionsOfEveryPlan) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  using Front = std::vector<int64_t>;
  const std::pair<Front, Front> fronts[] = {{{2}, {2}},       {{}, {5}},           {{3, 4}, {4}},
                                            {{2, 1}, {1, 3}}, {{4, 1, 2}, {3, 1}}, {{20}, {20}},
                                            {{5, 1}, {5, 4}}, {{1, 17}, {2, 1}}};
  Random random(0x1ead);
  size_t turn = 0;
  for (const MatmulRecipe& recipe : testing::MatmulRecipes<In>()) {
    constexpr size_t kStep = 2 * testing::Step(4);
    for (size_t i = turn % kStep; i < std::size(fronts); i += kStep) {
      auto c = testing::OfRecipe<In, Out>(recipe);
      c.fronts[0] = fronts[i].first;
      c.fronts[1] = fronts[i].second;
      c.rows = random.Between(1, 7);
      c.inner = random.Between(1, 9);
      c.cols = random.Between(1, 20);
      c.transpose_first = random.Flag();
      c.transpose_second = random.Flag();
      FillMatmul(&random, &c);
      ASSERT_TRUE(CheckMatmul(c, recipe.path)) << recipe.name;
    }
    ++turn;
  }
}

// So many rows that blocks of them, and panels of one block, are shared.
TYPED_TEST(PreparedProducts, ManyOutputs) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0x3b);
  int turn = 0;
  for (const MatmulRecipe& recipe : testing::MatmulRecipes<In>()) {
    ++turn;
    for (const bool has_many_rows : {false, true}) {
      if ((turn + (has_many_rows ? 1 : 0)) % testing::Step(2) != 0) continue;
      auto c = testing::OfRecipe<In, Out>(recipe);
      c.matrices = has_many_rows ? 3 : 1;
      c.rows = has_many_rows ? 130 : 9;
      c.inner = 3;
      c.cols = has_many_rows ? 20 : 200;
      FillMatmul(&random, &c);
      ASSERT_TRUE(CheckMatmul(c, recipe.path)) << recipe.name;
    }
  }
}

// Pairs that are widened in several turns.
TYPED_TEST(PreparedProducts, ManyNumbersTogether) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0x70);
  PreparedMatmulCase<In, Out> c;
  c.fronts[0] = {3};
  c.fronts[1] = {3};
  c.rows = 1;
  c.inner = 1 << 15;
  c.cols = 17;
  c.accumulator_size = 12;
  FillMatmul(&random, &c);
  ASSERT_TRUE(CheckMatmul(c, ChainPath::kStepwise));
}

// Tables of so long a row would need far more room than the operands.
TEST(PreparedMatmul, RowsTooLongForRemainders) {
  Random random(0x71);
  PreparedMatmulCase<int8_t, int8_t> c;
  c.inner = 90000;
  c.accumulator_size = 20;
  c.mode.shift = 5;
  FillMatmul(&random, &c);
  ASSERT_TRUE(CheckMatmul(c, ChainPath::kDotRemainders));
}

// Every width with shifts: signs that are corrected, sums far outside the accumulator.
TYPED_TEST(PreparedProducts, WidthsAndShifts) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  using Limits = std::numeric_limits<In>;
  Random random(0xb1a6);
  for (int32_t width = 0; width <= 32; width += testing::Step(8)) {
    for (int32_t shift = 0; shift <= 31; shift += shift < 7 ? 1 : 4 * testing::Step(3)) {
      PreparedMatmulCase<In, Out> c;
      c.accumulator_size = width;
      c.mode.shift = shift;
      for (int32_t& zero_point : c.zero_points) {
        zero_point = random.Pick<int32_t>({0, 0, Limits::min(), Limits::max(), 3});
      }
      c.use_fp16_acc = shift <= 6 && random.Between(0, 5) == 0;
      c.rows = random.Between(1, 6);
      c.inner = random.Between(1, 12);
      c.cols = random.Between(1, 18);
      c.fronts[0] = {random.Between(1, 2)};
      c.fronts[1] = {2};
      FillMatmul(&random, &c, testing::DrawNumbers(&random));
      ASSERT_TRUE(CheckMatmul(c));
    }
  }
}

// The longest sums that 32 bits hold, and longer ones.
TYPED_TEST(PreparedProducts, SumsAtTheEndsOf32Bits) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  using Limits = std::numeric_limits<In>;
  for (const int32_t inner : {2, 3, 33024, 33026}) {
    for (const auto zero_point : {0, int{Limits::max()}, int{Limits::min()}}) {
      for (const In second : {Limits::min(), Limits::max()}) {
        PreparedMatmulCase<In, Out> c;
        c.inner = inner;
        c.zero_points[0] = c.zero_points[1] = zero_point;
        c.first.assign(static_cast<size_t>(inner), Limits::min());
        c.second.assign(static_cast<size_t>(inner), second);
        c.mode = {Rescaling::kTwoRoundings, 0, 0, -100, 100};
        c.multipliers = {0x1.8p-25};
        ASSERT_TRUE(CheckMatmul(c));
      }
    }
  }
}

template <typename In, typename Out>
PreparedMatmulCase<In, Out> DrawMatmul(Random* random) {
  PreparedMatmulCase<In, Out> c;
  for (int i = random->Between(0, 2); i > 0; --i) {
    const int32_t size = random->Between(1, 4);
    c.fronts[0].push_back(random->Flag() ? size : 1);
    c.fronts[1].push_back(random->Flag() ? size : 1);
  }
  if (c.fronts[0].empty()) c.matrices = random->Between(1, 4);
  c.rows = random->Between(1, random->Flag() ? 60 : 6);
  c.inner = random->Between(1, random->Flag() ? 80 : 6);
  c.cols = random->Between(1, random->Flag() ? 70 : 6);
  c.transpose_first = random->Flag();
  c.transpose_second = random->Flag();
  c.accumulator_size = random->Flag() ? 32 : random->Between(1, 32);
  c.use_fp16_acc = random->Between(0, 4) == 0;
  c.mode.shift = random->Flag() ? 0 : random->Between(0, c.use_fp16_acc ? 6 : 31);
  for (int32_t& zero_point : c.zero_points) {
    zero_point = random->Flag() ? 0 : testing::DrawStored<In>(random, testing::DrawNumbers(random));
  }
  FillMatmul(random, &c, testing::DrawNumbers(random));
  return c;
}

TYPED_TEST(PreparedProducts, RandomCases) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0xa120);
  for (int round = 0; round < 80 / testing::Step(10); ++round) {
    const auto c = DrawMatmul<In, Out>(&random);
    ASSERT_TRUE(CheckMatmul(c, std::nullopt, random.Between(0, 3)));
  }
}

// ---- Many calls --------------------------------------------------------------------------------

TEST(PreparedMatmul, SeveralThreadsCallAtTheSameTime) {
  Random random(0x7b);
  for (const bool use_fp16_acc : {false, true}) {
    PreparedMatmulCase<int8_t, int8_t> c;
    c.fronts[0] = c.fronts[1] = {8};
    c.rows = 9;
    c.inner = 20;
    c.cols = 24;
    c.transpose_second = true;
    c.use_fp16_acc = use_fp16_acc;
    FillMatmul(&random, &c);
    const auto matmul = c.Prepare();
    constexpr int kThreads = 4;
    std::vector<PreparedMatmulCase<int8_t, int8_t>> cases(kThreads, c);
    std::vector<std::vector<int8_t>> results(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      auto& own = cases[static_cast<size_t>(t)];
      std::rotate(own.first.begin(), own.first.begin() + t, own.first.end());
      std::rotate(own.second.begin(), own.second.begin() + 3 * t, own.second.end());
      threads.emplace_back([&, t] {
        const auto& mine = cases[static_cast<size_t>(t)];
        const Broadcast pairs = mine.Pairs();
        std::vector<int8_t> out(static_cast<size_t>(mine.count()));
        testing::ThreadParts workers(2, 1);
        for (int i = 0; i < 10; ++i) {
          matmul->Run({mine.first.data(), mine.second.data(), out.data(), &pairs}, &workers);
        }
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
