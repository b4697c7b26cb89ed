// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_RESULT_SCALING_H_
#define BITFOLD_SRC_CPU_RESULT_SCALING_H_

#include <cstdint>

#include "bitfold/requantise.h"

namespace bitfold {

// How sums become stored elements, all by one multiplier, as the loops of result_scaling_loops.inc
// take it: mantissa / 2^31 * 2^(left - right), then the zero point, then the clamp.
struct ResultScaling {
  int32_t mantissa;
  int32_t left;
  int32_t right;
  int32_t zero_point;
  int32_t minimum;
  int32_t maximum;
};

inline ResultScaling ScalingBy(FixedMultiplier multiplier, int32_t zero_point, int32_t minimum,
                               int32_t maximum) {
  const int32_t left = multiplier.exponent > 0 ? multiplier.exponent : 0;
  return {multiplier.mantissa, left, left - multiplier.exponent, zero_point, minimum, maximum};
}

// Whether DivideAndStore may take the scaling, for sums within 2^30.
inline bool OnlyDivides(const ResultScaling& scaling) {
  return scaling.left == 0 && scaling.right >= 1 && scaling.right <= 30;
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_RESULT_SCALING_H_
