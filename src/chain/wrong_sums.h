// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How many sums of a layer differ from those of full width, counted while tiles are finished.

#ifndef BITFOLD_SRC_CHAIN_WRONG_SUMS_H_
#define BITFOLD_SRC_CHAIN_WRONG_SUMS_H_

#include <cstdint>
#include <mutex>

namespace bitfold {

// Of a call or of a part of it.
class WrongSums {
 public:
  WrongSums() = default;
  WrongSums(const WrongSums&) = delete;
  WrongSums& operator=(const WrongSums&) = delete;

  int64_t count() const { return count_; }
  void Add(int64_t count) { count_ += count; }

  // What another part of the call found; several threads may do so at the same time.
  void Join(const WrongSums& part) {
    const std::lock_guard<std::mutex> lock(mutex_);
    count_ += part.count_;
  }

 private:
  int64_t count_ = 0;
  std::mutex mutex_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_WRONG_SUMS_H_
