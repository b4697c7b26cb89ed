// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the ops that requantise have in common: the attributes of a RequantiseMode and what is asked
// of them and of the multipliers.

#ifndef BITFOLD_SRC_OPS_REQUANTISE_ATTRIBUTES_H_
#define BITFOLD_SRC_OPS_REQUANTISE_ATTRIBUTES_H_

#include <cmath>
#include <cstdint>
#include <string>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "bitfold/HRequantise.h"
#include "tensorflow/core/framework/op_kernel.h"

namespace bitfold {

// For Attr() of an op.
inline constexpr char kRoundingAttribute[] =
    "rounding: {'two_roundings', 'short_multiplier', 'one_rounding'}";

inline Rescaling RescalingOf(const std::string& rounding) {
  if (rounding == "two_roundings") return Rescaling::kTwoRoundings;
  return rounding == "short_multiplier" ? Rescaling::kShortMultiplier : Rescaling::kOneRounding;
}

// Requires a zero point and bounds of the type that is stored.
inline absl::Status CheckStored(const RequantiseMode& mode, tensorflow::DataType type) {
  const int64_t highest = type == tensorflow::DT_INT8    ? INT8_MAX
                          : type == tensorflow::DT_INT16 ? INT16_MAX
                                                         : INT32_MAX;
  const int64_t lowest = -highest - 1;
  if (mode.zero_point < lowest || mode.zero_point > highest) {
    return absl::InvalidArgumentError(
        absl::StrFormat("Need a zero_point in [%d, %d], got %d", lowest, highest, mode.zero_point));
  }
  if (mode.minimum < lowest || mode.minimum > mode.maximum || mode.maximum > highest) {
    return absl::InvalidArgumentError(absl::StrFormat(
        "Need %d <= minimum <= maximum <= %d, got a minimum of %d and a maximum of %d", lowest,
        highest, mode.minimum, mode.maximum));
  }
  return absl::OkStatus();
}

// Requires one multiplier or one for each channel.
inline absl::Status CheckMultiplierCount(int64_t channels, int64_t count) {
  if (count == 1 || count == channels) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrCat("Need 1 multiplier or one for each of the ",
                                                 channels, " channels of sums, got ", count));
}

// Requires a multiplier for which the mode's rescaling is defined.
inline absl::Status CheckMultiplier(const RequantiseMode& mode, double multiplier,
                                    int64_t channel) {
  if (!(multiplier >= 0) || !std::isfinite(multiplier)) {
    return absl::InvalidArgumentError(
        absl::StrFormat("Need multipliers that are finite and not negative, got %.17g in channel "
                        "%d",
                        multiplier, channel));
  }
  const ChannelMultiplier shifted = ShiftedMultiplier(multiplier, mode.shift);
  if (IsDefined(mode.rescaling, shifted)) return absl::OkStatus();
  const std::string got = absl::StrFormat(" (multiplier %.17g with a shift of %d) in channel %d",
                                          multiplier, mode.shift, channel);
  if (mode.rescaling == Rescaling::kOneRounding) {
    return absl::InvalidArgumentError(
        absl::StrCat("Need multipliers that the shift leaves finite, got infinity", got));
  }
  const bool is_two = mode.rescaling == Rescaling::kTwoRoundings;
  return absl::InvalidArgumentError(absl::StrCat(
      "Need exponents from ", kLowestMultiplierExponent, " to ",
      is_two ? kHighestTwoRoundingsExponent : kHighestShortMultiplierExponent, " for ",
      is_two ? "two_roundings" : "short_multiplier", ", got ", shifted.fixed.exponent, got));
}

// Requires the multipliers of a layer of so many channels.
inline absl::Status CheckMultipliers(const RequantiseMode& mode,
                                     const tensorflow::Tensor& multipliers, int64_t channels) {
  if (multipliers.dims() != 1) {
    return absl::InvalidArgumentError(
        absl::StrCat("Need multipliers of rank 1, got shape ", multipliers.shape().DebugString()));
  }
  const int64_t count = multipliers.NumElements();
  TF_RETURN_IF_ERROR(CheckMultiplierCount(channels, count));
  for (int64_t i = 0; i < count; ++i) {
    TF_RETURN_IF_ERROR(CheckMultiplier(mode, multipliers.flat<double>()(i), i));
  }
  return absl::OkStatus();
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_OPS_REQUANTISE_ATTRIBUTES_H_
