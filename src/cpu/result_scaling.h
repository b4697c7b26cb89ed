// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_RESULT_SCALING_H_
#define BITFOLD_SRC_CPU_RESULT_SCALING_H_

#include <cstdint>

#include "bitfold/requantise.h"

namespace bitfold {

// How sums become stored elements, all by one multiplier, as the loops of result_scaling_loops.inc
// take it: the multiplier, then the zero point, then the clamp.
struct ResultScaling {
  FixedMultiplier multiplier;
  int32_t zero_point;
  int32_t minimum;
  int32_t maximum;
};

// Whether DivideAndStore may take the scaling, for sums within 2^30.
inline bool OnlyDivides(const ResultScaling& scaling) {
  return scaling.multiplier.exponent <= -1 && scaling.multiplier.exponent >= -30;
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_RESULT_SCALING_H_
