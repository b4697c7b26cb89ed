// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The rescalings of bitfold/requantise.h without calls and branches, for the vector loops: the same
// bits. 64-bit words are shifted right without a sign, since AVX2 has no such shift with one.

#ifndef BITFOLD_SRC_VECTOR_RESCALE_STEPS_H_
#define BITFOLD_SRC_VECTOR_RESCALE_STEPS_H_

#include <cstdint>
#include <cstring>

namespace bitfold {

// Rule Q2. A word of the doubled product that lies below its sign needs no sign to be shifted. What
// is shifted out rounds up above a half, and at a half where that is away from zero.
inline int32_t TwoRoundingsStep(int32_t sum, int32_t mantissa, int32_t exponent) {
  const int32_t left = exponent > 0 ? exponent : 0;
  const int32_t right = left - exponent;
  const auto x = static_cast<int32_t>(static_cast<uint32_t>(sum) << left);
  const auto product = static_cast<uint64_t>(int64_t{x} * mantissa);
  const auto high = static_cast<int32_t>(static_cast<uint32_t>((product + (1 << 30)) >> 31));
  const auto mask = static_cast<int32_t>((uint32_t{1} << right) - 1);
  const int32_t threshold = (mask >> 1) - (high >> 31);
  return (high >> right) + ((high & mask) > threshold ? 1 : 0);
}

inline constexpr uint64_t kSignOf64Bits = uint64_t{1} << 63;

// Rule Q3, of a multiplier's mantissa in 15 bits and exponent. With 2^63 added signed words are in
// the order of unsigned ones. That is in the addend; shifted, it is the excess, which is taken off
// again.
struct ShortMultiplierTerms {
  uint64_t addend;
  int32_t shift;
  uint32_t excess;

  explicit ShortMultiplierTerms(int32_t exponent)
      : addend((uint64_t{1} << (14 - exponent)) + kSignOf64Bits),
        shift(15 - exponent),
        excess(static_cast<uint32_t>(kSignOf64Bits >> (15 - exponent))) {}
};

template <typename T>
int32_t ShortMultiplierStep(T sum, int32_t mantissa, uint64_t addend, int32_t shift,
                            uint32_t excess) {
  const auto x = static_cast<uint64_t>(int64_t{sum});
  const uint64_t product = x * static_cast<uint64_t>(int64_t{mantissa});
  const uint64_t shifted = (product + addend) >> int64_t{shift};
  return static_cast<int32_t>(static_cast<uint32_t>(shifted) - excess);
}

inline double Widened(int32_t x) { return static_cast<double>(x); }

// The nearest double: both halves are exact, and their sum is rounded once. The lower one is made
// by its bits, as what lies above 2^52.
inline double Widened(int64_t x) {
  const auto word = static_cast<uint64_t>(x);
  const auto high = static_cast<int32_t>(static_cast<uint32_t>(word >> 32));
  const uint64_t low_bits = (word & 0xffffffff) | 0x4330000000000000;
  double low;
  std::memcpy(&low, &low_bits, sizeof(low));
  return static_cast<double>(high) * 4294967296.0 + (low - 4503599627370496.0);
}

// Rule Q4. The number below a half, added to the magnitude, rounds halves away from zero when the
// sum is truncated, also where adding a half would carry to the next whole number.
template <typename T>
int32_t OneRoundingStep(T sum, double multiplier) {
  const double product = Widened(sum) * multiplier;
  const double rounded = product + __builtin_copysign(0.49999999999999994, product);
  const bool fits = (rounded > -2147483649.0) & (rounded < 2147483648.0);
  return static_cast<int32_t>(fits ? rounded : -2147483648.0);
}

// Rule Q5.
inline int32_t ShiftAndClampStep(int32_t rescaled, int32_t zero_point, int32_t minimum,
                                 int32_t maximum) {
  const auto shifted =
      static_cast<int32_t>(static_cast<uint32_t>(rescaled) + static_cast<uint32_t>(zero_point));
  const int32_t raised = shifted < minimum ? minimum : shifted;
  return raised < maximum ? raised : maximum;
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_VECTOR_RESCALE_STEPS_H_
