// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "frame/replay.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace bitfold {

void ShareUnits(Workers* workers, int64_t units, int64_t cost, const ReplayPart& part,
                const Replay& define) {
  std::mutex mutex;
  std::vector<int64_t> noted;
  const auto note = [&](int64_t unit) {
    const std::lock_guard<std::mutex> lock(mutex);
    noted.push_back(unit);
  };
  const auto share = [&](int64_t first, int64_t end) {
    if (IsWhole(first, end, units)) return part(first, end, define);
    part(first, end, note);
  };
  workers->Share(units, cost, std::cref(share));
  std::sort(noted.begin(), noted.end());
  for (const int64_t unit : noted) define(unit);
}

}  // namespace bitfold
