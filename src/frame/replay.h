// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Shared work of which some units are to be done in order: those that print a line, or end the
// process with a text. A part leaves them, and they are done when all parts have ended.

#ifndef BITFOLD_SRC_FRAME_REPLAY_H_
#define BITFOLD_SRC_FRAME_REPLAY_H_

#include <cstdint>
#include <functional>

#include "frame/workers.h"

namespace bitfold {

// Takes a unit that is to be done in order.
using Replay = std::function<void(int64_t unit)>;

// Does the units [first, end) but for those that it gives to `replay`, in ascending order.
using ReplayPart = std::function<void(int64_t first, int64_t end, const Replay& replay)>;

// Whether a part has all units.
inline bool IsWhole(int64_t first, int64_t end, int64_t units) {
  return first == 0 && end == units;
}

// Shares the units [0, units) out. What parts give to their replay is done by `define` in ascending
// order: at once in a part that has all units, otherwise on the calling thread, when all parts have
// ended.
void ShareUnits(Workers* workers, int64_t units, int64_t cost, const ReplayPart& part,
                const Replay& define);

// The same of functions that stay where they are.
template <typename Part, typename Define>
void ShareWithReplay(Workers* workers, int64_t units, int64_t cost, const Part& part,
                     const Define& define) {
  ShareUnits(workers, units, cost, std::cref(part), std::cref(define));
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_REPLAY_H_
