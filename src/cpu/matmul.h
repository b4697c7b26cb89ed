// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_MATMUL_H_
#define BITFOLD_SRC_CPU_MATMUL_H_

#include <cstdint>

#include "bitfold/HMatMul.h"
#include "frame/scratch.h"
#include "frame/workers.h"

namespace bitfold {

// The bits and lines of MatrixMultiplication for entries 0 to batch - 1, in their order. Several
// scratches at the same time where workers share entries. Throws the first exception of a part,
// with the outputs incomplete.
template <typename T>
void ComputeMatMul(const MatMulCall<T>& call, int32_t batch, const MakeScratch& make_scratch,
                   Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_MATMUL_H_
