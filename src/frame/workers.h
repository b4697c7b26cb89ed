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
  // Does the units [first, end).
  using Part = std::function<void(int64_t first, int64_t end)>;

  virtual ~Workers() = default;

  // How many parts run at the same time, at most.
  virtual int AtOnce() const = 0;

  // The cycles of a unit that is worth a thread's while: what the runtime takes for a task.
  virtual int64_t LeastCost() const { return 40000; }

  // Runs `part` over ranges that together are [0, units), in any order and at the same time, and
  // returns when all are done. `cost` are the cycles of a unit, roughly: little work stays on the
  // calling thread. A part is as if the calling thread ran it: its lines are counted where that
  // counts its own, it has the default floating-point environment, and the first exception of a
  // part is thrown here, when all parts have ended.
  void Share(int64_t units, int64_t cost, const Part& part);

 private:
  // The same for a part that takes care of itself: it does not throw, and runs on any thread.
  virtual void ShareGuarded(int64_t units, int64_t cost, const Part& part) = 0;
};

// The calling thread alone.
class CallingThread : public Workers {
 public:
  int AtOnce() const override { return 1; }

 private:
  void ShareGuarded(int64_t units, int64_t, const Part& part) override { part(0, units); }
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_WORKERS_H_
