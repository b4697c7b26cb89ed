// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_BILINEAR_H_
#define BITFOLD_SRC_CPU_BILINEAR_H_

#include "bitfold/HBilinear.h"
#include "frame/workers.h"

namespace bitfold {

// What the kernel of HBilinear runs: run_bilinear, block by block, the blocks shared out among the
// workers. T is int32_t or float; the output shares no memory with the inputs.
template <typename T>
void ComputeBilinear(const BilinearCall<T>& call, Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_BILINEAR_H_
