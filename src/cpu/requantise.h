// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_REQUANTISE_H_
#define BITFOLD_SRC_CPU_REQUANTISE_H_

#include "bitfold/HRequantise.h"
#include "frame/workers.h"

namespace bitfold {

// The bits of DefineRequantise, with the same requirements, by vector loops. T is int32_t or
// int64_t, Out int8_t, int16_t or int32_t.
template <typename T, typename Out>
void ComputeRequantise(const RequantiseCall<T, Out>& call, Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_REQUANTISE_H_
