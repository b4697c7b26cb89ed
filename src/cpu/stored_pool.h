// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_STORED_POOL_H_
#define BITFOLD_SRC_CPU_STORED_POOL_H_

#include "bitfold/HStoredPool.h"
#include "frame/workers.h"

namespace bitfold {

// The bits of DefineStoredPool and DefineStoredMean, with the same requirements, by vector loops
// over channels. T is int8_t or int16_t.
template <typename T>
void ComputeStoredPool(const StoredPoolCall<T>& call, Workers* workers);
template <typename T>
void ComputeStoredMean(const StoredMeanCall<T>& call, Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_STORED_POOL_H_
