// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the kernels of the four additions run: the definitions over 0 <= i < count, block by block,
// the blocks shared out among the workers.

#ifndef BITFOLD_SRC_CPU_ADDITIONS_H_
#define BITFOLD_SRC_CPU_ADDITIONS_H_

#include <cstdint>

#include "bitfold/HAdd.h"
#include "bitfold/HBiasAdd.h"
#include "bitfold/HDecomposedBiasAdd.h"
#include "bitfold/HStandaloneElementwiseAdd.h"
#include "frame/cancellation.h"
#include "frame/workers.h"

namespace bitfold {

// T is int32_t or float. The buffers are as for the definitions; the output shares no memory with
// them. `count` need not be a whole number of channels: the product of the dimensions, which wraps,
// may not be one. Once a cancellation, where there is one, is requested, the call ends within some
// milliseconds and the output holds any values.

template <typename T>
void ComputeAdd(const AddCall<T>& call, int64_t count, Workers* workers,
                const Cancellation* cancellation = nullptr);

template <typename T>
void ComputeBiasAdd(const BiasAddCall<T>& call, int64_t count, Workers* workers,
                    const Cancellation* cancellation = nullptr);

template <typename T>
void ComputeDecomposedBiasAdd(const DecomposedBiasAddCall<T>& call, int64_t count, Workers* workers,
                              const Cancellation* cancellation = nullptr);

template <typename T>
void ComputeStandaloneElementwiseAdd(const StandaloneElementwiseAddCall<T>& call, int64_t count,
                                     Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_ADDITIONS_H_
