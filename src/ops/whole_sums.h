// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the ops ask of a layer that compare its sums with those of full width.

#ifndef BITFOLD_SRC_OPS_WHOLE_SUMS_H_
#define BITFOLD_SRC_OPS_WHOLE_SUMS_H_

#include <algorithm>
#include <cstdint>

#include "absl/status/status.h"
#include "absl/strings/str_format.h"
#include "bitfold/HPartialSums.h"
#include "bitfold/HPreparedConvolution.h"

namespace bitfold {

// Sums of such addends stay within 64 bits.
inline absl::Status CheckWholeSums(const PreparedLayer& layer) {
  if (layer.mult_shift > kMostSummedShift) {
    return absl::InvalidArgumentError(absl::StrFormat("Need a mult_shift in [0, %d], got %d",
                                                      kMostSummedShift, layer.mult_shift));
  }
  if (layer.PaddedElements() >= kMostSummedElements) {
    return absl::InvalidArgumentError(absl::StrFormat(
        "Need images of fewer than 2^29 elements, padded, got %d", layer.PaddedElements()));
  }
  if (layer.wide_bias == nullptr) return absl::OkStatus();
  const int64_t* const end = layer.wide_bias + layer.out_channels;
  const int64_t* const found = std::find_if(layer.wide_bias, end, [](int64_t bias) {
    return bias < -kLargestSummedBias || bias > kLargestSummedBias;
  });
  if (found == end) return absl::OkStatus();
  return absl::InvalidArgumentError(
      absl::StrFormat("Need a bias of at most 2^62 in magnitude, got %d", *found));
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_OPS_WHOLE_SUMS_H_
