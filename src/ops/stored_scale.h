// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the ops on stored elements check of their attributes: scales, zero points and bounds.

#ifndef BITFOLD_SRC_OPS_STORED_SCALE_H_
#define BITFOLD_SRC_OPS_STORED_SCALE_H_

#include <cmath>
#include <cstdint>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "bitfold/stored_scale.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/framework/types.h"

namespace bitfold {

// The least and the greatest stored element of int8, uint8 or int16.
struct StoredRange {
  int32_t lowest;
  int32_t highest;
};

inline StoredRange RangeOf(tensorflow::DataType type) {
  if (type == tensorflow::DT_INT8) return {-128, 127};
  return type == tensorflow::DT_UINT8 ? StoredRange{0, 255} : StoredRange{-32768, 32767};
}

// int16 is symmetric: its zero point is 0.
inline absl::Status RequireStoredScale(const char* what, const StoredScale& scale,
                                       tensorflow::DataType type) {
  if (!(scale.scale > 0) || !std::isfinite(scale.scale)) {
    return absl::InvalidArgumentError(
        absl::StrFormat("Need a finite %s_scale above 0, got %.9g", what, scale.scale));
  }
  const StoredRange range = type == tensorflow::DT_INT16 ? StoredRange{0, 0} : RangeOf(type);
  if (scale.zero_point >= range.lowest && scale.zero_point <= range.highest)
    return absl::OkStatus();
  return absl::InvalidArgumentError(
      absl::StrFormat("Need %s_zero_point in [%d, %d] for %s, got %d", what, range.lowest,
                      range.highest, tensorflow::DataTypeString(type), scale.zero_point));
}

// Reads and checks the attributes NAME_scale and NAME_zero_point. Requires the default
// floating-point environment, in which no scale is flushed to 0.
inline absl::Status GetStoredScale(tensorflow::OpKernelConstruction* context, const char* name,
                                   tensorflow::DataType type, StoredScale* scale) {
  TF_RETURN_IF_ERROR(context->GetAttr(absl::StrCat(name, "_scale"), &scale->scale));
  TF_RETURN_IF_ERROR(context->GetAttr(absl::StrCat(name, "_zero_point"), &scale->zero_point));
  return RequireStoredScale(name, *scale, type);
}

inline absl::Status RequireStoredBounds(int32_t minimum, int32_t maximum,
                                        tensorflow::DataType type) {
  const StoredRange range = RangeOf(type);
  if (range.lowest <= minimum && minimum <= maximum && maximum <= range.highest) {
    return absl::OkStatus();
  }
  return absl::InvalidArgumentError(absl::StrFormat(
      "Need %d <= minimum <= maximum <= %d, got a minimum of %d and a maximum of %d", range.lowest,
      range.highest, minimum, maximum));
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_OPS_STORED_SCALE_H_
