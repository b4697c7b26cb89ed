// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_LAYERNORM_H_
#define BITFOLD_SRC_CPU_LAYERNORM_H_

#include "bitfold/HLayernorm.h"
#include "frame/workers.h"

namespace bitfold {

// The bits and the assertions of run_layernorm, with the same requirements, by vector loops, the
// vectors shared out among the workers. Requires shape.vector_size <= MAX_VECTOR_SIZE.
void ComputeLayernorm(const float* in, float* out, const LayerNormShape& shape, const float* lut,
                      const LayerNormParams& params, Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_LAYERNORM_H_
