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

// Requires accumulator_size <= 32. Formed in double and truncated, so that a width of 32 gives the
// whole of int32 and a width of 0 the single value 0; so do negative widths, until M underflows to
// 0 and max is -1, where a wrap changes nothing.
template <>
struct AccumulatorLimits<int32_t> {
  int32_t min;
  int32_t max;
  int32_t period;  // max - min + 1 modulo 2^32: 0 at a width of 32

  BITFOLD_HOST_DEVICE explicit AccumulatorLimits(int32_t accumulator_size) {
    const double magnitude = AccumulatorMagnitude(accumulator_size);
    min = TruncateToInt32(-magnitude);
    max = TruncateToInt32(magnitude - 1.0);
    period = WrapAdd(WrapSubtract(max, min), 1);
  }

  BITFOLD_HOST_DEVICE AccumulatorLimits(int32_t lower, int32_t upper)
      : min(lower), max(upper), period(WrapAdd(WrapSubtract(upper, lower), 1)) {}
};

// Any width. Formed in single precision: from a width of 26 on, M - 1 rounds to M, so a sum of
// exactly M does not wrap there.
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

// One integer addition. Prints nothing. One addition of what is selected, so that loops of it
// vectorise.
BITFOLD_HOST_DEVICE inline int32_t Accumulate(int32_t acc, int32_t addend,
                                              const AccumulatorLimits<int32_t>& limits) {
  const int32_t sum = WrapAdd(acc, addend);
  const int32_t below = sum < limits.min ? limits.period : 0;
  const int32_t correction = sum > limits.max ? WrapSubtract(0, limits.period) : below;
  return WrapAdd(sum, correction);
}

// The wrap of one float sum. NaN passes. One addition of what is selected, so that loops of it
// vectorise; adding -0 changes no sum, also not one of -0 or +0.
BITFOLD_HOST_DEVICE inline float WrapOnce(float sum, const AccumulatorLimits<float>& limits) {
  const float below = sum < limits.min ? limits.period : -0.0f;
  const float correction = sum > limits.max ? -limits.period : below;
  return sum + correction;
}

}  // namespace bitfold

#endif  // BITFOLD_ACCUMULATOR_H_
