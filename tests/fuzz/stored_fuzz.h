// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Stored integers, windows over them, and how sums become such, read from a fuzzer's bytes.

#ifndef BITFOLD_TESTS_FUZZ_STORED_FUZZ_H_
#define BITFOLD_TESTS_FUZZ_STORED_FUZZ_H_

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "bitfold/HPreparedConvolution.h"
#include "bitfold/HRequantise.h"
#include "fuzz_input.h"

namespace bitfold::testing {

// With the shift of the sums.
template <typename Out>
RequantiseMode ReadMode(FuzzInput* input, int32_t shift) {
  RequantiseMode mode = {};
  mode.shift = shift;
  mode.rescaling = input->Flag()   ? Rescaling::kTwoRoundings
                   : input->Flag() ? Rescaling::kShortMultiplier
                                   : Rescaling::kOneRounding;
  mode.zero_point = static_cast<Out>(input->Word());
  mode.minimum = std::numeric_limits<Out>::min();
  mode.maximum = std::numeric_limits<Out>::max();
  if (input->Flag()) {
    mode.minimum = static_cast<Out>(input->Word());
    mode.maximum = static_cast<Out>(input->Word());
    if (mode.minimum > mode.maximum) std::swap(mode.minimum, mode.maximum);
  }
  return mode;
}

// Numbers of all bytes, or of few.
template <typename T>
std::vector<T> ReadStored(FuzzInput* input, int64_t count) {
  const int shift = input->Between(0, 7);
  std::vector<T> values;
  for (int64_t i = 0; i < count; ++i) {
    const auto high = static_cast<T>(static_cast<int8_t>(input->Byte()));
    values.push_back(
        static_cast<T>(sizeof(T) == 1 ? high >> shift : (high * 256 + input->Byte()) >> shift));
  }
  return values;
}

// An axis of at least one output.
inline LayerAxis ReadAxis(FuzzInput* input) {
  LayerAxis axis = {input->Between(1, 8), input->Between(1, 4), input->Between(1, 3),
                    input->Between(1, 3), input->Between(0, 4), input->Between(0, 4)};
  const int32_t extent = (axis.taps - 1) * axis.dilation + 1;
  axis.after += std::max(0, extent - axis.padded());
  return axis;
}

// One for all channels, or for each; false where the op would refuse one.
inline bool ReadMultipliers(FuzzInput* input, const RequantiseMode& mode, int32_t channels,
                            std::vector<double>* multipliers) {
  const int32_t count = input->Flag() ? channels : 1;
  const int exponent = input->Between(-31, 8);
  for (int32_t i = 0; i < count; ++i) {
    const double fraction = 0.5 + std::ldexp(input->Word(), -33);
    multipliers->push_back(std::ldexp(fraction, exponent + input->Between(-2, 2)));
    const ChannelMultiplier shifted = ShiftedMultiplier(multipliers->back(), mode.shift);
    if (!IsDefined(mode.rescaling, shifted)) return false;
  }
  return true;
}

// Calls `compare` with numbers of the types that go in and come out.
template <typename Compare>
void ForStoredTypes(FuzzInput* input, Compare compare) {
  switch (input->Between(0, 3)) {
    case 0:
      return compare(int8_t{}, int8_t{});
    case 1:
      return compare(int8_t{}, int16_t{});
    case 2:
      return compare(int16_t{}, int8_t{});
    default:
      return compare(int16_t{}, int16_t{});
  }
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_FUZZ_STORED_FUZZ_H_
