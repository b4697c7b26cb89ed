// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The half-precision quantiser without calls, for the vector loops: the bits of f32_to_hf16.

#ifndef BITFOLD_SRC_VECTOR_QUANTISE_HALF_H_
#define BITFOLD_SRC_VECTOR_QUANTISE_HALF_H_

#include <cmath>
#include <cstdint>

#include "bitfold/float_bits.h"

namespace bitfold {

// With x = m * 2^e, 0.5 <= |m| < 1, and e' = max(e, 2):
//   rint(floor(x * 2^(18 - e')) / 64) * 2^(e' - 12)
// and from e' = 16 on the sign flips and 2^(15 - 12) scales. Every product is by a power of two and
// exact: x * 2^(18 - e') is below 2^18, so an int32 holds its floor, and 18 bits its float. Zero
// and subnormals have an e smaller than 2 anyway; NaN and infinities come back as they are.
//
// Written without a branch and without a selected float, of which the compiler makes a branch:
// loops of floorf and of those do not vectorise. Powers of two are formed as bits, exponent + 127
// at bit 23; all of them are normal numbers.
inline float QuantiseHalf(float x) {
  const int32_t bits = BitsOf(x);
  const int32_t field = (bits >> 23) & 0xff;
  const int32_t finite = (field - 255) >> 31;  // a mask
  const int32_t e = (field & finite) - 126;
  const int32_t floor_exponent = e < 2 ? 2 : e;
  const int32_t held_exponent = floor_exponent < 15 ? floor_exponent : 15;
  const int32_t flip = (15 - floor_exponent) & INT32_MIN;

  const float scaled = FloatOf(bits & finite) * FloatOf((18 - floor_exponent + 127) << 23);
  const int32_t truncated = static_cast<int32_t>(scaled);
  const int32_t floored = truncated - (static_cast<float>(truncated) > scaled ? 1 : 0);
  const float rounded = rintf(static_cast<float>(floored) * 0.015625f);
  const int32_t with_sign = BitsOf(rounded) | (bits & INT32_MIN);  // which a floor of -0 lost
  const float result = FloatOf(with_sign) * FloatOf(flip | (held_exponent - 12 + 127) << 23);
  return FloatOf((BitsOf(result) & finite) | (bits & ~finite));
}

constexpr int32_t kLargestHalfBits = 0x46fffe00;  // of 32767

// The same for whole numbers below 2^15 in magnitude, which need no floor: 12 bits of x, halves to
// even. 2^12 + 1 times x and then what that is more than x each lose 12 bits to the rounding of
// single precision. Zero comes back without its sign.
inline float RoundHalfOfWhole(float x) {
  const float scaled = x * 4097.0f;
  return scaled - (scaled - x);
}

// For those below 2^16: from 2^15 on, where the largest exponent ends, half of them with the other
// sign. Both results are there before one is selected, or the compiler makes a branch.
inline float QuantiseHalfOfWhole(float x) {
  const float rounded = RoundHalfOfWhole(x);
  const int32_t inside = BitsOf(rounded);
  const int32_t beyond = BitsOf(rounded * -0.5f);
  const int32_t is_beyond = -static_cast<int32_t>((BitsOf(x) & INT32_MAX) > kLargestHalfBits);
  return FloatOf(inside ^ ((inside ^ beyond) & is_beyond));
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_VECTOR_QUANTISE_HALF_H_
