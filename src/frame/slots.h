// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_FRAME_SLOTS_H_
#define BITFOLD_SRC_FRAME_SLOTS_H_

#include <condition_variable>
#include <mutex>
#include <vector>

namespace bitfold {

// Numbers that tell apart what runs at the same time, each lent to one part of the work.
class Slots {
 public:
  // 0 to count - 1. Requires count >= 1.
  explicit Slots(int count) {
    for (int slot = count - 1; slot >= 0; --slot) free_.push_back(slot);
  }

  // One of them for the life of the object; where all are lent it waits for one.
  class Lease {
   public:
    explicit Lease(Slots* slots) : slots_(slots), number_(slots->Take()) {}
    ~Lease() { slots_->Return(number_); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    int number() const { return number_; }

   private:
    Slots* const slots_;
    const int number_;
  };

 private:
  int Take() {
    std::unique_lock<std::mutex> lock(mutex_);
    returned_.wait(lock, [this] { return !free_.empty(); });
    const int slot = free_.back();
    free_.pop_back();
    return slot;
  }

  // The room for what comes back was there before: nothing is thrown.
  void Return(int slot) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      free_.push_back(slot);
    }
    returned_.notify_one();
  }

  std::mutex mutex_;
  std::condition_variable returned_;
  std::vector<int> free_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_SLOTS_H_
