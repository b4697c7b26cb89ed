// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The matrix product by the chain engine against the definition: every path on every target over
// shapes around the tiles' sizes, and memory that runs out.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "bitfold/weight_sign.h"
#include "chain/engine.h"
#include "support/chain_recipes.h"
#include "support/matmul_case.h"
#include "support/scale.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::ChainForm;
using testing::ChainRecipe;
using testing::ChainRecipes;
using testing::DefinitionOf;
using testing::MatMulCase;
using testing::Random;

template <typename T>
MatMulCase<T> DrawProduct(Random* random, const ChainRecipe& recipe, int32_t rows, int32_t inner,
                          int32_t cols) {
  MatMulCase<T> c;
  c.rows = rows;
  c.inner = inner;
  c.cols = cols;
  c.accumulator_size = recipe.width;
  c.mult_shift = recipe.shift;
  c.use_fp16_acc = recipe.use_fp16_acc;
  c.a = testing::DrawRange<T>(random, c.a_count(), recipe.input, recipe);
  c.b = testing::DrawRange<T>(random, c.b_count(), recipe.weights, recipe);
  return c;
}

// The path that the engine takes for a product, on the target in use.
template <typename T>
std::optional<ChainPath> PathOf(const MatMulCase<T>& c) {
  using D = std::conditional_t<std::is_same_v<T, float>, ReciprocalDatapath<float>, Datapath<T>>;
  const WeightSign<T> sign(c.accumulator_size);
  std::vector<T> weights = c.b;
  for (T& weight : weights) {
    if (sign.NeedsCorrection(weight)) weight = sign.Correct(weight);
  }
  const auto mult_shift = static_cast<int8_t>(c.mult_shift);
  ConvolutionCall<T> call{};
  call.input = c.a.data();
  call.filter = c.b.data();
  call.batch = 1;
  call.in_channels = c.inner;
  call.out_channels = c.cols;
  call.rows = {1, 1, 1, 1, Padding::kValid};
  call.columns = {c.rows, 1, 1, 1, Padding::kValid};
  call.filters = 1;
  call.datapath = {c.accumulator_size, &mult_shift, c.use_fp16_acc};
  HeapScratch scratch;
  CallingThread calling_thread;
  const ChainEngine<D, T> engine(call, {weights.data(), false, {}}, {}, {&calling_thread, 1, 1},
                                 &scratch);
  if (!engine.plan()) return std::nullopt;
  return engine.plan()->path;
}

// Products with a reciprocal that is not exact are not rounded sums.
template <typename T>
std::optional<ChainPath> ExpectedPath(const ChainRecipe& recipe, int32_t rows, Target target) {
  const bool is_inexact = std::is_same_v<T, float> && !IsPowerOfTwo(recipe.shift);
  if (recipe.path == ChainPath::kRounded && is_inexact) return ChainPath::kStepwise;
  return testing::PathOn<T>(recipe, false, rows, target);
}

template <typename T>
void CheckProduct(Random* random, const ChainRecipe& recipe, int32_t rows, int32_t inner,
                  int32_t cols) {
  const MatMulCase<T> c = DrawProduct<T>(random, recipe, rows, inner, cols);
  const int offset = random->Between(0, 3);
  const auto same = testing::KernelAgainstDefinition(c, DefinitionOf(c, offset), offset);
  ASSERT_TRUE(same) << recipe.name;
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    const std::optional<ChainPath> path = PathOf(c);
    ASSERT_TRUE(path) << recipe.name;
    testing::Ran(*path, testing::NumbersOf<T>(c.use_fp16_acc), ChainForm::kMatrices, target);
    const std::optional<ChainPath> expected = ExpectedPath<T>(recipe, rows, target);
    // The ends of the ranges are all there.
    if (!expected || c.a_count() < 2 || c.b_count() < 2) continue;
    ASSERT_EQ(static_cast<int>(*path), static_cast<int>(*expected)) << recipe.name << ", " << name;
  }
}

template <typename T>
void CrossShapes(uint64_t seed) {
  Random random(seed);
  int turn = 0;
  for (const ChainRecipe& recipe : ChainRecipes<T>()) {
    for (const int32_t cols : {1, 15, 16, 17, 31, 32, 33, 47, 48, 63, 64, 65, 80, 129}) {
      for (const int32_t rows : {1, 2, 3, 4, 5, 6, 7, 8, 9, 14, 21}) {
        if (++turn % testing::Step(11) != 0) continue;
        const int32_t inner = random.Pick<int32_t>({1, 2, 3, 4, 5, 8, 9, 17, 33});
        ASSERT_NO_FATAL_FAILURE(CheckProduct<T>(&random, recipe, rows, inner, cols));
      }
    }
  }
}

TEST(ChainMatrices, Int32Shapes) { CrossShapes<int32_t>(0x3a11); }
TEST(ChainMatrices, FloatShapes) { CrossShapes<float>(0x3a12); }

// Each path with certainty, and nothing behind the output.
template <typename T>
void CheckEveryRecipe() {
  Random random(0x3a13);
  for (const ChainRecipe& recipe : ChainRecipes<T>()) {
    ASSERT_NO_FATAL_FAILURE(CheckProduct<T>(&random, recipe, 18, 13, 49));
    ASSERT_TRUE(testing::WritesItsOutputAlone(DrawProduct<T>(&random, recipe, 5, 7, 17)));
  }
}

