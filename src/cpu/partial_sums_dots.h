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

// The bound of sums of magnitudes of the products, with any byte for the data's: two sums that the
// offset of the bytes has moved, and the magnitudes between them, stay within 32 bits together.
inline constexpr int64_t kMostDotSum = int64_t{1} << 29;

// Whether the following takes a call.
bool HasSumDots(const BytesCall& call);

// Adds the outputs to the tables. Requires one filter, sums of magnitudes of weights that stay
// below kMostDotSum / 255, and HasSumDots.
void SumByDots(const BytesCall& call, const PartialSumsTables& tables, Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PARTIAL_SUMS_DOTS_H_
