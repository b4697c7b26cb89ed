// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of the requantisation.

#ifndef BITFOLD_TESTS_REFERENCE_REQUANTISE_H_
#define BITFOLD_TESTS_REFERENCE_REQUANTISE_H_

#include <cstdint>

namespace reference {

enum class Rounding : int32_t { kTwo = 0, kShortMultiplier = 1, kOne = 2 };

struct RequantiseSettings {
  Rounding rounding;
  int32_t shift;
  int32_t zero_point;
  int32_t minimum;
  int32_t maximum;
};

enum class RequantiseStatus : int32_t {
  kOk = 0,
  kMultiplier = 1,  // negative, infinite or NaN
  kExponent = 2,    // outside of what the rounding takes
  kSums = 3,        // two roundings of a sum beyond 32 bits
};

// mantissa * 2^(exponent - 31).
struct FixedPoint {
  int64_t mantissa;
  int64_t exponent;
};

// The multiplier is finite and not negative.
FixedPoint ToFixedPoint(double multiplier);

// A sum in the output's scale, before zero point and limits.
int32_t TwoRoundings(int32_t sum, const FixedPoint& multiplier);
int32_t ShortMultiplier(int64_t sum, const FixedPoint& multiplier);
// The multiplier is times 2^shift.
int32_t OneRounding(int64_t sum, double multiplier, int32_t shift);

// One element.
RequantiseStatus Requantise(int64_t sum, double multiplier, const RequantiseSettings& settings,
                            int32_t* result);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_REQUANTISE_H_
