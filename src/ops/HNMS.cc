// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HNMS.h"

#include <cmath>
#include <limits>

#include "cpu/nms.h"
#include "frame/floating_point_scope.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/platform/logging.h"

namespace bitfold {

using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;

// The declared shape is the input's, not the one produced.
BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HNMS")
      .Input("value: float32")
      .Input("scores_threshold: float32")
      .Attr("iou_threshold: float")
      .Attr("max_output_size: float")
      .Attr("classes: float")
      .Attr("debug_precise_numeric: bool")
      .Attr("is_velquin: bool")
      .Output("output: float32")
      .SetShapeFn(tensorflow::shape_inference::UnchangedShape);
}

template <typename Device>
class HNMSOp : public GuardedOp {
 public:
  explicit HNMSOp(OpKernelConstruction* context) : GuardedOp(context) {
    OP_REQUIRES_OK(context, context->GetAttr("iou_threshold", &iou_threshold_));
    OP_REQUIRES_OK(context, context->GetAttr("max_output_size", &max_output_size_));
    OP_REQUIRES_OK(context, context->GetAttr("classes", &classes_));
    OP_REQUIRES_OK(context, context->GetAttr("debug_precise_numeric", &debug_precise_numeric_));
    OP_REQUIRES_OK(context, context->GetAttr("is_velquin", &is_velquin_));
  }

  void Run(OpKernelContext* context) override {
    const Tensor& value = context->input(0);
    const Tensor& scores_threshold = context->input(1);
    if (value.dims() != 4) {
      LOG(ERROR) << "HNMS supports only rank 4";
      return;
    }
    OP_REQUIRES_OK(context, Check(value, scores_threshold));
    const auto size = [&value](int i) { return static_cast<int32_t>(value.dim_size(i)); };
    const auto classes = static_cast<int32_t>(classes_);
    const SuppressionInput in{
        value.flat<float>().data(), size(0), size(1), size(2), size(3), classes};
    const SuppressionOptions options{scores_threshold.flat<float>()(0), iou_threshold_,
                                     max_output_size_, debug_precise_numeric_, is_velquin_};
    const auto rows = static_cast<int64_t>(max_output_size_);
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, AllocateFrames(context, {size(0), classes, rows, 5}, &output));
    const DefaultFloatingPointScope scope;
    OpWorkers workers(context);
    ComputeNMS(in, options, output->flat<float>().data(), &workers);
    LOG(INFO) << "batch_size=" << size(0) << ", classes=" << classes_ << ", boxes=" << rows
              << ", params=" << 5 << "\n";
  }

 private:
  // Requires a value of rank 4. What passes has at least one frame and one row, all frames of
  // max_output_size rows.
  absl::Status Check(const Tensor& value, const Tensor& scores_threshold) const {
    if (value.dim_size(0) < 1 || value.dim_size(2) != 5 || value.dim_size(3) != 1) {
      return absl::InvalidArgumentError(absl::StrCat(
          "Need value of shape [batch, classes * boxes, 5, 1] with a batch of at least 1, got ",
          value.shape().DebugString()));
    }
    TF_RETURN_IF_ERROR(RequireInt32Dimensions("value", value));
    TF_RETURN_IF_ERROR(RequireInt32Elements("value", value));
    TF_RETURN_IF_ERROR(RequireScalar("scores_threshold", scores_threshold));
    constexpr float kEnd = 2147483648.0f;  // 2^31
    if (!(classes_ >= 1.0f && classes_ < kEnd)) {
      return absl::InvalidArgumentError(
          absl::StrCat("Need classes of at least 1 and below 2^31, got ", classes_));
    }
    if (!(max_output_size_ >= 1.0f && max_output_size_ < kEnd &&
          max_output_size_ == std::floor(max_output_size_))) {
      return absl::InvalidArgumentError(absl::StrCat(
          "Need max_output_size to be a whole number of at least 1 and below 2^31, got ",
          max_output_size_));
    }
    // Attributes and a batch without elements can ask for any number.
    const int64_t elements = SaturatingProduct({value.dim_size(0), static_cast<int64_t>(classes_),
                                                static_cast<int64_t>(max_output_size_), 5});
    if (elements > std::numeric_limits<int32_t>::max()) {
      return absl::InvalidArgumentError(absl::StrCat(
          "Need a batch, classes and max_output_size that give at most 2147483647 numbers, got ",
          value.dim_size(0), ", ", classes_, " and ", max_output_size_));
    }
    return absl::OkStatus();
  }

  absl::Status AllocateFrames(OpKernelContext* context, const tensorflow::TensorShape& shape,
                              Tensor** output) const {
    const absl::Status status = context->allocate_output(0, shape, output);
    if (!absl::IsResourceExhausted(status)) return status;
    return absl::ResourceExhaustedError(
        absl::StrCat("No memory for frames of max_output_size = ", max_output_size_,
                     " rows: ", status.message()));
  }

  float iou_threshold_ = 0.0f;
  float max_output_size_ = 0.0f;
  float classes_ = 0.0f;
  bool debug_precise_numeric_ = false;
  bool is_velquin_ = false;
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  REGISTER_KERNEL_BUILDER(Name("HNMS").Device(tensorflow::DEVICE_CPU), HNMSOp<CPUDevice>);
}

}  // namespace bitfold
