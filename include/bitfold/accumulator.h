// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The accumulator of w = accumulator_size bits: M = 2^(w-1), range [-M, M - 1], one wrap by 2M
// after an addition that leaves it (rules A1 to A4 of docs/arithmetic.md). The wrap is made once
// only: a sum more than one period outside stays outside.

#ifndef BITFOLD_ACCUMULATOR_H_
#define BITFOLD_ACCUMULATOR_H_

#include <math.h>

#include <cstdint>

#include "bitfold/host_device.h"
#include "bitfold/int32_arithmetic.h"
#include "bitfold/warning.h"

namespace bitfold {

// The widest accumulator that int32 data can model. Float data has no such bound.
inline constexpr int32_t kMaxInt32AccumulatorSize = 32;

// M = 2^(accumulator_size - 1). Exact, 0.5 for a width of 0, infinite above 128.
BITFOLD_HOST_DEVICE inline float AccumulatorMagnitude(int32_t accumulator_size) {
  return exp2f(static_cast<float>(WrapSubtract(accumulator_size, 1)));
}

template <typename T>
struct AccumulatorLimits;

// Requires 0 <= accumulator_size <= 32. Formed in double and truncated, so that a width of 32
// gives the whole of int32 and a width of 0 the single value 0.
template <>
struct AccumulatorLimits<int32_t> {
  int32_t min;
  int32_t max;

  BITFOLD_HOST_DEVICE explicit AccumulatorLimits(int32_t accumulator_size) {
    const double magnitude = AccumulatorMagnitude(accumulator_size);
    min = TruncateToInt32(-magnitude);
    max = TruncateToInt32(magnitude - 1.0);
  }
};

// Requires accumulator_size >= 0. Formed in single precision: from a width of 26 on, M - 1 rounds
// to M, so a sum of exactly M does not wrap there.
template <>
struct AccumulatorLimits<float> {
  float min;
  float max;
  float period;

  BITFOLD_HOST_DEVICE explicit AccumulatorLimits(int32_t accumulator_size) {
    const float magnitude = AccumulatorMagnitude(accumulator_size);
    min = -magnitude;
    max = magnitude - 1.0f;
    period = magnitude + magnitude;
  }
};

// One integer addition. Prints nothing.
BITFOLD_HOST_DEVICE inline int32_t Accumulate(int32_t acc, int32_t addend,
                                              const AccumulatorLimits<int32_t>& limits) {
  const int32_t sum = WrapAdd(acc, addend);
  if (sum > limits.max) {
    return WrapSubtract(WrapAdd(limits.min, WrapSubtract(sum, limits.max)), 1);
  }
  if (sum < limits.min) {
    return WrapAdd(WrapAdd(limits.max, WrapSubtract(sum, limits.min)), 1);
  }
  return sum;
}

// The wrap of one float sum. NaN passes.
BITFOLD_HOST_DEVICE inline float WrapOnce(float sum, const AccumulatorLimits<float>& limits) {
  if (sum > limits.max) return sum - limits.period;
  if (sum < limits.min) return sum + limits.period;
  return sum;
}

}  // namespace bitfold

#endif  // BITFOLD_ACCUMULATOR_H_
