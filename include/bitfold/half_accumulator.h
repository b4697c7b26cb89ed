// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The half-precision accumulator: its quantiser and one addition into it (rules H1 and H2 of
// docs/arithmetic.md).

#ifndef BITFOLD_HALF_ACCUMULATOR_H_
#define BITFOLD_HALF_ACCUMULATOR_H_

#include <float.h>
#include <math.h>

#include <cstdint>

#include "bitfold/host_device.h"

namespace bitfold {

// Quantises x to the accumulator's format, in the order of the hardware:
//   |x| < 2:  floor to 16 fractional bits, then round half to even to 10: steps of 2^-10.
//   else:     floor the significand m (0.5 <= |m| < 1) to 18 fractional bits, then round half to
//             even to 12: 12 significant bits.
// The double rounding is the hardware's; it is not the nearest value (a tie after the floor need
// not be a tie before it). Exponents above 15 model the overflow: the sign flips and the exponent
// is held at 15, so 40000 becomes -20000.
// NaN stays NaN and infinities stay infinite (their exponent counts as 0). -0 stays -0, and a
// negative x that rounds to zero gives -0.
BITFOLD_HOST_DEVICE inline float f32_to_hf16(float x) {
  constexpr int kMinExponent = 2;
  constexpr int kMaxExponent = 15;
  // The powers of two 2^e that step 4 reaches: smaller exponents end in step 2, larger ones are
  // held at the last.
  constexpr int32_t exp_array[] = {1 << 2, 1 << 3,  1 << 4,  1 << 5,  1 << 6,  1 << 7,  1 << 8,
                                   1 << 9, 1 << 10, 1 << 11, 1 << 12, 1 << 13, 1 << 14, 1 << 15};
  static_assert(exp_array[0] == 1 << kMinExponent &&
                exp_array[kMaxExponent - kMinExponent] == 1 << kMaxExponent &&
                sizeof(exp_array) == sizeof(int32_t) * (kMaxExponent - kMinExponent + 1));

  // 1. Split: x = m * 2^e. frexpf leaves e unspecified for NaN and infinities; 0 is ours.
  int e = 0;
  const float m = frexpf(x, &e);
  if (!(fabsf(x) <= FLT_MAX)) e = 0;

  // 2. Small values keep absolute steps. 65536 / 64 = 1024 = 2^10.
  if (e < kMinExponent) {
    const double floored = floor(static_cast<double>(x) * 65536.0);
    return rintf(static_cast<float>(floored * 0.015625)) * 0.0009765625f;
  }

  // 3. Larger ones keep 12 fractional bits of the significand. 262144 / 64 = 4096 = 2^12.
  const double floored = floor(static_cast<double>(m) * 262144.0);
  float significand = rintf(static_cast<float>(floored * 0.015625)) * 0.000244140625f;

  // 4. Overflow: flip the sign, hold the exponent.
  if (e > kMaxExponent) {
    significand = -significand;
    e = kMaxExponent;
  }
  return significand * static_cast<float>(exp_array[e - kMinExponent]);
}

// One addition: the addend is quantised before the sum and the sum after it. Nothing wraps here.
BITFOLD_HOST_DEVICE inline float AccumulateHalf(float acc, float addend) {
  return f32_to_hf16(acc + f32_to_hf16(addend));
}

}  // namespace bitfold

#endif  // BITFOLD_HALF_ACCUMULATOR_H_
