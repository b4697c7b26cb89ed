// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// One row by a matrix, whose weights are more than all else of the call and are read once: their
// products are added up modulo 2^32 while they are looked at, and count where what is seen proves
// that these are the sums.

#ifndef BITFOLD_SRC_CHAIN_ROW_PRODUCT_H_
#define BITFOLD_SRC_CHAIN_ROW_PRODUCT_H_

#include <cstdint>
#include <optional>

#include "bitfold/HMatMul.h"
#include "frame/scratch.h"
#include "frame/workers.h"

namespace bitfold {

// Computes and writes the product of an entry of the batch, and prints nothing. False, with what
// was written not counting, where sums are more than modulo 2^32, a weight needs its sign corrected
// or there is no memory. Requires rows == 1 and numbers to multiply.
template <typename T>
bool MultiplyRow(const MatMulCall<T>& call, int32_t batch_index, Workers* workers,
                 Scratch* scratch);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_ROW_PRODUCT_H_
