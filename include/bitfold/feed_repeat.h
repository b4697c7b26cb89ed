// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How many passes a feed repeat asks for (rule R1 of docs/arithmetic.md).

#ifndef BITFOLD_FEED_REPEAT_H_
#define BITFOLD_FEED_REPEAT_H_

#include <cstdint>

#include "bitfold/host_device.h"

namespace bitfold {

// The largest feed repeat that the ops accept: 2^31.
inline constexpr float kMaxFeedRepeat = 2147483648.0f;

// The number of passes of the feed: none when feed_repeat <= 0, else the smallest k >= 1 with
// (float)k >= feed_repeat. Up to 2^24 that is the ceiling; above, (float)k rounds, so fewer passes
// than feed_repeat can do.
// Requires feed_repeat <= kMaxFeedRepeat, which NaN and +infinity are not.
BITFOLD_HOST_DEVICE inline int64_t FeedRepeatCount(float feed_repeat) {
  if (0.0f >= feed_repeat) return 0;
  // (float)k never falls as k grows, and (float)2^31 >= feed_repeat: bisect.
  int64_t low = 1;
  int64_t high = int64_t{1} << 31;
  while (low < high) {
    const int64_t middle = low + (high - low) / 2;
    if (static_cast<float>(middle) >= feed_repeat) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  return low;
}

}  // namespace bitfold

#endif  // BITFOLD_FEED_REPEAT_H_
