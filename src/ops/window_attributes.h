// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Where the windows of a layer lie: attributes that its ops have in common.

#ifndef BITFOLD_SRC_OPS_WINDOW_ATTRIBUTES_H_
#define BITFOLD_SRC_OPS_WINDOW_ATTRIBUTES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_format.h"
#include "absl/strings/str_join.h"
#include "bitfold/HPreparedConvolution.h"
#include "bitfold/geometry.h"
#include "tensorflow/core/framework/op_kernel.h"

namespace bitfold {

// Sizes, and sums of them, stay far from 2^31.
inline constexpr int32_t kLargestSize = 1 << 28;

// Where windows lie: attributes of the op and of its shape function.
struct WindowAttributes {
  std::vector<int32_t> strides;    // rows, columns
  std::vector<int32_t> dilations;  // rows, columns
  std::vector<int32_t> zeros;      // above, below, left, right
  Padding padding = Padding::kValid;

  template <typename Context>
  absl::Status Read(Context* context) {
    TF_RETURN_IF_ERROR(context->GetAttr("strides", &strides));
    TF_RETURN_IF_ERROR(context->GetAttr("dilations", &dilations));
    TF_RETURN_IF_ERROR(context->GetAttr("zeros", &zeros));
    std::string name;
    TF_RETURN_IF_ERROR(context->GetAttr("padding", &name));
    padding = name == "SAME" ? Padding::kSame : Padding::kValid;
    TF_RETURN_IF_ERROR(Check("strides", strides, 2, 1));
    TF_RETURN_IF_ERROR(Check("dilations", dilations, 2, 1));
    return Check("zeros", zeros, 4, 0);
  }

  // Requires sizes of at most kLargestSize, and gives an axis of at least one output.
  absl::Status AxisOf(size_t axis, int64_t input, int64_t taps, LayerAxis* result) const {
    const char* name = axis == 0 ? "height" : "width";
    if (input < 1 || input > kLargestSize || taps < 1 || taps > kLargestSize) {
      return absl::InvalidArgumentError(
          absl::StrFormat("Need an input and a filter of a %s from 1 to %d, got %d and %d", name,
                          kLargestSize, input, taps));
    }
    *result = {static_cast<int32_t>(input),
               static_cast<int32_t>(taps),
               strides[axis],
               dilations[axis],
               zeros[2 * axis],
               zeros[2 * axis + 1],
               padding};
    const int64_t extent = (taps - 1) * dilations[axis] + 1;
    if (padding == Padding::kSame || extent <= result->padded()) return absl::OkStatus();
    return absl::InvalidArgumentError(absl::StrFormat(
        "Need a padded %s of at least the filter's %d, got %d", name, extent, result->padded()));
  }

 private:
  static absl::Status Check(const char* name, const std::vector<int32_t>& values, size_t count,
                            int32_t least) {
    bool fits = values.size() == count;
    for (const int32_t value : values) fits &= least <= value && value <= kLargestSize;
    if (fits) return absl::OkStatus();
    return absl::InvalidArgumentError(absl::StrFormat("Need %d %s from %d to %d, got [%s]", count,
                                                      name, least, kLargestSize,
                                                      absl::StrJoin(values, ", ")));
  }
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_OPS_WINDOW_ATTRIBUTES_H_
