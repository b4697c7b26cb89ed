// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Numbers for products of stored matrices, their comparisons, and what these took.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_PREPARED_MATMUL_CHECK_H_
#define BITFOLD_TESTS_CPP_SUPPORT_PREPARED_MATMUL_CHECK_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "chain/plan.h"
#include "support/ledger.h"
#include "support/prepared_matmul_case.h"
#include "support/stored_draw.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {

// What makes products of any numbers of a type take a plan, where the target has all that it needs.
struct MatmulRecipe {
  const char* name;
  ChainPath path;
  int32_t width;
  int32_t shift;
  int32_t zero_points[2];
  bool use_fp16_acc = false;
};

template <typename In>
std::vector<MatmulRecipe> MatmulRecipes() {
  constexpr auto kStepwise = ChainPath::kStepwise;
  constexpr auto kModular = ChainPath::kModular;
  constexpr auto kRounded = ChainPath::kRounded;
  constexpr auto kRemainders = ChainPath::kDotRemainders;
  constexpr auto kShorts = ChainPath::kDotShorts;
  constexpr auto kBytes = ChainPath::kDotBytes;
  if constexpr (std::is_same_v<In, int8_t>) {
    return {{"bytes of 32 bits", kBytes, 32, 0, {-5, 0}},
            {"bytes of 15 bits, corrected", kBytes, 15, 0, {-128, 0}},
            {"bytes by correction of 16 bits", kBytes, 16, 0, {127, -128}},
            {"nine bits", kBytes, 32, 0, {0, 1}},
            {"nine bits, the least zero points", kBytes, 18, 0, {-128, -128}},
            {"nine bits, the greatest zero points, 16 bits", kBytes, 16, 0, {127, 127}},
            {"nine bits of 15, corrected", kShorts, 15, 0, {0, 1}},
            {"products above 14 bits", kStepwise, 14, 0, {127, 0}},
            {"products of 8 bits, shifted", kStepwise, 8, 2, {-3, 7}},
            {"a shift of 1", kRemainders, 20, 1, {11, 0}},
            {"a shift of 5", kRemainders, 32, 5, {-128, 0}},
            {"nine bits, a shift of 1", kRounded, 20, 1, {11, 2}},
            {"a shift of 6", kRounded, 22, 6, {127, 0}},
            {"a shift of 24", kRounded, 32, 24, {-128, 127}},
            {"a shift of 25", kModular, 17, 25, {0, 0}},
            {"half precision", kStepwise, 32, 0, {5, -9}, true},
            {"half precision, shifted", kStepwise, 12, 6, {-128, 0}, true}};
  } else {
    return {{"shorts of 32 bits", kShorts, 32, 0, {0, 0}},
            {"shorts of 30 bits, corrected", kShorts, 30, 0, {0, 0}},
            {"shorts by correction", kShorts, 32, 0, {0, -1}},
            {"first numbers beyond shorts", kModular, 32, 0, {-1, 0}},
            {"second numbers beyond shorts", kModular, 32, 0, {0, 1}},
            {"the widest spans", kModular, 32, 0, {-32768, 32767}},
            {"products above 29 bits", kStepwise, 29, 0, {0, 0}},
            {"products of 20 bits, shifted", kStepwise, 20, 3, {1, -2}},
            {"a shift of 31", kModular, 32, 31, {7, 0}},
            {"half precision", kStepwise, 24, 0, {0, 0}, true},
            {"half precision, shifted", kStepwise, 32, 6, {32767, -32768}, true}};
  }
}

template <typename In, typename Out>
PreparedMatmulCase<In, Out> OfRecipe(const MatmulRecipe& recipe) {
  PreparedMatmulCase<In, Out> c;
  c.accumulator_size = recipe.width;
  c.mode.shift = recipe.shift;
  std::copy_n(recipe.zero_points, 2, c.zero_points);
  c.use_fp16_acc = recipe.use_fp16_acc;
  return c;
}

