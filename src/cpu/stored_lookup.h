// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_STORED_LOOKUP_H_
#define BITFOLD_SRC_CPU_STORED_LOOKUP_H_

#include "bitfold/HStoredLookup.h"
#include "frame/workers.h"

namespace bitfold {

// The bits of DefineStoredLookup. T and Out are int8_t, uint8_t or int16_t.
template <typename T, typename Out>
void ComputeStoredLookup(const StoredLookupCall<T, Out>& call, Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_STORED_LOOKUP_H_
