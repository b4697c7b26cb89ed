// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_PARTIAL_SUMS_H_
#define BITFOLD_SRC_CPU_PARTIAL_SUMS_H_

#include "bitfold/HPartialSums.h"
#include "frame/workers.h"

namespace bitfold {

// What DefinePartialSums adds to the tables, with the same requirements, shared out. In and Weight
// are int8_t or int16_t.
template <typename In, typename Weight>
void ComputePartialSums(const PartialSumsCall<In, Weight>& call, const PartialSumsTables& tables,
                        Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PARTIAL_SUMS_H_
