// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_STORED_ELEMENTWISE_H_
#define BITFOLD_SRC_CPU_STORED_ELEMENTWISE_H_

#include "bitfold/HStoredElementwise.h"
#include "frame/workers.h"

namespace bitfold {

// The bits of DefineStoredElementwise, with the same requirements, by vector loops. T is int8_t or
// int16_t.
template <typename T>
void ComputeStoredElementwise(const StoredElementwiseCall<T>& call, Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_STORED_ELEMENTWISE_H_
