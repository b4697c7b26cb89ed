// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The oracle of the requantisation behind a C interface. The settings are 5 int32 values in this
// order: rounding, shift, zero_point, minimum, maximum.

#include <cstdint>

#include "requantise.h"

extern "C" {

void reference_quantise_multipliers(const double* multipliers, int64_t count, int32_t* mantissas,
                                    int32_t* exponents) {
  for (int64_t i = 0; i < count; ++i) {
    const reference::FixedPoint fixed = reference::ToFixedPoint(multipliers[i]);
    mantissas[i] = static_cast<int32_t>(fixed.mantissa);
    exponents[i] = static_cast<int32_t>(fixed.exponent);
  }
}

// `multipliers` are repeated from their end on. Stops at the first sum that is refused, with its
// status.
int32_t reference_requantise(const int64_t* sums, int64_t count, const double* multipliers,
                             int64_t multiplier_count, const int32_t* settings, int32_t* out) {
  const reference::RequantiseSettings s = {static_cast<reference::Rounding>(settings[0]),
                                           settings[1], settings[2], settings[3], settings[4]};
  for (int64_t i = 0; i < count; ++i) {
    const auto status =
        reference::Requantise(sums[i], multipliers[i % multiplier_count], s, &out[i]);
    if (status != reference::RequantiseStatus::kOk) return static_cast<int32_t>(status);
  }
  return 0;
}

}  // extern "C"
