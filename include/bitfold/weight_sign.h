// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The weight sign correction (rule C1 of docs/arithmetic.md): the units that take unsigned data
// and signed weights read a weight in the upper half of its w/2 bits as a negative one.

#ifndef BITFOLD_WEIGHT_SIGN_H_
#define BITFOLD_WEIGHT_SIGN_H_

#include <math.h>

#include <cstdint>

#include "bitfold/host_device.h"
#include "bitfold/int32_arithmetic.h"

namespace bitfold {

// Weights above max = 2^(w/2 - 1) - 1 are reduced by period = 2 max + 2 = 2^(w/2), where
// w = accumulator_size and w/2 is the integer quotient. Both are formed as int32, also for float
// data, and converted to T: a width above 65 truncates to INT32_MIN and wraps.
template <typename T>
class WeightSign {
 public:
  BITFOLD_HOST_DEVICE explicit WeightSign(int32_t accumulator_size) {
    const int32_t weight_bits = accumulator_size / 2;
    const int32_t max = TruncateToInt32(exp2(static_cast<double>(weight_bits - 1)) - 1.0);
    max_ = static_cast<T>(max);
    period_ = static_cast<T>(WrapAdd(WrapMultiply(2, max), 2));
  }

  // The largest weight that is read as it is.
  BITFOLD_HOST_DEVICE T max() const { return max_; }

  BITFOLD_HOST_DEVICE bool NeedsCorrection(T weight) const { return weight > max_; }

  // Requires NeedsCorrection(weight). One correction only.
  BITFOLD_HOST_DEVICE T Correct(T weight) const { return Subtract(weight, period_); }

 private:
  BITFOLD_HOST_DEVICE static int32_t Subtract(int32_t a, int32_t b) { return WrapSubtract(a, b); }
  BITFOLD_HOST_DEVICE static float Subtract(float a, float b) { return a - b; }

  T max_;
  T period_;
};

}  // namespace bitfold

#endif  // BITFOLD_WEIGHT_SIGN_H_
