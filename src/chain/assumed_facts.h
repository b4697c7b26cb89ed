// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What numbers are taken for before all of them have been looked at: bytes, where the first ones
// are. A plan for assumed facts is good for all numbers that lie within them.

#ifndef BITFOLD_SRC_CHAIN_ASSUMED_FACTS_H_
#define BITFOLD_SRC_CHAIN_ASSUMED_FACTS_H_

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <optional>

#include "chain/facts.h"

namespace bitfold {

inline constexpr Facts kUnsignedByte = {true, 0, UINT8_MAX};
inline constexpr Facts kSignedByte = {true, INT8_MIN, INT8_MAX};

// The first of `ranges` that holds the first numbers; empty where none does. Few numbers are all
// looked at: of these the facts are known.
template <typename T>
std::optional<Facts> AssumeFacts(const T* x, int64_t count, std::initializer_list<Facts> ranges) {
  constexpr int64_t kLookedAt = 4096;
  const Facts first = FactsOf(x, std::min(kLookedAt, count));
  if (!first.is_whole) return std::nullopt;
  if (count <= kLookedAt) return first;
  for (const Facts& range : ranges) {
    if (first.LieIn(range.min, range.max)) return range;
  }
  return std::nullopt;
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_ASSUMED_FACTS_H_
