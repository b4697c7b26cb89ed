// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Stored matrices in the form that products take.

#ifndef BITFOLD_SRC_CPU_STORED_MATRICES_H_
#define BITFOLD_SRC_CPU_STORED_MATRICES_H_

#include <cstdint>

#include "bitfold/weight_sign.h"

namespace bitfold {

// The matrix of `rows` x `cols` that is stored as cols x rows. T is int8_t or int16_t.
template <typename T>
void TransposeStored(const T* stored, int64_t rows, int64_t cols, T* out);

// `count` >= 1 stored numbers less their zero point, with their signs corrected, which fit 16 bits.
// Returns whether one was corrected.
template <typename T>
bool CorrectStored(const T* stored, int64_t count, int32_t zero_point,
                   const WeightSign<int32_t>& sign, int16_t* out);

// The sum of each row modulo 2^32.
template <typename T>
void SumStoredRows(const T* stored, int64_t rows, int64_t cols, int32_t* sums);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_STORED_MATRICES_H_
