// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HPartialSums a step at a time in lanes of output channels, in 32 bits: any shift, weights and
// data that 16 bits hold less their zero points.

#ifndef BITFOLD_SRC_CPU_PARTIAL_SUMS_LANES_H_
#define BITFOLD_SRC_CPU_PARTIAL_SUMS_LANES_H_

#include "bitfold/HPartialSums.h"
#include "frame/workers.h"

namespace bitfold {

inline constexpr int64_t kMostLaneSum = int64_t{1} << 30;

// Adds the outputs to the tables. Requires one filter, and sums of products that stay below
// kMostLaneSum in magnitude.
template <typename In, typename Weight>
void SumInLanes(const PartialSumsCall<In, Weight>& call, const PartialSumsTables& tables,
                Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PARTIAL_SUMS_LANES_H_
