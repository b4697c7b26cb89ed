// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The half-precision quantiser (rule H1 of docs/arithmetic.md) in whole numbers.

#ifndef BITFOLD_TESTS_PROOFS_ENUMERATE_HALF_H_
#define BITFOLD_TESTS_PROOFS_ENUMERATE_HALF_H_

#include <algorithm>
#include <cstdint>

#include "proofs/enumerate/exact.h"

namespace bitfold::enumeration {

// A whole number of units of 2^exponent, with the sign of zero, too.
inline uint32_t Units(bool is_negative, int64_t units, int exponent) {
  return Nearest({is_negative, static_cast<uint64_t>(units < 0 ? -units : units), exponent});
}

// As it is defined, with x = m * 2^e, 0.5 <= |m| < 1. Infinities and NaN stay what they are.
inline uint32_t Half(uint32_t bits) {
  if (!IsFinite(bits)) return Canonical(bits);
  const Exact x = Decoded(bits);
  const int e = x.exponent + Length(x.digits);
  if (x.digits == 0 || e < 2) {
    return Units(x.is_negative, HalvesToEven(FloorOfScaled(x, 16), 6), -10);
  }
  const int64_t significand = HalvesToEven(FloorOfScaled(x, 18 - e), 6);
  return Units(x.is_negative != (e > 15), significand, std::min(e, 15) - 12);
}

// H2: the sum of acc and the quantised addend, quantised.
inline uint32_t HalfSum(uint32_t acc, uint32_t addend) { return Half(Sum(acc, Half(addend))); }

}  // namespace bitfold::enumeration

#endif  // BITFOLD_TESTS_PROOFS_ENUMERATE_HALF_H_
