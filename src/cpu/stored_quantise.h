// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_STORED_QUANTISE_H_
#define BITFOLD_SRC_CPU_STORED_QUANTISE_H_

#include "bitfold/HStoredQuantise.h"
#include "frame/workers.h"

namespace bitfold {

// The bits of DefineStoredQuantise, by vector loops. T is int8_t, uint8_t or int16_t.
template <typename T>
void ComputeStoredQuantise(const StoredQuantiseCall<T>& call, Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_STORED_QUANTISE_H_
