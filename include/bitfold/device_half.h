// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The half-precision quantiser as the kernels of a GPU compute it: the bits of f32_to_hf16 (rule H1
// of docs/arithmetic.md) for every float, in single precision alone. A GPU has few units for double
// precision, and a table or the parts of a number cost it more than the arithmetic.

#ifndef BITFOLD_DEVICE_HALF_H_
#define BITFOLD_DEVICE_HALF_H_

#include <float.h>
#include <math.h>

#include <cstdint>

#include "bitfold/float_bits.h"
#include "bitfold/host_device.h"

namespace bitfold {

// From here on H1 overflows.
inline constexpr float kHalfOverflow = 32768.0f;

// Their last bits are worth 2^-17 and 2^-11 where numbers of magnitude 2 are added.
inline constexpr float kFloorsTo17Bits = 96.0f;
inline constexpr float kRoundsTo11Bits = 6144.0f;

// significand + kFloorsTo17Bits, rounded down. Requires |significand| <= 2, infinite or NaN. A GPU
// has an instruction for it.
BITFOLD_HOST_DEVICE inline float FloorBesideBits(float significand) {
#ifdef __CUDA_ARCH__
  return __fadd_rd(significand, kFloorsTo17Bits);
#else
  const float sum = significand + kFloorsTo17Bits;
  const bool is_above = sum - kFloorsTo17Bits > significand;  // the difference is exact
  return is_above ? FloatOf(BitsOf(sum) - 1) : sum;
#endif
}

// What the exponent of x is worth: 2^(e - 1) where x = m * 2^e, 0.5 <= |m| < 1, and 2 at least.
BITFOLD_HOST_DEVICE inline int32_t HalfPowerBits(float x) {
  constexpr int32_t kTwo = 0x40000000;
  const int32_t power = BitsOf(x) & 0x7f800000;
  return power > kTwo ? power : kTwo;
}

// With e' = max(e, 2): rint(floor(x * 2^(18 - e')) / 64) * 2^(6 + 1 - 18), which is H1 less the
// scaling by 2^(e' - 1), with the sign of x. x is brought to [1, 2), or below where e' is not e;
// one addition floors it to 17 fractional bits, the next rounds it to 11, and all other steps are
// exact. What is lost of a subnormal number is far below the floor. Requires the bits of 2^(e' - 1)
// and e <= 127; an infinity gives anything.
BITFOLD_HOST_DEVICE inline float QuantiseSignificand(float x, int32_t power_bits) {
  const float significand = x * FloatOf(0x7f000000 - power_bits);
  const float floored = FloorBesideBits(significand);
  const float rounded = (floored + (kRoundsTo11Bits - kFloorsTo17Bits)) - kRoundsTo11Bits;
  return FloatOf(BitsOf(rounded) | (BitsOf(x) & INT32_MIN));
}

// H1 for |x| < kHalfOverflow and NaN.
BITFOLD_HOST_DEVICE inline float QuantiseHalfInRange(float x) {
  const int32_t power_bits = HalfPowerBits(x);
  return QuantiseSignificand(x, power_bits) * FloatOf(power_bits);
}

// H1. An overflow keeps the significand, so half of x does as well, which is no number of the
// largest exponent.
BITFOLD_HOST_DEVICE inline float QuantiseHalfOnDevice(float x) {
  const bool is_beyond = fabsf(x) >= kHalfOverflow;
  const float in_range = is_beyond ? x * 0.5f : x;
  const int32_t power_bits = HalfPowerBits(in_range);
  const float scale = is_beyond ? -0.5f * kHalfOverflow : FloatOf(power_bits);
  const float quantised = QuantiseSignificand(in_range, power_bits) * scale;
  return fabsf(x) <= FLT_MAX ? quantised : x;
}

// H1 for whole numbers of |x| < kHalfOverflow, which need no floor: 2^12 + 1 times x, and then what
// that is more than x, each lose 12 bits to the rounding of single precision.
BITFOLD_HOST_DEVICE inline float QuantiseHalfOfWholeInRange(float x) {
  const float scaled = x * 4097.0f;
  return scaled - (scaled - x);
}

// Rule H2 for addends as they come from the multiplier.
BITFOLD_HOST_DEVICE inline float AccumulateHalfOnDevice(float acc, float addend) {
  return QuantiseHalfOnDevice(acc + QuantiseHalfOnDevice(addend));
}

}  // namespace bitfold

#endif  // BITFOLD_DEVICE_HALF_H_
