// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Random layers whose partial sums meet the widths that they are compared with.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_PARTIAL_SUMS_DRAW_H_
#define BITFOLD_TESTS_CPP_SUPPORT_PARTIAL_SUMS_DRAW_H_

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "support/partial_sums_case.h"
#include "support/random.h"

namespace bitfold::testing {

inline LayerAxis DrawSummedAxis(Random* random) {
  LayerAxis axis = {random->Between(1, 9),
                    random->Pick<int32_t>({1, 1, 2, 3, 3, 4}),
                    random->Pick<int32_t>({1, 1, 2, 3}),
                    random->Pick<int32_t>({1, 1, 1, 2}),
                    random->Pick<int32_t>({0, 0, 1, 3}),
                    random->Pick<int32_t>({0, 0, 1, 2})};
  const int32_t extent = (axis.taps - 1) * axis.dilation + 1;
  axis.after += std::max(0, extent - axis.padded());
  return axis;
}

// Numbers of all magnitudes, of few bits, or the type's ends.
template <typename T>
std::vector<T> DrawSummed(Random* random, int64_t count) {
  constexpr int kBits = 8 * sizeof(T);
  const int shift = random->Flag() ? 0 : random->Between(0, kBits - 1);
  const bool has_ends = random->Between(0, 3) == 0;
  std::vector<T> values;
  for (int64_t i = 0; i < count; ++i) {
    auto value = static_cast<T>(random->Bits());
    if (has_ends && random->Flag()) {
      value = random->Flag() ? std::numeric_limits<T>::max() : std::numeric_limits<T>::min();
    }
    values.push_back(static_cast<T>(value >> shift));
  }
  return values;
}

template <typename T>
int32_t DrawZeroPoint(Random* random) {
  using Limits = std::numeric_limits<T>;
  return random->Pick<int32_t>({0, 0, Limits::min(), Limits::max(), random->Between(-9, 9)});
}

template <typename In, typename Weight>
PartialSumsCase<In, Weight> DrawPartialSums(Random* random) {
  PartialSumsCase<In, Weight> c;
  c.batch = random->Between(1, 3);
  c.rows = DrawSummedAxis(random);
  c.columns = DrawSummedAxis(random);
  c.rows.padding = c.columns.padding = random->Flag() ? Padding::kSame : Padding::kValid;
  c.is_depthwise = random->Between(0, 3) == 0;
  c.in_channels = random->Flag() ? random->Between(1, 5) : random->Between(1, 70);
  const int32_t most = c.is_depthwise ? c.in_channels : 70;
  c.out_channels = random->Between(1, random->Flag() ? most : std::min(most, 4));
  c.filters = random->Between(0, 5) == 0 ? c.batch : 1;
  c.input_zero_point = DrawZeroPoint<In>(random);
  c.filter_zero_point = random->Flag() ? 0 : DrawZeroPoint<Weight>(random);
  c.mult_shift = random->Flag() ? 0 : random->Between(0, kMostSummedShift);
  c.input = DrawSummed<In>(random, c.InputElements());
  c.filter = DrawSummed<Weight>(random, c.FilterElements());
  if (random->Flag()) {
    const int shift = random->Pick<int>({0, 20, 32, 40, 50, 60});
    for (int32_t i = 0; i < c.out_channels; ++i) {
      const auto bits = static_cast<int64_t>(uint64_t{random->Bits()} << 32 | random->Bits());
      c.bias.push_back((bits >> 1) >> shift);
    }
  }
  for (int32_t i = random->Between(0, 3); i > 0; --i) c.sizes.push_back(random->Between(1, 32));
  if (random->Between(0, 2) == 0) {
    for (int32_t i = 0; i < kSumExtremes * c.out_channels; ++i) {
      c.known.push_back(static_cast<int32_t>(random->Bits()) >> random->Between(0, 31));
    }
  }
  return c;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_PARTIAL_SUMS_DRAW_H_
