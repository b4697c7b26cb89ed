// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_SOFTMAX_H_
#define BITFOLD_SRC_CPU_SOFTMAX_H_

#include <cstdint>

#include "frame/workers.h"

namespace bitfold {

// The bits and the printed lines of run_softmax, with the same requirements, by vector loops, the
// vectors shared out among the workers.
void ComputeSoftmax(const float* in, float* out, int total, int num_vectors,
                    const uint32_t* lut_table, bool is_velquin, Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_SOFTMAX_H_
