// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HStoredQuantise: real numbers to stored integers; the definition (rule V1 of docs/arithmetic.md).

#ifndef BITFOLD_HSTOREDQUANTISE_H_
#define BITFOLD_HSTOREDQUANTISE_H_

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

#include "bitfold/stored_scale.h"

namespace bitfold {

// Beyond the stored types, whatever the zero point, and exact in single precision.
inline constexpr float kMostSteps = 262144.0F;

// value / scale in single precision, rounded, halves away from zero, plus the zero point, within
// the type. What lies beyond it, infinities too, is its end; NaN stands for no number and is stored
// as the zero point.
template <typename T>
T StoredInteger(float value, const StoredScale& scale) {
  const float steps = value / scale.scale;
  const float within = std::isnan(steps) ? 0.0F : std::clamp(steps, -kMostSteps, kMostSteps);
  const int32_t stored = static_cast<int32_t>(std::round(within)) + scale.zero_point;
  return static_cast<T>(
      std::clamp<int32_t>(stored, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
}

template <typename T>
struct StoredQuantiseCall {
  const float* values;
  T* output;
  int64_t count;
  StoredScale scale;
};

// The op; the definition. T is int8_t, uint8_t or int16_t.
template <typename T>
void DefineStoredQuantise(const StoredQuantiseCall<T>& call) {
  for (int64_t i = 0; i < call.count; ++i) {
    call.output[i] = StoredInteger<T>(call.values[i], call.scale);
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HSTOREDQUANTISE_H_
