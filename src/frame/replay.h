// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Shared work of which some units are to be done in order: those that print a line, or end the
// process with a text. A part leaves them, and they are done when all parts have ended.

#ifndef BITFOLD_SRC_FRAME_REPLAY_H_
#define BITFOLD_SRC_FRAME_REPLAY_H_

#include <algorithm>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "frame/workers.h"

namespace bitfold {

// Takes a unit that is to be done in order.
using Replay = std::function<void(int64_t unit)>;

// Whether a part has all units.
inline bool IsWhole(int64_t first, int64_t end, int64_t units) {
  return first == 0 && end == units;
}

// Shares the units [0, units) among the workers: part(first, end, replay), which calls
// replay(unit), in ascending order, for what is to be done in order. That is define(unit): at once
// in a part that has all units, otherwise on the calling thread, when all parts have ended.
template <typename Part, typename Define>
void ShareWithReplay(Workers* workers, int64_t units, int64_t cost, const Part& part,
                     const Define& define) {
  std::mutex mutex;
  std::vector<int64_t> noted;
  const auto note = [&](int64_t unit) {
    const std::lock_guard<std::mutex> lock(mutex);
    noted.push_back(unit);
  };
  const auto share = [&](int64_t first, int64_t end) {
    const bool is_whole = IsWhole(first, end, units);
    part(first, end, is_whole ? Replay(std::cref(define)) : Replay(std::cref(note)));
  };
  workers->Share(units, cost, std::cref(share));
  std::sort(noted.begin(), noted.end());
  for (const int64_t unit : noted) define(unit);
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_REPLAY_H_
