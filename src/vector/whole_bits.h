// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Numbers that should be whole and small, taken for such by loops that find out on the way.

#ifndef BITFOLD_SRC_VECTOR_WHOLE_BITS_H_
#define BITFOLD_SRC_VECTOR_WHOLE_BITS_H_

#include <cstdint>

#include "vector/quantise_half.h"

namespace bitfold {

// Whole floats are read right below this magnitude.
inline constexpr int32_t kWholeBitsLimit = 1 << 22;

// Of differences as WholeBits collects them: -0 differs from 0 in its sign alone.
inline bool AreWhole(uint32_t differences) { return (differences & INT32_MAX) == 0; }

// A whole number modulo 2^32. Of any other float *differences gets bits, or the result is beyond
// kWholeBitsLimit. It is read off the sum with 1.5 * 2^23, whose last bit is worth 1, because a
// conversion to int32 may not take every float: the bits of sums that have left the binade of that
// number are too far away from its own.
inline uint32_t WholeBits(int32_t x, uint32_t*) { return static_cast<uint32_t>(x); }
inline uint32_t WholeBits(float x, uint32_t* differences) {
  constexpr float kUnits = 12582912;
  const float sum = x + kUnits;
  *differences |= static_cast<uint32_t>(BitsOf(sum - kUnits) ^ BitsOf(x));
  return static_cast<uint32_t>(BitsOf(sum)) - uint32_t{0x4b400000};
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_VECTOR_WHOLE_BITS_H_
