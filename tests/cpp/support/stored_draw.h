// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Stored integers, and how sums become such: what prepared layers and products draw.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_STORED_DRAW_H_
#define BITFOLD_TESTS_CPP_SUPPORT_STORED_DRAW_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "bitfold/HRequantise.h"
#include "support/random.h"

namespace bitfold::testing {

// The types that go in and come out.
template <typename Input, typename Output>
struct StoredTypes {
  using In = Input;
  using Out = Output;
};
using AllStoredTypes =
    ::testing::Types<StoredTypes<int8_t, int8_t>, StoredTypes<int8_t, int16_t>,
                     StoredTypes<int16_t, int8_t>, StoredTypes<int16_t, int16_t>>;

// Of a whole type, or at its ends.
enum class Numbers { kAny, kExtreme };

inline Numbers DrawNumbers(Random* random) {
  return random->Between(0, 3) == 0 ? Numbers::kExtreme : Numbers::kAny;
}

template <typename T>
T DrawStored(Random* random, Numbers numbers) {
  using Limits = std::numeric_limits<T>;
  if (numbers == Numbers::kExtreme)
    return random->Between(0, 3) == 0 ? Limits::max() : Limits::min();
  return static_cast<T>(random->Between(Limits::min(), Limits::max()));
}

// With the shift of the sums.
template <typename Out>
RequantiseMode DrawMode(Random* random, int32_t shift) {
  using Limits = std::numeric_limits<Out>;
  RequantiseMode mode = {};
  mode.shift = shift;
  const int rescaling = random->Between(0, 2);
  mode.rescaling = rescaling == 0   ? Rescaling::kTwoRoundings
                   : rescaling == 1 ? Rescaling::kShortMultiplier
                                    : Rescaling::kOneRounding;
  mode.zero_point = random->Pick<int32_t>(
      {0, Limits::min(), Limits::max(), random->Between(Limits::min(), Limits::max())});
  mode.minimum = Limits::min();
  mode.maximum = Limits::max();
  if (random->Between(0, 3) == 0) {
    mode.minimum = random->Between(Limits::min(), Limits::max());
    mode.maximum = random->Between(mode.minimum, Limits::max());
  }
  return mode;
}

// The bits of a magnitude after the shift, at most those of an accumulator.
inline int BitsOfSum(double largest, int width, int shift) {
  return std::min(std::max(width, 1) - 1, static_cast<int>(std::log2(largest)) + 1 - shift);
}

// One that the rescaling takes; mostly one that brings sums into the output's type.
template <typename Out>
double DrawMultiplier(Random* random, const RequantiseMode& mode, int bits_of_sums) {
  if (random->Between(0, 20) == 0) return 0.0;
  const double fraction = random->Between(0, 3) == 0 ? 0.5 : 0.5 + std::ldexp(random->Bits(), -33);
  const int highest = mode.rescaling == Rescaling::kTwoRoundings ? kHighestTwoRoundingsExponent
                      : mode.rescaling == Rescaling::kShortMultiplier
                          ? kHighestShortMultiplierExponent
                          : 60;
  const int bits = static_cast<int>(8 * sizeof(Out));
  int exponent = bits - bits_of_sums + random->Between(-3, 2) - mode.shift;
  const int kind = random->Between(0, 9);
  if (kind == 0) exponent = highest - mode.shift - random->Between(0, 1);
  if (kind == 1) exponent = -31 + random->Between(0, 1);
  return std::ldexp(fraction, std::clamp(exponent, -31, highest - mode.shift));
}

// One for all channels, or for each.
template <typename Out>
std::vector<double> DrawMultipliers(Random* random, const RequantiseMode& mode, int bits_of_sums,
                                    int32_t channels) {
  std::vector<double> multipliers;
  const int32_t count = random->Between(0, 2) == 0 ? 1 : channels;
  for (int32_t i = 0; i < count; ++i) {
    multipliers.push_back(DrawMultiplier<Out>(random, mode, bits_of_sums));
  }
  return multipliers;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_STORED_DRAW_H_
