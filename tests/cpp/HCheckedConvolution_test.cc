// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Prepared layers whose wrong sums are counted: worked examples at every boundary; then, on every
// target and with several pools of threads, each plan, sums of 64 bits, random layers: the
// definition against the oracle, the layer that is made once against the definition.

#include "bitfold/HCheckedConvolution.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "support/checked_case.h"
#include "support/ledger.h"
#include "support/prepared_draw.h"
#include "support/scale.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::Checked;
using testing::CheckedCase;
using testing::Path;
using testing::PreparedCase;
using testing::Random;

// On the calling thread and by one of several pools in turn.
template <typename In, typename Out>
::testing::AssertionResult Check(const CheckedCase<In, Out>& c, int offset = 0) {
  const auto definition = c.Definition(offset);
  const int64_t wrong = c.layer.OracleWrong();
  if (wrong != definition.wrong) {
    return ::testing::AssertionFailure() << "the oracle has " << wrong << " wrong sums, the "
                                         << "definition " << definition.wrong << c.layer.Inputs(0);
  }
  static size_t turn = 0;
  CallingThread calling_thread;
  testing::BackwardParts backward(1);
  testing::ThreadParts two(2, 1);
  testing::ThreadParts five(5, 1);
  Workers* const pools[] = {&backward, &two, &five};
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    const auto checked = c.Prepare(&two);  // fewer than what calls it
    Workers* const pool = pools[turn++ % std::size(pools)];
    for (Workers* workers : {static_cast<Workers*>(&calling_thread), pool}) {
      const std::string path = std::string("checked layer, ") + name + ", " +
                               std::to_string(workers->AtOnce()) + " at once";
      const auto actual = c.By(*checked, workers, offset);
      const auto found = testing::SamePrepared(c.layer, definition.stored, actual.stored, path,
                                               workers == &calling_thread);
      if (!found) return found;
      if (actual.wrong != wrong) {
        return ::testing::AssertionFailure()
               << path << ": " << actual.wrong << " wrong sums, not " << wrong << c.layer.Inputs(0);
      }
    }
    testing::Ran(static_cast<Path>(static_cast<int>(Path::kCheckedTiles) +
                                   static_cast<int>(checked->form())));
    if (checked->form() != CheckForm::kTiles || target == Target::kAvx512Vnni) continue;
    testing::Ran(testing::OnTarget(Path::kCheckPortable, target));
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

int64_t Wrong(const PreparedCase<int8_t, int8_t>& layer) {
  const auto c = Checked(layer);
  EXPECT_TRUE(Check(c));
  return c.Definition().wrong;
}

TEST(CheckedConvolution, TheEndsOfTheWidthAreRight) {
  auto c = Pixels({127, -128, 0});
  for (const auto& [width, wrong] : {std::pair{8, 0}, {7, 2}, {1, 2}, {32, 0}}) {
    c.accumulator_size = width;
    EXPECT_EQ(Wrong(c), wrong) << width;
  }
  c = Pixels({64, -64, -65, 63});
  c.accumulator_size = 7;
  EXPECT_EQ(Wrong(c), 2);
}

// A bias of more than 2^w is wrapped once, which leaves the sum outside; or does it come back?
TEST(CheckedConvolution, TheBiasCounts) {
  auto c = Pixels({127, -128, 0, 1});
  c.accumulator_size = 8;
  c.bias = {1};
  EXPECT_EQ(Wrong(c), 1);
  c.bias = {-1};
  EXPECT_EQ(Wrong(c), 1);
  c.bias = {300};
  EXPECT_EQ(Wrong(c), 4);
  c.accumulator_size = 10;
  EXPECT_EQ(Wrong(c), 0);
}

// Where the last step brings a sum back the number is right.
TEST(CheckedConvolution, ASumThatLeftMayComeBack) {
  auto c = Pixels({100, 100, -100});
  c.columns.taps = 3;
  c.filter = {1, 1, 1};
  c.accumulator_size = 8;
  EXPECT_EQ(Wrong(c), 0);
  c.filter = {1, 1, -1};
  EXPECT_EQ(Wrong(c), 1);
}

TEST(CheckedConvolution, WeightsAreAsTheyAreStored) {
  auto c = Pixels({1, 0}, 100);
  c.is_depthwise = true;
  c.accumulator_size = 12;  // reads 100 as another number
  EXPECT_EQ(Wrong(c), 1);
}

TEST(CheckedConvolution, HalfPrecisionIsHeldAgainstWholeNumbers) {
  auto c = Pixels({127, 126, 1}, 127);  // 16129 is rounded to 16128, as 16002 is to 16000
  c.use_fp16_acc = true;
  EXPECT_EQ(Wrong(c), 2);
}

// Nothing wraps there, whatever the bias.
TEST(CheckedConvolution, SumsOf64BitsAreRight) {
  PreparedCase<int16_t, int16_t> c;
  c.accumulator_size = kWideAccumulator;
  c.in_channels = 2000;
  c.input.assign(2000, INT16_MIN);
  c.filter.assign(2000, -128);
  c.multipliers = {0x1p-22};
  c.mode = {Rescaling::kOneRounding, 0, 0, INT16_MIN, INT16_MAX};
  for (const int64_t bias : {int64_t{0}, int64_t{1} << 36, -(int64_t{1} << 36)}) {
    c.wide_bias = {bias};
    EXPECT_TRUE(Check(Checked(c))) << bias;
    EXPECT_EQ(Checked(c).Definition().wrong, 0) << bias;
  }
}

// Every width around those that sums need, in each form of the finish, with tiles that repeat
// positions at their rows' ends.
TEST(CheckedConvolution, EveryWidthAndRescaling) {
  Random random(0xf01d);
  for (int32_t width = 8; width <= 24; width += testing::Step(2)) {
    for (const auto rescaling :
         {Rescaling::kTwoRoundings, Rescaling::kShortMultiplier, Rescaling::kOneRounding}) {
      PreparedCase<int8_t, int8_t> c;
      c.batch = 2;
      c.in_channels = random.Between(1, 20);
      c.out_channels = random.Between(1, 40);
      c.rows.input = random.Between(1, 5);
      c.columns.input = random.Between(1, 33);
      c.accumulator_size = width;
      c.mode = {rescaling, 0, 3, INT8_MIN, INT8_MAX};
      FillPrepared(&random, &c, testing::Numbers::kExtreme);
      ASSERT_TRUE(Check(Checked(c), random.Between(0, 3)));
    }
  }
}

// ---- Whole layers ------------------------------------------------------------------------------

template <typename Types>
class CheckedLayers : public ::testing::Test {};

TYPED_TEST_SUITE(CheckedLayers, testing::AllStoredTypes);

// Each plan, at sizes at which lanes and tiles end.
TYPED_TEST(CheckedLayers, EveryPlan) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0xc4ec);
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
      ASSERT_TRUE(Check(Checked(c), random.Between(0, 3))) << recipe.name;
    }
  }
}

TYPED_TEST(CheckedLayers, RandomCases) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0xd0bb);
  for (int round = 0; round < 40 / testing::Step(8); ++round) {
    const auto c = testing::DrawPrepared<In, Out>(&random);
    ASSERT_TRUE(Check(Checked(c), random.Between(0, 3)));
  }
}

}  // namespace
}  // namespace bitfold
