// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the kernels of the four additions run: the definitions of HAdd.h, HBiasAdd.h,
// HDecomposedBiasAdd.h and HStandaloneElementwiseAdd.h over 0 <= i < count, block by block.

#ifndef BITFOLD_SRC_CPU_ADDITIONS_H_
#define BITFOLD_SRC_CPU_ADDITIONS_H_

#include <cstdint>

#include "bitfold/datapath.h"

namespace bitfold {

// T is int32_t or float. The arrays are as for the definitions; out shares no memory with them.

template <typename T>
void AddElementwise(const Datapath<T>& datapath, const T* value, const T* elementwise, T factor,
                    int64_t passes, int64_t count, T* out);

template <typename T>
void AddBias(const Datapath<T>& datapath, const T* value, const T* bias, T factor, int64_t passes,
             int64_t count, int64_t channels, T* out);

template <typename T>
void AddDecomposedBias(const Datapath<T>& datapath, const T* value, const T* bias_a,
                       const T* bias_b, T factor_a, T factor_b, int64_t passes, int64_t count,
                       int64_t channels, T* out);

template <typename T>
void AddWeighted(const Datapath<T>& datapath, const T* value, const T* elementwise,
                 const T* weights, int64_t count, int64_t channels, T* out);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_ADDITIONS_H_
