// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// From a sum to the scale of its output (rules Q1 to Q4 of docs/arithmetic.md): a multiplier in
// fixed point, and the three ways in which kernels multiply by one and round.

#ifndef BITFOLD_REQUANTISE_H_
#define BITFOLD_REQUANTISE_H_

#include <cmath>
#include <cstdint>

#include "bitfold/int32_arithmetic.h"
#include "bitfold/int64_arithmetic.h"

namespace bitfold {

// mantissa / 2^31 * 2^exponent. The mantissa is 0, or lies in [2^30, 2^31 - 1].
struct FixedMultiplier {
  int32_t mantissa;
  int32_t exponent;
};

inline constexpr int32_t kLowestMultiplierExponent = -31;

// The nearest multiplier in fixed point, halves up; 0 where the exponent would be below the lowest.
// Requires a finite multiplier >= 0.
inline FixedMultiplier QuantiseMultiplier(double multiplier) {
  int exponent;
  const double fraction = std::frexp(multiplier, &exponent);
  auto mantissa = static_cast<int64_t>(std::floor(fraction * 2147483648.0 + 0.5));
  if (mantissa == int64_t{1} << 31) {
    mantissa /= 2;
    ++exponent;
  }
  if (mantissa == 0 || exponent < kLowestMultiplierExponent) return {0, 0};
  return {static_cast<int32_t>(mantissa), exponent};
}

// The high half of the doubled product x * mantissa, halves up. Requires mantissa >= 0.
inline int32_t DoubledProductHigh(int32_t x, int32_t mantissa) {
  const int64_t product = int64_t{x} * mantissa;
  return static_cast<int32_t>((product + (int64_t{1} << 30)) >> 31);
}

// x / 2^power, halves away from zero. Requires 0 <= power <= 31.
inline int32_t DivideByPowerOfTwo(int32_t x, int32_t power) {
  const int64_t magnitude = x < 0 ? -int64_t{x} : int64_t{x};
  const int64_t half = (int64_t{1} << power) >> 1;
  const int64_t quotient = (magnitude + half) >> power;
  return static_cast<int32_t>(x < 0 ? -quotient : quotient);
}

// The exponents of RescaleInTwoRoundings go up to here.
inline constexpr int32_t kHighestTwoRoundingsExponent = 31;

// A product with the full mantissa, rounded, and a division, rounded again. An exponent above 0
// shifts the sum first, in 32 bits. Requires the exponents above.
inline int32_t RescaleInTwoRoundings(int32_t x, FixedMultiplier multiplier) {
  const int32_t left = multiplier.exponent > 0 ? multiplier.exponent : 0;
  const int32_t right = multiplier.exponent > 0 ? 0 : -multiplier.exponent;
  return DivideByPowerOfTwo(DoubledProductHigh(ShiftLeft(x, left), multiplier.mantissa), right);
}

// The exponents of RescaleByShortMultiplier go up to here.
inline constexpr int32_t kHighestShortMultiplierExponent = 7;

// The mantissa in 15 bits, at most 32767. Requires a mantissa >= 0.
inline int32_t ShortMantissa(int32_t mantissa) {
  const int64_t rounded = (int64_t{mantissa} + (1 << 15)) >> 16;
  return static_cast<int32_t>(rounded < 32767 ? rounded : 32767);
}

// A product with 15 bits of the mantissa, in 64 bits, rounded once, halves up; the low 32 bits.
// Requires the exponents above.
inline int32_t RescaleByShortMultiplier(int64_t x, FixedMultiplier multiplier) {
  const int32_t shift = 15 - multiplier.exponent;
  const int64_t product = WrapMultiply64(x, ShortMantissa(multiplier.mantissa));
  const int64_t result = ShiftRight64(WrapAdd64(product, int64_t{1} << (shift - 1)), shift);
  return static_cast<int32_t>(static_cast<uint32_t>(result));
}

// A product in double precision, rounded to a whole number, halves away from zero. What no int32
// holds gives INT32_MIN.
template <typename T>
int32_t RescaleInOneRounding(T x, double multiplier) {
  return TruncateToInt32(std::round(static_cast<double>(x) * multiplier));
}

}  // namespace bitfold

#endif  // BITFOLD_REQUANTISE_H_
