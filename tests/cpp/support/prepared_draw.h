// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Numbers for prepared layers: what leads to each plan, and what makes outputs that tell sums
// apart.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_PREPARED_DRAW_H_
#define BITFOLD_TESTS_CPP_SUPPORT_PREPARED_DRAW_H_

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#include "chain/plan.h"
#include "support/prepared_case.h"
#include "support/random.h"
#include "support/stored_draw.h"

namespace bitfold::testing {

// What makes an ordinary layer of any int8 weights take a plan, where the target has all that it
// needs.
struct PreparedRecipe {
  const char* name;
  ChainPath path;
  int32_t width;
  int32_t shift;
  int32_t zero_point;
  bool use_fp16_acc = false;
};

template <typename In>
std::vector<PreparedRecipe> PreparedRecipes() {
  constexpr auto kStepwise = ChainPath::kStepwise;
  constexpr auto kModular = ChainPath::kModular;
  constexpr auto kRounded = ChainPath::kRounded;
  constexpr auto kRemainders = ChainPath::kDotRemainders;
  constexpr auto kShorts = ChainPath::kDotShorts;
  constexpr auto kBytes = ChainPath::kDotBytes;
  if constexpr (std::is_same_v<In, int8_t>) {
    return {{"bytes of 32 bits", kBytes, 32, 0, 0},
            {"bytes of 15 bits, the least zero point", kBytes, 15, 0, -128},
            {"bytes of 20 bits, the greatest zero point", kBytes, 20, 0, 127},
            {"products above 14 bits", kStepwise, 14, 0, 127},
            {"products of 8 bits, shifted", kStepwise, 8, 2, -3},
            {"a shift of 1", kRemainders, 20, 1, 11},
            {"a shift of 5", kRemainders, 32, 5, -128},
            {"a shift of 6", kRounded, 22, 6, 127},
            {"a shift of 24", kRounded, 32, 24, -128},
            {"a shift of 25", kModular, 17, 25, 0},
            {"half precision", kStepwise, 32, 0, 5, true},
            {"half precision, shifted", kStepwise, 12, 6, -128, true}};
  } else {
    return {{"shorts of 32 bits", kShorts, 32, 0, 0},
            {"shorts of 22 bits", kShorts, 22, 0, 0},
            {"one more than shorts", kModular, 32, 0, -1},
            {"one less than shorts", kModular, 24, 0, 1},
            {"the widest span", kModular, 31, 0, -32768},
            {"products above 21 bits", kStepwise, 21, 0, 0},
            {"a shift of 2", kRounded, 24, 2, 32767},
            {"a shift of 31", kModular, 24, 31, 7},
            {"half precision", kStepwise, 24, 0, 0, true},
            {"half precision, shifted", kStepwise, 32, 6, 32767, true}};
  }
}

template <typename In, typename Out>
PreparedCase<In, Out> OfRecipe(const PreparedRecipe& recipe) {
  PreparedCase<In, Out> c;
  c.accumulator_size = recipe.width;
  c.mult_shift = recipe.shift;
  c.zero_point = recipe.zero_point;
  c.use_fp16_acc = recipe.use_fp16_acc;
  return c;
}

template <typename In, typename Out>
void DrawData(Random* random, PreparedCase<In, Out>* c, Numbers numbers) {
  c->input.clear();
  for (int64_t i = 0; i < c->InputElements(); ++i) {
    c->input.push_back(DrawStored<In>(random, numbers));
  }
}

// None, small ones, as large as the width, beyond it, and the ends.
inline int32_t DrawBias(Random* random, int32_t width, int kind) {
  const int64_t most = int64_t{1} << std::min(width, 31);
  if (kind == 0) return random->Between(-1000, 1000);
  if (kind == 1) return random->Between(-most, std::min<int64_t>(most, INT32_MAX));
  if (kind == 2) return static_cast<int32_t>(random->Bits());
  return random->Pick<int32_t>({INT32_MIN, INT32_MAX, 0, -1});
}

// Bits that the magnitude of a sum can have, after the shift.
template <typename In, typename Out>
int BitsOfSums(const PreparedCase<In, Out>& c) {
  const double taps =
      double{1} * c.rows.taps * c.columns.taps * (c.is_depthwise ? 1 : c.in_channels);
  const double largest = taps * 128 * (std::is_same_v<In, int8_t> ? 255 : 65535);
  return BitsOfSum(largest, c.use_fp16_acc ? 16 : c.accumulator_size, c.mult_shift);
}

// Draws all numbers of a layer whose shape, width, shift and zero point are set.
template <typename In, typename Out>
void FillPrepared(Random* random, PreparedCase<In, Out>* c, Numbers numbers = Numbers::kAny) {
  DrawData(random, c, numbers);
  c->filter.clear();
  for (int64_t i = 0; i < c->FilterElements(); ++i) {
    c->filter.push_back(DrawStored<int8_t>(random, numbers == Numbers::kExtreme && random->Flag()
                                                       ? Numbers::kExtreme
                                                       : Numbers::kAny));
  }
  c->bias.clear();
  const int bias = random->Between(-1, 3);
  for (int32_t i = 0; i < (bias < 0 ? 0 : c->out_channels); ++i) {
    c->bias.push_back(DrawBias(random, c->accumulator_size, bias));
  }
  c->mode = DrawMode<Out>(random, c->mult_shift);
  c->multipliers = DrawMultipliers<Out>(random, c->mode, BitsOfSums(*c), c->out_channels);
}

// The same, the largest product among those that the plan must allow for.
template <typename In, typename Out>
void FillForPlan(Random* random, PreparedCase<In, Out>* c, Numbers numbers = Numbers::kAny) {
  FillPrepared(random, c, numbers);
  c->filter[static_cast<size_t>(random->Between(0, c->FilterElements() - 1))] = INT8_MIN;
}

// An axis of at least one output.
inline LayerAxis DrawAxis(Random* random) {
  LayerAxis axis = {random->Between(1, 9), random->Between(1, 5), random->Between(1, 3),
                    random->Between(1, 3), random->Between(0, 3), random->Between(0, 3)};
  if (random->Flag()) axis.dilation = 1;
  if (random->Between(0, 2) == 0) axis.taps = axis.stride = 1;
  const int32_t extent = (axis.taps - 1) * axis.dilation + 1;
  axis.after += std::max(0, extent - axis.padded());
  return axis;
}

// Both axes go by one rule.
template <typename In, typename Out>
void PlaceAsSame(PreparedCase<In, Out>* c) {
  c->rows.padding = c->columns.padding = Padding::kSame;
}

template <typename In, typename Out>
PreparedCase<In, Out> DrawPrepared(Random* random) {
  PreparedCase<In, Out> c;
  c.batch = random->Between(1, 3);
  c.rows = DrawAxis(random);
  c.columns = DrawAxis(random);
  if (random->Flag()) PlaceAsSame(&c);
  c.is_depthwise = random->Between(0, 3) == 0;
  c.in_channels = random->Between(1, random->Flag() ? 40 : 6);
  c.out_channels = c.is_depthwise ? random->Between(1, c.in_channels) : random->Between(1, 40);
  c.accumulator_size = random->Flag() ? 32 : random->Between(1, 32);
  c.use_fp16_acc = random->Between(0, 4) == 0;
  c.mult_shift = random->Flag() ? 0 : random->Between(0, c.use_fp16_acc ? 6 : 31);
  c.zero_point = random->Flag() ? 0 : DrawStored<In>(random, DrawNumbers(random));
  FillPrepared(random, &c, DrawNumbers(random));
  return c;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_PREPARED_DRAW_H_
