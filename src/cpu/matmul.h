// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_MATMUL_H_
#define BITFOLD_SRC_CPU_MATMUL_H_

#include <cstdint>

#include "bitfold/HMatMul.h"
#include "frame/scratch.h"

namespace bitfold {

// The bits and lines of MatrixMultiplication, with memory from `scratch`.
template <typename T>
void ComputeMatMul(const MatMulCall<T>& call, int32_t batch_index, Scratch* scratch);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_MATMUL_H_
