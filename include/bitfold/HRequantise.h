// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HRequantise: from sums to stored integers, the definition (rules Q5 and Q6 of
// docs/arithmetic.md).

#ifndef BITFOLD_HREQUANTISE_H_
#define BITFOLD_HREQUANTISE_H_

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "bitfold/int32_arithmetic.h"
#include "bitfold/requantise.h"

namespace bitfold {

enum class Rescaling { kTwoRoundings, kShortMultiplier, kOneRounding };

// What the kernel's attributes say. Requires minimum <= maximum, both in the type of the output.
struct RequantiseMode {
  Rescaling rescaling;
  int32_t shift;  // added to every exponent
  int32_t zero_point;
  int32_t minimum;
  int32_t maximum;
};

// One output channel's multiplier in the forms that the rescalings take.
struct ChannelMultiplier {
  FixedMultiplier fixed;
  double real;
};

// The multiplier with the shift. Requires a finite multiplier >= 0.
inline ChannelMultiplier ShiftedMultiplier(double multiplier, int32_t shift) {
  FixedMultiplier fixed = QuantiseMultiplier(multiplier);
  if (fixed.mantissa != 0) fixed.exponent = WrapAdd(fixed.exponent, shift);
  return {fixed, shift == 0 ? multiplier : std::ldexp(multiplier, shift)};
}

// Whether the rescaling is defined for the multiplier.
inline bool IsDefined(Rescaling rescaling, const ChannelMultiplier& multiplier) {
  if (rescaling == Rescaling::kOneRounding) return std::isfinite(multiplier.real);
  const int32_t highest = rescaling == Rescaling::kTwoRoundings ? kHighestTwoRoundingsExponent
                                                                : kHighestShortMultiplierExponent;
  const int32_t exponent = multiplier.fixed.exponent;
  return exponent >= kLowestMultiplierExponent && exponent <= highest;
}

// A sum in the scale of the output. int64 sums have no form of two roundings.
template <typename T>
int32_t Rescale(T sum, const ChannelMultiplier& multiplier, Rescaling rescaling) {
  if constexpr (std::is_same_v<T, int32_t>) {
    if (rescaling == Rescaling::kTwoRoundings) return RescaleInTwoRoundings(sum, multiplier.fixed);
  }
  if (rescaling == Rescaling::kShortMultiplier) {
    return RescaleByShortMultiplier(sum, multiplier.fixed);
  }
  return RescaleInOneRounding(sum, multiplier.real);
}

// The zero point is added in 32 bits, then the result is clamped.
inline int32_t ShiftAndClamp(int32_t rescaled, const RequantiseMode& mode) {
  const int32_t shifted = WrapAdd(rescaled, mode.zero_point);
  if (shifted < mode.minimum) return mode.minimum;
  return shifted < mode.maximum ? shifted : mode.maximum;
}

// `positions` rows of `channels` sums. There is a multiplier for each channel, or one for all; the
// rescaling is defined for each of them.
template <typename T, typename Out>
struct RequantiseCall {
  const T* sums;
  Out* output;
  int64_t positions;
  int64_t channels;
  const double* multipliers;
  bool per_channel;
  RequantiseMode mode;
};

// The op; the definition.
template <typename T, typename Out>
void DefineRequantise(const RequantiseCall<T, Out>& call) {
  for (int64_t i = 0; i < call.positions * call.channels; ++i) {
    const double multiplier = call.multipliers[call.per_channel ? i % call.channels : 0];
    const ChannelMultiplier shifted = ShiftedMultiplier(multiplier, call.mode.shift);
    const int32_t rescaled = Rescale(call.sums[i], shifted, call.mode.rescaling);
    call.output[i] = static_cast<Out>(ShiftAndClamp(rescaled, call.mode));
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HREQUANTISE_H_
