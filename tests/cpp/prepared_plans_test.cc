// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Prepared layers by each plan: the definition against the oracle and the layer that is made once
// against the definition, at every size at which lanes, tiles and blocks end, under windows of
// every kind.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "support/prepared_check.h"
#include "support/prepared_draw.h"
#include "support/random.h"
#include "support/scale.h"

namespace bitfold {
namespace {

using testing::CheckPrepared;
using testing::FillForPlan;
using testing::PreparedCase;
using testing::PreparedRecipe;
using testing::Random;

template <typename Types>
class PreparedPlans : public ::testing::Test {};

TYPED_TEST_SUITE(PreparedPlans, testing::AllStoredTypes);

struct Windows {
  LayerAxis rows, columns;
};

// Rows and columns differ, so that a mix-up shows. `outputs` are the columns of outputs.
std::vector<Windows> WindowsOf(int32_t outputs) {
  return {
      {{1, 1, 1, 1, 0, 0}, {outputs, 1, 1, 1, 0, 0}},          // pixels in a row
      {{3, 1, 1, 1, 0, 0}, {outputs, 1, 1, 1, 0, 0}},          // rows of pixels
      {{3, 1, 2, 1, 0, 0}, {2 * outputs - 1, 1, 2, 1, 0, 0}},  // some of the pixels
      {{2, 1, 1, 1, 1, 0}, {outputs, 1, 1, 1, 0, 0}},          // pixels and padding
      {{4, 3, 1, 1, 1, 1}, {outputs, 3, 1, 1, 1, 1}},          // the usual window
      {{5, 3, 2, 1, 0, 1}, {2 * outputs, 3, 2, 1, 0, 1}},      // with a stride
      {{6, 3, 1, 2, 2, 2}, {outputs + 1, 2, 1, 3, 0, 2}},      // taps apart
      {{2, 7, 1, 1, 3, 3}, {outputs, 5, 1, 1, 1, 3}},          // larger than the image
      {{1, 3, 1, 1, 1, 1}, {1, 3, 1, 1, outputs, 1}},          // one pixel
      {{1, 2, 3, 1, 5, 4}, {1, 1, 1, 1, outputs - 1, 0}},      // windows in the padding
      {{2, 2, 1, 1, 0, 0}, {outputs + 2, 3, 1, 1, 0, 0}},      // no padding
      {{3, 2, 3, 1, 0, 2}, {3 * outputs, 4, 3, 2, 3, 1}},      // stride 3
  };
}

std::vector<int32_t> Channels() {
  std::vector<int32_t> channels = {31, 32, 33, 63, 64, 65};
  for (int32_t c = 17; c >= 1; --c) channels.push_back(c);
  return channels;
}

std::vector<int32_t> Columns() { return {1, 2, 3, 4, 5, 6, 7, 8, 9, 13, 14, 15}; }

// All sizes, a third of them by each plan in turn; windows in turn.
TYPED_TEST(PreparedPlans, SizesOfEveryPlan) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0x9a7e);
  const std::vector<int32_t> channels = Channels();
  const std::vector<int32_t> columns = Columns();
  size_t turn = 0;
  for (const PreparedRecipe& recipe : testing::PreparedRecipes<In>()) {
    for (size_t i = turn % 3; i < channels.size() * 2; i += 3 * testing::Step(3)) {
      PreparedCase<In, Out> c = testing::OfRecipe<In, Out>(recipe);
      c.is_depthwise = i >= channels.size();
      c.in_channels = channels[i % channels.size()];
      c.out_channels = c.is_depthwise ? std::max(1, c.in_channels - random.Between(0, 1))
                                      : channels[(5 * i + turn) % channels.size()];
      const auto windows = WindowsOf(columns[turn % columns.size()]);
      const Windows& w = windows[(turn + turn / windows.size()) % windows.size()];
      ++turn;
      c.rows = w.rows;
      c.columns = w.columns;
      if (random.Between(0, 2) == 0) testing::PlaceAsSame(&c);
      c.batch = random.Between(1, 3);
      FillForPlan(&random, &c, testing::DrawNumbers(&random));
      ASSERT_TRUE(CheckPrepared(c, recipe.path, static_cast<int>(turn % 4))) << recipe.name;
    }
  }
}

// All windows by all columns of outputs, few channels.
TYPED_TEST(PreparedPlans, EveryWindow) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0x3f0);
  size_t turn = 0;
  const auto recipes = testing::PreparedRecipes<In>();
  for (const int32_t outputs : Columns()) {
    for (const Windows& w : WindowsOf(outputs)) {
      const PreparedRecipe& recipe = recipes[turn++ % recipes.size()];
      if (turn % testing::Step(7) != 0) continue;
      PreparedCase<In, Out> c = testing::OfRecipe<In, Out>(recipe);
      c.rows = w.rows;
      c.columns = w.columns;
      ASSERT_EQ(c.columns.outputs(), outputs);
      c.in_channels = random.Between(1, 9);
      c.out_channels = random.Between(1, 20);
      FillForPlan(&random, &c);
      ASSERT_TRUE(CheckPrepared(c, recipe.path)) << recipe.name;
    }
  }
}

// So many outputs that blocks of rows, and panels of one block, are shared.
TYPED_TEST(PreparedPlans, ManyOutputs) {
  using In = typename TypeParam::In;
  using Out = typename TypeParam::Out;
  Random random(0x3a);
  int turn = 0;
  for (const PreparedRecipe& recipe : testing::PreparedRecipes<In>()) {
    ++turn;
    for (const bool is_pixelwise : {false, true}) {
      if ((turn + (is_pixelwise ? 1 : 0)) % testing::Step(2) != 0) continue;
      PreparedCase<In, Out> c = testing::OfRecipe<In, Out>(recipe);
      c.in_channels = is_pixelwise ? 3 : 2;
      c.out_channels = is_pixelwise ? 20 : 150;
      c.batch = is_pixelwise ? 3 : 2;
      c.rows = is_pixelwise ? LayerAxis{11, 1, 1, 1, 0, 0} : LayerAxis{5, 3, 1, 1, 1, 1};
      c.columns = is_pixelwise ? LayerAxis{13, 1, 1, 1, 0, 0} : LayerAxis{4, 3, 1, 1, 1, 1};
      FillForPlan(&random, &c);
      ASSERT_TRUE(CheckPrepared(c, recipe.path)) << recipe.name;
    }
  }
}

}  // namespace
}  // namespace bitfold
