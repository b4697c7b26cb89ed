// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Shapes of operands that broadcast to each other.

#ifndef BITFOLD_SRC_OPS_COMMON_SHAPE_H_
#define BITFOLD_SRC_OPS_COMMON_SHAPE_H_

#include <algorithm>
#include <cstdint>
#include <vector>

#include "absl/status/status.h"
#include "bitfold/broadcast.h"
#include "tensorflow/core/framework/tensor.h"
#include "tensorflow/core/framework/tensor_shape.h"

namespace bitfold {

inline std::vector<int64_t> SizesOf(const tensorflow::Tensor& tensor) {
  const auto sizes = tensor.shape().dim_sizes();
  return {sizes.begin(), sizes.end()};
}

// The shape of two that have a common one.
inline absl::Status CommonShape(const std::vector<int64_t>& first,
                                const std::vector<int64_t>& second,
                                tensorflow::TensorShape* shape) {
  const size_t rank = std::max(first.size(), second.size());
  for (size_t i = 0; i < rank; ++i) {
    const int64_t a = broadcast_internal::Size(first, rank, i);
    const int64_t b = broadcast_internal::Size(second, rank, i);
    TF_RETURN_IF_ERROR(shape->AddDimWithStatus(a == 1 ? b : a));
  }
  return absl::OkStatus();
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_OPS_COMMON_SHAPE_H_
