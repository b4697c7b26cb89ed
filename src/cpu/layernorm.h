// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_LAYERNORM_H_
#define BITFOLD_SRC_CPU_LAYERNORM_H_

#include "bitfold/HLayernorm.h"

namespace bitfold {

// The bits and the assertions of run_layernorm, whose contract it shares, by vector loops. Requires
// vector_size <= MAX_VECTOR_SIZE.
void RunLayernorm(const float* in, float* out, int vector_size, int width, int height, int batch,
                  const float* lut, const LayerNormParams& params);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_LAYERNORM_H_
