// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Threads that share the work of a call, from whoever owns the call.

#ifndef BITFOLD_SRC_FRAME_WORKERS_H_
#define BITFOLD_SRC_FRAME_WORKERS_H_

#include <cstdint>
#include <functional>

namespace bitfold {

class Workers {
 public:
  // Does the units [first, end). Must not throw: it may run on a thread that nobody guards.
  using Part = std::function<void(int64_t first, int64_t end)>;

  virtual ~Workers() = default;

  // Runs `part` over ranges that together are [0, units), in any order and at the same time, and
  // returns when all are done. `cost` are the cycles of a unit, roughly: little work stays on the
  // calling thread.
  virtual void Share(int64_t units, int64_t cost, const Part& part) = 0;
};

// The calling thread alone.
class CallingThread : public Workers {
 public:
  void Share(int64_t units, int64_t, const Part& part) override {
    if (units > 0) part(0, units);
  }
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_WORKERS_H_
