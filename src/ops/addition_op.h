// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the four additions do around their arithmetic.

#ifndef BITFOLD_SRC_OPS_ADDITION_OP_H_
#define BITFOLD_SRC_OPS_ADDITION_OP_H_

#include <cstdint>

#include "bitfold/addition_shape.h"
#include "frame/op_frame.h"
#include "ops/gpu_device.h"
#include "tensorflow/core/framework/op_kernel.h"

namespace bitfold {

// The dimensions of `value` that are computed: all of a rank of 4, otherwise the first two, of
// which there must be so many.
inline AdditionShape ShapeOf(const tensorflow::Tensor& value) {
  const auto size = [&value](int i) { return static_cast<int32_t>(value.dim_size(i)); };
  if (value.dims() == 4) return {size(0), size(1), size(2), size(3)};
  return {size(0), 1, 1, size(1)};
}

// Requires that inputs 0 and 1, `value` and `elementwise`, hold what is computed.
inline absl::Status RequireElementwise(tensorflow::OpKernelContext* context) {
  const tensorflow::Tensor& value = context->input(0);
  if (value.dims() < 2) {
    return absl::InvalidArgumentError(
        absl::StrCat("Need value of rank 2 or above, got rank ", value.dims()));
  }
  TF_RETURN_IF_ERROR(RequireInt32Dimensions("value", value));
  const int32_t count = ShapeOf(value).ElementCount();
  constexpr char kWhat[] = "the product of the dimensions of value that are computed";
  TF_RETURN_IF_ERROR(RequireElements("value", value, count, kWhat));
  return RequireElements("elementwise", context->input(1), count, kWhat);
}

// Allocates an output like `value`, zeroed from element `written` on.
template <typename Device>
absl::Status AllocateOutput(tensorflow::OpKernelContext* context, const Device& device,
                            int64_t written, tensorflow::Tensor** output) {
  TF_RETURN_IF_ERROR(context->allocate_output(0, context->input(0).shape(), output));
  return ZeroFill(device, *output, written);
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_OPS_ADDITION_OP_H_
