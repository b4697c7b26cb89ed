// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HPartialSums by dot products of bytes, where the target has them.

#ifndef BITFOLD_SRC_CPU_PARTIAL_SUMS_DOTS_H_
#define BITFOLD_SRC_CPU_PARTIAL_SUMS_DOTS_H_

#include "bitfold/HPartialSums.h"
#include "frame/workers.h"

namespace bitfold {

using BytesCall = PartialSumsCall<int8_t, int8_t>;

// Whether the following takes a call.
bool HasSumDots(const BytesCall& call);

// Adds the outputs to the tables. Requires one filter, sums of magnitudes of weights that stay
// below 2^30 / 255, and HasSumDots.
void SumByDots(const BytesCall& call, const PartialSumsTables& tables, Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PARTIAL_SUMS_DOTS_H_
