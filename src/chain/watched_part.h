// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What looks at the sums of a part of a call, which no other part shares.

#ifndef BITFOLD_SRC_CHAIN_WATCHED_PART_H_
#define BITFOLD_SRC_CHAIN_WATCHED_PART_H_

#include <optional>

#include "chain/stored_output.h"
#include "chain/sum_watch.h"
#include "chain/wrong_sums.h"

namespace bitfold {

// The outputs of a part of a call: what looks at their sums is its own, and joins that of the call
// at the end.
class WatchedPart {
 public:
  explicit WatchedPart(const StoredOutput& output)
      : output_(output), watch_(output.watch), wrong_(output.wrong) {
    if (watch_ != nullptr) output_.watch = &own_watch_.emplace(watch_->limits());
    if (wrong_ != nullptr) output_.wrong = &own_wrong_;
  }
  ~WatchedPart() {
    if (watch_ != nullptr) watch_->Join(*own_watch_);
    if (wrong_ != nullptr) wrong_->Join(own_wrong_);
  }
  WatchedPart(const WatchedPart&) = delete;
  WatchedPart& operator=(const WatchedPart&) = delete;

  const StoredOutput& output() const { return output_; }

 private:
  StoredOutput output_;
  SumWatch* const watch_;
  WrongSums* const wrong_;
  std::optional<SumWatch> own_watch_;
  WrongSums own_wrong_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_WATCHED_PART_H_