TEST(ChainMatrices, EveryInt32Recipe) { CheckEveryRecipe<int32_t>(); }
TEST(ChainMatrices, EveryFloatRecipe) { CheckEveryRecipe<float>(); }

// Lines of chosen outputs, in the order of the definition, before the line of the weights.
TEST(ChainMatrices, LinesFromInsideTiles) {
  for (const int32_t row : {0, 3, 4, 6}) {
    for (const int32_t column : {0, 16, 31, 46}) {
      MatMulCase<float> c;
      c.rows = 7;
      c.inner = 3;
      c.cols = 47;
      c.accumulator_size = 40;
      c.a.assign(static_cast<size_t>(c.a_count()), 1.0f);
      c.b.assign(static_cast<size_t>(c.b_count()), 1.5f);
      c.a[static_cast<size_t>(row * 3)] = 3000000.0f;
      c.b[static_cast<size_t>(column)] = 3.5f;
      c.b[static_cast<size_t>(47 + 46 - column)] = 1048577.0f;  // whose sign is corrected
      const auto definition = DefinitionOf(c);
      EXPECT_EQ(std::count(definition.lines.begin(), definition.lines.end(), '\n'), 3 + 1);
      ASSERT_TRUE(testing::KernelAgainstDefinition(c, definition, 1));
    }
  }
}

// Entries, rows and columns shared out: the lines of all entries keep their order.
template <typename T>
void CheckShared(const MatMulCase<T>& c, const std::string& name) {
  const auto definition = DefinitionOf(c);
  testing::BackwardParts backward(1);
  testing::ThreadParts threads(3, 1);
  for (Workers* workers : {static_cast<Workers*>(&backward), static_cast<Workers*>(&threads)}) {
    auto actual = testing::Output<T>{testing::UnwrittenBuffer<T>(c.count(), 1), ""};
    actual.lines = testing::PrintedAndCountedBy([&] { c.Run(2, workers, actual.values.data()); });
    ASSERT_TRUE(testing::SameOutputs(c, definition, actual, "shared, " + name));
  }
}

template <typename T>
void CheckSharedRecipes(uint64_t seed) {
  Random random(seed);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (const ChainRecipe& recipe : ChainRecipes<T>()) {
      const int32_t rows = random.Pick(std::vector<int32_t>{1, 7, 130});
      MatMulCase<T> c = DrawProduct<T>(&random, recipe, rows, 5, 48);
      ASSERT_NO_FATAL_FAILURE(CheckShared(c, std::string(recipe.name) + ", " + name));
      c = DrawProduct<T>(&random, recipe, 3, 5, 17);
      c.batch = random.Pick(std::vector<int32_t>{2, 20});
      c.a = testing::DrawRange<T>(&random, c.a_count(), recipe.input, recipe);
      c.b = testing::DrawRange<T>(&random, c.b_count(), recipe.weights, recipe);
      ASSERT_NO_FATAL_FAILURE(CheckShared(c, std::string(recipe.name) + ", entries, " + name));
    }
  }
  testing::Ran(testing::Path::kSharedProduct);
  testing::Ran(testing::Path::kSharedMatrices);
}

TEST(ChainMatrices, SharedInt32Recipes) { CheckSharedRecipes<int32_t>(0x5b1); }
TEST(ChainMatrices, SharedFloatRecipes) { CheckSharedRecipes<float>(0x5b2); }

// Each request in turn is refused: the definition does it.
template <typename T>
void CheckFailures(const MatMulCase<T>& c) {
  const auto definition = DefinitionOf(c);
  const auto mult_shift = static_cast<int8_t>(c.mult_shift);
  int requests = 1;
  for (int failing = -1; failing < requests; ++failing) {
    testing::FailingScratch scratch(failing);
    auto actual = testing::Output<T>{testing::UnwrittenBuffer<T>(c.count(), 1), ""};
    const MatMulCall<T> call = c.CallOf(c.a.data(), c.b.data(), actual.values.data(), &mult_shift);
    CallingThread calling_thread;
    actual.lines = testing::PrintedBy([&] {
      ComputeMatMul(
          call, 1, [&] { return std::make_unique<testing::BorrowedScratch>(&scratch); },
          &calling_thread);
    });
    ASSERT_TRUE(
        testing::SameOutputs(c, definition, actual, "without request " + std::to_string(failing)));
    if (failing < 0) requests = scratch.requests();
  }
}

TEST(ChainMatrices, WithoutMemory) {
  Random random(0x3a14);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (const int32_t cols : {3, 17}) {
      for (const ChainRecipe& recipe : ChainRecipes<int32_t>()) {
        CheckFailures(DrawProduct<int32_t>(&random, recipe, 19, 5, cols));
      }
      for (const ChainRecipe& recipe : ChainRecipes<float>()) {
        CheckFailures(DrawProduct<float>(&random, recipe, 19, 5, cols));
      }
    }
  }
}

}  // namespace
}  // namespace bitfold
