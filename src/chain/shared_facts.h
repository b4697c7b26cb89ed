// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The facts of an array that several threads look at.

#ifndef BITFOLD_SRC_CHAIN_SHARED_FACTS_H_
#define BITFOLD_SRC_CHAIN_SHARED_FACTS_H_

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>

#include "chain/facts.h"
#include "frame/workers.h"

namespace bitfold {

// Those of FactsOf(x, count).
template <typename T>
Facts SharedFactsOf(const T* x, int64_t count, Workers* workers) {
  constexpr int64_t kUnit = 16384;
  constexpr int64_t kCost = kUnit / 4;
  std::mutex mutex;
  Facts all;
  std::atomic<bool> is_whole{true};  // read where nobody waits for a fraction's whole array
  workers->Share((count + kUnit - 1) / kUnit, kCost, [&](int64_t first, int64_t end) {
    for (int64_t unit = first; unit < end && is_whole; ++unit) {
      const int64_t i = unit * kUnit;
      const Facts facts = FactsOf(x + i, std::min(kUnit, count - i));
      if (!facts.is_whole) is_whole = false;
      const std::lock_guard<std::mutex> lock(mutex);
      all.min = std::min(all.min, facts.min);
      all.max = std::max(all.max, facts.max);
    }
  });
  return is_whole ? all : Facts{false, 0, 0};
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_SHARED_FACTS_H_
