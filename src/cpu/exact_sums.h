// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What is known of a layer's exact sums before there are any data: constant weights bound them.

#ifndef BITFOLD_SRC_CPU_EXACT_SUMS_H_
#define BITFOLD_SRC_CPU_EXACT_SUMS_H_

#include <cstdint>
#include <vector>

#include "bitfold/HPreparedConvolution.h"

namespace bitfold {

// Input channels [first, end).
struct ChannelGroup {
  int32_t first;
  int32_t end;
};

struct ExactSums {
  // Groups that follow one another, whose sums of products never leave 32 bits. A single one for
  // depthwise layers, whose outputs have one channel each. Empty where the taps of one channel
  // can leave 32 bits.
  std::vector<ChannelGroup> groups;
  // Of a single group, by output channel: what no sum of products exceeds in magnitude.
  std::vector<int64_t> largest;
};

// Of a layer whose data have at most this magnitude.
ExactSums ExactSumsOf(const PreparedLayer& layer, int64_t magnitude);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_EXACT_SUMS_H_
