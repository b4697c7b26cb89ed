// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How products of floats are scaled (rules S2 and S3 of docs/arithmetic.md), in whole numbers.

#ifndef BITFOLD_TESTS_PROOFS_ENUMERATE_SCALING_H_
#define BITFOLD_TESTS_PROOFS_ENUMERATE_SCALING_H_

#include <cstdint>

#include "proofs/enumerate/exact.h"

namespace bitfold::enumeration {

inline Exact ExactOf(int32_t whole) {
  const int64_t wide = whole;
  return {wide < 0, static_cast<uint64_t>(wide < 0 ? -wide : wide), 0};
}

// S2. Requires |divisor| < 2^24.
inline uint32_t Divided(uint32_t bits, int32_t divisor) {
  return divisor == 0 ? Canonical(bits) : Whole(Quotient(bits, ExactOf(divisor)));
}

// S3.
inline uint32_t Multiplied(uint32_t bits, int32_t divisor) {
  constexpr uint32_t kOne = 0x3f800000;
  if (divisor == 0) return Canonical(bits);
  return Whole(Product(bits, Decoded(Quotient(kOne, ExactOf(divisor)))));
}

}  // namespace bitfold::enumeration

#endif  // BITFOLD_TESTS_PROOFS_ENUMERATE_SCALING_H_
