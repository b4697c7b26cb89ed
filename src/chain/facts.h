// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What an array of numbers is known to be, from one look at each of them: on this a call decides
// how it may be computed.

#ifndef BITFOLD_SRC_CHAIN_FACTS_H_
#define BITFOLD_SRC_CHAIN_FACTS_H_

#include <algorithm>
#include <cstdint>

namespace bitfold {

// Bounds of an array, 0 taken in.
struct Facts {
  // Floats: every one is a whole number of at most 2^24 in magnitude. Without it the bounds mean
  // nothing.
  bool is_whole = true;
  int64_t min = 0;
  int64_t max = 0;

  int64_t Magnitude() const { return std::max(-min, max); }
  bool LieIn(int64_t low, int64_t high) const { return low <= min && max <= high; }
};

Facts FactsOf(const int32_t* x, int64_t count);
Facts FactsOf(const float* x, int64_t count);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_FACTS_H_