// Draws all numbers of a product whose shapes, width, shift and zero points are set.
template <typename In, typename Out>
void FillMatmul(Random* random, PreparedMatmulCase<In, Out>* c, Numbers numbers = Numbers::kAny) {
  c->first.clear();
  c->second.clear();
  for (int64_t i = 0; i < c->FirstCount(); ++i) {
    c->first.push_back(DrawStored<In>(random, numbers));
  }
  const Numbers of_second = random->Flag() ? numbers : Numbers::kAny;
  for (int64_t i = 0; i < c->SecondCount(); ++i) {
    c->second.push_back(DrawStored<In>(random, of_second));
  }
  c->mode = DrawMode<Out>(random, c->mode.shift);
  const double span = std::numeric_limits<In>::max() - std::numeric_limits<In>::min();
  const int bits = BitsOfSum(std::max(c->inner, 1) * span * span / 4,
                             c->use_fp16_acc ? 16 : c->accumulator_size, c->mode.shift);
  c->multipliers = DrawMultipliers<Out>(random, c->mode, bits, c->cols);
}

// Also where a sign is corrected, whose line says so.
template <typename In, typename Out>
void RanMatmul(const PreparedMatmul<In, Out>& matmul, bool warns) {
  if (!matmul.plan()) return Ran(Path::kPreparedMatmulHalf);
  const ChainPath path = matmul.plan()->path;
  Ran(static_cast<Path>(static_cast<int>(Path::kPreparedMatmulStepwise) + static_cast<int>(path)));
  if (matmul.moves_zero_point()) Ran(Path::kPreparedMatmulMovedZeroPoint);
  if (IsDots(path) && !matmul.takes_dots()) Ran(Path::kPreparedMatmulInLanes);
  if (!warns) return;
  Ran(matmul.takes_dots() ? Path::kPreparedMatmulDotWarning : Path::kPreparedMatmulWarning);
}

// The two comparisons, each on its own: the definition against the oracle, and what each target
// makes against the definition, on the calling thread and by one of several pools in turn. `path`
// is what is expected of a target with all instructions.
template <typename In, typename Out>
::testing::AssertionResult CheckMatmul(const PreparedMatmulCase<In, Out>& c,
                                       std::optional<ChainPath> path = std::nullopt,
                                       int offset = 0) {
  const MatmulOutput<Out> definition = c.Definition(offset);
  const auto oracle = SameMatmul(c, c.Oracle(), definition, "HPreparedMatmul definition");
  if (!oracle) return oracle;
  static size_t turn = 0;
  CallingThread calling_thread;
  BackwardParts backward(1);
  ThreadParts two(2, 1);
  ThreadParts five(5, 1);
  Workers* const pools[] = {&backward, &two, &five};
  const bool warns = CountLines(definition.lines).corrected_weights > 0;
  for (const auto& [target, target_name] : AllTargets()) {
    const ForcedTarget forced(target);
    const auto matmul = c.Prepare();
    if (target == Target::kAvx512Vnni && path && matmul->plan()) {
      const bool in_lanes = *path == ChainPath::kDotRemainders && !HasRemainders(target);
      const ChainPath expected = in_lanes ? ChainPath::kRounded : *path;
      if (matmul->plan()->path != expected) {
        return ::testing::AssertionFailure()
               << "took plan " << static_cast<int>(matmul->plan()->path) << ", not "
               << static_cast<int>(expected) << c.Inputs(0);
      }
    }
    Workers* const pool = pools[turn++ % std::size(pools)];
    for (Workers* workers : {static_cast<Workers*>(&calling_thread), pool}) {
      const auto actual = c.By(*matmul, workers, offset);
      const auto same = SameMatmul(c, definition, actual,
                                   std::string("prepared product, ") + target_name + ", " +
                                       std::to_string(workers->AtOnce()) + " at once");
      if (!same) return same;
    }
    RanMatmul(*matmul, warns);
  }
  return ::testing::AssertionSuccess();
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_PREPARED_MATMUL_CHECK_H_
